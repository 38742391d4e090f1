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

      # Forgets what has not begun, and gives the rest some seconds. What takes longer is ended.
      def finish(seconds)
        @finishing = true
        @jobs.clear
        @threads.each { @jobs << nil }
        deadline = Clock.now + seconds
        @threads.each { |thread| thread.join([deadline - Clock.now, 0].max) || thread.kill.join }
      end

      private

      def start(number)
        Thread.new do
          begin
            work
          ensure
            @threads[number] = start(number) unless @finishing # a job has ended its thread
          end
        end
      end

      def work
        while (job = @jobs.pop)
          job.call
        end
      end
    end
  end
end
