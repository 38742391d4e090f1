# frozen_string_literal: true

module VORN
  module RPC
    # Threads that run blocks in the order in which they were given.
    class Workers # :nodoc:
      def initialize(count)
        @jobs = Queue.new
        @finishing = false
        @threads = Array.new(count) { |number| start(number) }
      end

      def run(&job)
        @jobs << job
      end

      # Runs the blocks that no thread has begun, on this one.
      def run_waiting
        @jobs.pop(true).call until @jobs.empty?
      rescue ThreadError
        nil # a thread has taken the last one
      end

      # Ends the threads, whatever they do. One that is just being replaced may have a successor.
      def finish
        @finishing = true
        @threads.each(&:kill).each(&:join) while @threads.any?(&:alive?)
      end

      private

      def start(number)
        Thread.new do
          begin
            loop { @jobs.pop.call }
          ensure
            @threads[number] = start(number) unless @finishing # a job has ended its thread
          end
        end
      end
    end
  end
end
