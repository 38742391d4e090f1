# frozen_string_literal: true

module VORN
  module RPC
    # Time for deadlines.
    module Clock # :nodoc:
      # The monotonic clock, in seconds: setting the time does not move it.
      def self.now
        Process.clock_gettime(Process::CLOCK_MONOTONIC)
      end
    end
  end
end
