# frozen_string_literal: true

module VORN
  module RPC
    # Threads, one of which leads: it waits for jobs and collects them. Then it runs them itself, since short jobs take
    # less time than it takes to switch to another thread, and leads again. When a job takes longer, another thread
    # leads meanwhile, and more threads run the other jobs.
    #
    # A thread that waits, the deputy, looks now and then whether that is so. Where it was so lately, threads are woken
    # for each job at once.
    class Workers # :nodoc:
      # How long a job may keep other jobs waiting if none has done so lately.
      SHORT_SECONDS = 0.002

      # For how many jobs threads are woken at once behind one that took longer.
      WOKEN_FOR = 100

      # count: how many jobs run at once. There is one thread more, so that one can always lead.
      def initialize(count)
        @most = count
        @lead = nil
        @jobs = Queue.new
        @lock = Mutex.new # guards what follows
        @changed = ConditionVariable.new # a thread that waits has something to do
        @leader = nil
        @running = {}.compare_by_identity # the threads that run a job
        @deputy = nil
        @begun = 0    # jobs
        @wake_for = 0 # jobs, at once
        @over = false # whether the block has ended everything
        @failed = false # whether it raised an exception when it was called last
        @failure = nil
        @ended = ConditionVariable.new
        @finishing = false
        @threads = []
      end

      # Starts the threads, and returns when the block has returned false. The thread that leads calls it: the block
      # waits, adds jobs and returns. Raises what it raises twice in succession.
      def run(&lead)
        @lead = lead
        (@most + 1).times { |number| @threads[number] = start(number) }
        @lock.synchronize { @ended.wait(@lock) until @over }
        raise @failure if @failure
      end

      # A job for the threads, from the one that leads. They begin jobs in this order.
      def add(&job)
        @jobs << job
      end

      # Runs the jobs that no thread has begun, on this one.
      def run_waiting
        while (job = next_job)
          job.call
        end
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
            work
          ensure
            @threads[number] = start(number) unless @finishing # a job has ended its thread
          end
        end
      end

      def work
        loop do
          job = @lock.synchronize do
            leave
            take
          end
          job ? job.call : lead
        end
      ensure
        @lock.synchronize do
          leave
          @changed.signal # for the thread that this one may have been woken to be
        end
      end

      # A job; nil for the lead.
      def take
        wait until (job = take_job) || take_lead
        @changed.signal if @leader.nil? && (@deputy.nil? || @wake_for > 0) # whoever is woken does the same
        job
      end

      # Returns when there may be a job, or nobody leads.
      def wait
        return @changed.wait(@lock) if @deputy
        @deputy = Thread.current
        begun = @begun
        @changed.wait(@lock, SHORT_SECONDS)
        @deputy = nil
        if @leader.nil?
          @wake_for = WOKEN_FOR
        elsif @begun == begun
          @changed.wait(@lock)
        end
      end

      def take_job
        job = next_job if @running.size < @most
        return unless job
        @begun += 1
        @wake_for -= 1 if @wake_for > 0
        @running[Thread.current] = true
        job
      end

      def take_lead
        @leader = Thread.current unless @leader || @over
      end

      def leave
        @leader = nil if @leader.equal?(Thread.current)
        @deputy = nil if @deputy.equal?(Thread.current)
        @running.delete(Thread.current)
      end

      def next_job
        @jobs.pop(true) unless @jobs.empty?
      rescue ThreadError
        nil # another thread has taken the last one
      end

      # An exception may be meant for a job that this thread has run, and come late: then it ends this thread alone. One
      # that comes again is the block's.
      def lead
        over = !@lead.call
        @failed = false
      rescue Exception => e
        over = @failed
        @failed = true
        raise unless over
        @failure = e
      ensure
        end_all if over
      end

      def end_all
        @lock.synchronize do
          @over = true
          @ended.signal
        end
      end
    end
  end
end
