# frozen_string_literal: true

module VORN
  module RPC
    # The client sends nothing, or does not finish what it began.
    class Silent < Error # :nodoc:
    end

    # The timeouts of a server that waits for a client. A client may be silent for one time, and a frame that has begun
    # must be complete within a shorter one, measured from its beginning: otherwise a byte now and then would hold a
    # connection and an incomplete frame for ever.
    class Patience # :nodoc:
      def initialize(idle_seconds, frame_seconds, now)
        @idle_seconds = idle_seconds
        @frame_seconds = frame_seconds
        @in_frame = false
        @deadline = now + idle_seconds
      end

      # All bytes that arrived have been processed. whole: whether they completed a frame. between: whether none is
      # begun.
      def heard(whole, between, now)
        if between
          @in_frame = false
          @deadline = now + @idle_seconds
        elsif whole || !@in_frame
          @in_frame = true
          @deadline = now + @frame_seconds
        end
      end

      # Raises Silent when the deadline has passed, unless the client waits for an answer and no frame is incomplete.
      def check(busy, now)
        return if now < @deadline
        raise Silent, "the rest of a frame did not come in #{@frame_seconds} s" if @in_frame
        raise Silent, "silent for #{@idle_seconds} s" unless busy
        @deadline = now + @idle_seconds
      end
    end
  end
end
