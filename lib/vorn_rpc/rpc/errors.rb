# frozen_string_literal: true

module VORN
  module RPC
    # What all errors of this module are, except for those that VORN::Stream raises.
    class Error < StandardError
    end

    # No answer in time. The server may still be working on the call.
    class TimedOut < Error
    end

    # There is no connection, or it ended before the answer came. If the request had been sent, the server may have
    # executed it.
    class ConnectionLost < Error
    end

    # The peer does not speak this protocol: a message is no request, or no answer.
    class BadMessage < Error
    end

    # The server has answered with an error.
    class RemoteError < Error
      # What kind of error, for programs. The server itself uses "no such method", "bad arguments", "too large",
      # "failed" and "stopping", which says that the call has not been executed.
      #
      #   VORN::RPC::RemoteError.new("overflow", "more than 32 bits").code  # => "overflow"
      attr_reader :code

      # The same for people.
      #
      #   VORN::RPC::RemoteError.new("overflow", "more than 32 bits").text  # => "more than 32 bits"
      attr_reader :text

      def initialize(code, text)
        super("#{code}: #{text}")
        @code = code
        @text = text
      end
    end

    # Raised by a method of a server, for an error that the client may see. Of all others it sees only "failed".
    #
    #   withdraw = ->(amount) { raise VORN::RPC::Refused.new("overdrawn", "#{amount} is too much") }
    #   withdraw.call(7)  # raises VORN::RPC::Refused "7 is too much"
    class Refused < Error
      # What kind of error, for programs: RemoteError#code of the client.
      #
      #   VORN::RPC::Refused.new("overdrawn", "7 is too much").code  # => "overdrawn"
      attr_reader :code

      def initialize(code, text)
        super(text)
        @code = code.to_s
      end
    end
  end
end
