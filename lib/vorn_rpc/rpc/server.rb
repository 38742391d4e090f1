# frozen_string_literal: true

require "logger"
require "vorn_rpc/rpc/patience"
require "vorn_rpc/rpc/server_connection"
require "vorn_rpc/rpc/workers"

module VORN
  module RPC
    # Answers the calls of many clients. One thread at a time reads and waits for all of them; while it runs a method
    # that takes its time, another does. No method waits for a client.
    #
    #   greet = ->(name) { "Hello, #{name}!" }
    #   server = VORN::RPC::Server.new("tcp:127.0.0.1:0", { "greet" => greet })
    #   running = Thread.new { server.run }
    #   VORN::RPC::Client.open(server.address) { |client| client.call("greet", "Ada") }  # => "Hello, Ada!"
    #   server.stop
    #   running.join
    #
    # A client is closed, and the log says why, when it sends what is no request, announces too much, is silent for too
    # long, or does not read its answers. A client that ends its connection takes back its calls: those that no thread
    # has begun are not executed.
    class Server
      Limits = Struct.new(:max_length, :max_depth, :max_in_progress, :max_unsent, :idle_seconds, :frame_seconds,
                          :write_seconds) # :nodoc:

      # Seconds between two looks at the clients' deadlines, by which these may be late.
      SWEEP_SECONDS = 0.25

      # Payload bytes that every error of the server's own fits into.
      LEAST_LENGTH = 512

      # Whether IO.select lets other fibers of a scheduler run.
      SCHEDULED_SELECT = (RUBY_VERSION.split(".").map(&:to_i) <=> [3, 2]) >= 0

      private_constant :Limits, :SWEEP_SECONDS, :LEAST_LENGTH, :SCHEDULED_SELECT

      # address::         "tcp:HOST:PORT" (port 0: the kernel chooses) or "unix:PATH", a listening socket, or nil for a
      #                   server that has only the connections given to #serve
      # methods::         what clients may call: a Hash of names and bodies, which respond to `call` and take no
      #                   keywords. Bodies run at the same time on several threads
      # workers::         how many bodies run at once, on threads of the server's. 0: they run one after the other, on
      #                   the thread of #run, and a body that waits or computes for long keeps all clients waiting. If
      #                   that thread has a Fiber scheduler (Ruby 3.2), each runs in a fiber of its own instead,
      #                   whatever this number
      # inline::          names of methods that run where requests are read, also when all workers are busy: what tells
      #                   a health check that the server is alive. They do not wait, and compute little; around is then
      #                   called there, too. A client that has max_in_progress requests waits with them, too
      # tls::             an OpenSSL::SSL::SSLContext, for connections by TLS
      # around::          called around each call, with its name, its arguments and a block that runs it and returns its
      #                   result: for measuring, logging, permission. It may raise as a body may
      # logger::          a Logger
      # max_length::      the most payload bytes of a request or an answer, 512 or more
      # max_depth::       levels of a message, scalars included
      # max_connections:: connections at a time; what comes beyond is closed
      # max_in_progress:: unanswered requests of one client. Beyond that, nothing more is read from it. nil: half the
      #                   workers, so that one client cannot occupy them all; 16 without workers
      # max_unsent::      bytes of answers that a client leaves unread before none of its requests is begun
      # idle_seconds::    how long a client that waits for no answer may be silent
      # frame_seconds::   how long a frame may take from its first byte to its last
      # write_seconds::   how long a client may leave answers unread
      # stop_seconds::    how long #stop leaves to what has begun
      #
      # Raises ArgumentError for a bad address or method, and SystemCallError when it cannot listen.
      def initialize(address, methods, workers: 8, inline: [], tls: nil, around: nil, logger: Logger.new($stderr),
                     max_length: Stream::MAX_LENGTH, max_depth: Stream::MAX_DEPTH, max_connections: 200,
                     max_in_progress: nil, max_unsent: 256 << 10, idle_seconds: 60, frame_seconds: 5,
                     write_seconds: 2, stop_seconds: 2)
        @methods = MethodTable.new(methods, logger, around)
        @inline = inline.map { |name| [name.to_s, true] }.to_h
        unknown = @inline.keys.find { |name| !@methods.key?(name) }
        raise ArgumentError, "no method to run inline: #{unknown}" if unknown
        max_in_progress ||= workers > 0 ? [workers / 2, 1].max : 16
        Stream.length_limit(max_length)
        raise ArgumentError, "max_length leaves no room for errors" if max_length < LEAST_LENGTH
        @limits = Limits.new(max_length, max_depth, max_in_progress, max_unsent, idle_seconds,
                             frame_seconds, write_seconds)
        @max_connections = max_connections
        @stop_seconds = stop_seconds
        @worker_count = workers
        @tls = tls
        @logger = logger
        @connections = {}.compare_by_identity # by IO
        @reading = {}.compare_by_identity     # IOs that are waited for: the connections of those that are clients'
        @writing = {}.compare_by_identity
        @more = {}.compare_by_identity        # connections that have held back requests which may begin now
        @attention = Queue.new                # connections that other threads want looked at, and IOs to serve
        @wake_reader, @wake_writer = IO.pipe
        @woken = false
        @buffer = "".b # what was read last
        @stopping = false
        @ends = nil # when the loop ends whatever is still running
        @fibers = @workers = nil
        @listener = address.is_a?(String) ? Address.listen(address) : address
        @address = @listener && Address.of(@listener)
      end

      # Where clients reach it: with the port that the kernel has chosen. nil without a listening socket.
      #
      #   server = VORN::RPC::Server.new("tcp:127.0.0.1:0", {})
      #   server.address.start_with?("tcp:127.0.0.1:")  # => true
      attr_reader :address

      # Serves a connection that already exists: a socket, or anything else that has `read_nonblock`, `write_nonblock`,
      # `close` and `to_io`. The server closes it. Any thread may call this, before or during #run.
      #
      #   here, there = UNIXSocket.pair
      #   server = VORN::RPC::Server.new(nil, { "double" => ->(number) { number * 2 } })
      #   running = Thread.new { server.run }
      #   server.serve(there)
      #   VORN::RPC::Client.open(->(_) { here }) { |client| client.call("double", 21) }  # => 42
      #   server.stop
      #   running.join
      def serve(io)
        attend(io)
        self
      end

      # Answers until #stop is called from elsewhere, which may have happened before. Runs once.
      def run
        start
        @workers ? @workers.run { turn } : (nil while turn)
      ensure
        close
      end

      # Ends #run: no connection is accepted and no request read any more, requests that have not begun are answered
      # with the error "stopping", those that have begun are answered within stop_seconds, and what is still running
      # then is ended. The log names each notification that has not begun. Returns at once. Any thread may call this,
      # and a signal handler:
      #
      #   server = VORN::RPC::Server.new("tcp:127.0.0.1:0", {})
      #   trap("TERM") { server.stop }
      #   Process.kill("TERM", Process.pid)
      #   server.run  # => nil
      #   trap("TERM", "DEFAULT")
      def stop
        @stopping = true
        wake
        nil
      end

      private

      def start
        @fibers = SCHEDULED_SELECT && Fiber.current_scheduler
        @workers = Workers.new(@worker_count) if @worker_count > 0 && !@fibers
        @reading[@wake_reader] = nil
        @reading[@listener] = nil if @listener
        @now = Clock.now # of the last time that something was waited for
        @next_sweep = @now + SWEEP_SECONDS
      end

      # Returns false when the loop has ended.
      def turn
        return false if stopped?
        step
        true
      end

      # Waits until there is something to do, and does it.
      def step
        readable, writable = wait
        @now = Clock.now
        writable.each { |io| write(io) } if writable
        readable.each { |io| read(io) } if readable
        continue unless @more.empty?
        sweep if @now >= @next_sweep
      end

      def wait
        timeout = @more.empty? ? [@next_sweep - @now, 0].max : 0
        IO.select(@reading.keys, @writing.empty? ? nil : @writing.keys, nil, timeout)
      rescue IOError
        closed = @connections.each_value.select { |connection| connection.io.closed? } # by whoever gave it to #serve
        raise if closed.empty?
        closed.each { |connection| drop(connection) }
        retry
      end

      def read(io)
        if (connection = @reading[io])
          guard(connection) { receive(connection) }
        elsif io.equal?(@listener)
          accept
        elsif io.equal?(@wake_reader)
          look_around
        end
      end

      def receive(connection)
        return drop(connection) unless connection.receive(@buffer, @now) { |request| dispatch(connection, request) }
        update(connection)
      end

      def write(io)
        connection = @writing[io]
        return unless connection
        guard(connection) do
          connection.flush
          connection.blocked_reading? ? receive(connection) : update(connection)
        end
      end

      def continue
        connections = @more.keys
        @more.clear
        connections.each do |connection|
          guard(connection) do
            connection.continue(@now) { |request| dispatch(connection, request) }
            update(connection)
          end
        end
      end

      def dispatch(connection, request)
        if @ends # it is only refused
          work(connection, request)
        elsif @workers && !@inline.key?(request[1])
          @workers.add { work(connection, request) }
        elsif @fibers
          Fiber.schedule { work(connection, request) }
        else
          work(connection, request)
        end
      end

      def work(connection, request)
        answer = Envelope.failure(request[0], "failed", "the service failed") # if this thread is ended
        answer = (@ends ? @methods.refuse(request) : @methods.answer(request)) unless connection.gone?
      ensure
        attend(connection) if connection.finish(request[0] && answer) # none to a notification
      end

      # Waits for what the connection waits for.
      def update(connection)
        connection.check(@now)
        io = connection.io
        if connection.held_back?
          @reading.delete(io)
          @more[connection] = true if connection.room?
        elsif !@ends
          @reading[io] = connection
        end
        connection.wants_write? ? @writing[io] = connection : @writing.delete(io)
      end

      # Closes the connection for whatever the block raises.
      def guard(connection)
        return unless @connections.key?(connection.io) # closed meanwhile
        yield
      rescue Stream::DamagedStream, BadMessage, Silent => e
        drop(connection) { @logger.warn { "#{connection.name}: #{e.message}; closing" } }
      rescue SystemCallError, IOError => e
        drop(connection) { @logger.info { "#{connection.name}: #{e.message}" } }
      rescue *MethodTable::FAILURES => e
        drop(connection) { @logger.error { "#{connection.name}: #{e.message} (#{e.class}); closing" } }
      end

      def drop(connection)
        yield if block_given?
        io = connection.io
        [@connections, @reading, @writing].each { |ios| ios.delete(io) }
        @more.delete(connection)
        connection.close
      end

      def accept
        io = @listener.accept_nonblock
        io = io[0] if io.is_a?(Array) # Socket#accept_nonblock adds the address
        open(io, @tls)
      rescue IO::WaitReadable, Errno::ECONNABORTED, Errno::EINTR
        nil # disconnected before it was accepted
      rescue SystemCallError => e
        @logger.error { e.message }
        @reading.delete(@listener) # until the next sweep, in case descriptors ran out
      end

      def open(io, tls = nil)
        if @connections.size >= @max_connections
          @logger.warn { "too many connections; closing the newest" }
          return io.close
        end
        Address.prepare(io)
        io = OpenSSL::SSL::SSLSocket.new(io, tls).tap { |ssl| ssl.sync_close = true } if tls
        @connections[io] = @reading[io] = ServerConnection.new(io, @limits, @methods, Clock.now, !tls.nil?)
      rescue SystemCallError, IOError => e # disconnected already
        @logger.info { e.message }
        io.close
      end

      # Makes the loop look at a connection, or serve an IO.
      def attend(what)
        @attention << what
        wake
      end

      def wake
        return if @woken
        @woken = true
        @wake_writer.write_nonblock(".")
      rescue IOError, Errno::EPIPE, IO::WaitWritable
        nil # closed, or full of what wakes as well
      end

      def look_around
        @wake_reader.read_nonblock(256)
        @woken = false # before the queue is emptied: what comes then wakes again
        until @attention.empty?
          what = @attention.pop
          if what.is_a?(ServerConnection)
            guard(what) { update(what) }
          else
            @ends ? what.close : open(what)
          end
        end
      end

      def sweep
        @next_sweep = @now + SWEEP_SECONDS
        @reading[@listener] = nil if @listener && !@ends
        @connections.values.each { |connection| guard(connection) { connection.check(@now) } }
      end

      # Whether the loop has ended; begins the end when it was asked for.
      def stopped?
        return false unless @stopping
        begin_stop unless @ends
        Clock.now >= @ends || @connections.each_value.all?(&:finished?)
      end

      def begin_stop
        @now = Clock.now
        @ends = @now + @stop_seconds
        @reading.delete(@listener)
        @listener.close if @listener
        @workers.run_waiting if @workers # which refuses
        @connections.each do |io, connection|
          @reading.delete(io)
          connection.read_no_more
          @more[connection] = true if connection.held_back?
        end
        continue
      end

      def close
        @workers.finish if @workers # first, since one of them may wait for the listener
        @listener.close if @listener && !@listener.closed?
        @connections.each_value(&:close)
        @attention.pop.close until @attention.empty?
        [@wake_reader, @wake_writer].each(&:close)
      end
    end
  end
end
