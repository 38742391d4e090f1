# frozen_string_literal: true

module VORN
  class Packing
    # What all errors of packing are.
    class Error < StandardError
    end

    # A class, or a tag from a peer, that no type is registered for.
    class UnknownType < Error
    end

    # The peer's value is not what packing makes: a tag beside other keys, or one whose type cannot be built from what
    # stands behind it. What the type raised is the #cause.
    class Malformed < Error
    end

    # More than MAX_DEPTH levels, or a value that contains itself.
    class TooDeep < Error
    end
  end
end
