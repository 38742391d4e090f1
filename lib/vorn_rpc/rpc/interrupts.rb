# frozen_string_literal: true

module VORN
  module RPC
    # Exceptions that other threads raise in this one: Thread#raise, Thread#kill, Timeout. In the middle of a call they
    # would lose bytes that have been read or written, and so the calls of other threads; and a thread that is killed
    # while it waits for a Mutex may take along the signal that was to wake the next one (Ruby 3.1). They come while a
    # call waits for its peer.
    module Interrupts # :nodoc:
      HELD = { Object => :never }.freeze
      ALLOWED = { Object => :immediate }.freeze
      private_constant :HELD, :ALLOWED

      def self.hold(&block)
        Thread.handle_interrupt(HELD, &block)
      end

      def self.allow(&block)
        Thread.handle_interrupt(ALLOWED, &block)
      end
    end
  end
end
