# frozen_string_literal: true

require "vorn_rpc/rpc/client_connection"

module VORN
  module RPC
    # Calls the methods of a server. Threads may share a client, and so may fibers that have a scheduler: their calls
    # are in flight at once, on one connection. It has no thread of its own: whoever waits for an answer reads.
    #
    #   server = VORN::RPC::Server.new("tcp:127.0.0.1:0", { "add" => ->(a, b) { a + b } })
    #   running = Thread.new { server.run }
    #   client = VORN::RPC::Client.new(server.address, timeout: 2)
    #   client.call("add", 20, 22)  # => 42
    #   client.close
    #   server.stop
    #   running.join
    #
    # The client connects when it is first used, and again when the connection was lost. Until a call's deadline it
    # tries again and again. A process that forks makes new clients.
    class Client
      # Seconds between two attempts to connect, doubled each time up to
      RETRY_SECONDS = 0.05
      MAX_RETRY_SECONDS = 1
      private_constant :RETRY_SECONDS, :MAX_RETRY_SECONDS

      # Makes a client, and closes it behind the block, whose result is returned. See ::new.
      #
      #   VORN::RPC::Client.open("tcp:127.0.0.1:1") { |client| client.class }  # => VORN::RPC::Client
      def self.open(address, **options)
        client = new(address, **options)
        begin
          yield client
        ensure
          client.close
        end
      end

      # address::          "tcp:HOST:PORT", "unix:PATH", or what returns a connected IO when it is called with the
      #                    seconds that are left: TLS, a pair of sockets, a proxy. The IO has `read_nonblock`,
      #                    `write_nonblock`, `close` and `to_io`
      # timeout::          seconds of a call, connecting included
      # repeat::           make a call again, until its deadline, when the connection is lost before the answer. The
      #                    server may then execute it more than once: only for methods where that does no harm
      # around::           called around each call, with its name, its arguments and a block that makes it and returns
      #                    the result
      # max_length::       the most payload bytes of a request or an answer
      # max_depth::        levels of an answer, scalars included
      # preserve_symbols:: Symbols in answers; otherwise Strings, so that a server cannot fill the symbol table
      #
      # Raises ArgumentError for what is no address.
      def initialize(address, timeout: 5, repeat: false, around: nil, max_length: Stream::MAX_LENGTH,
                     max_depth: Stream::MAX_DEPTH, preserve_symbols: false)
        Address.parse(address) unless address.respond_to?(:call)
        @address = address
        @timeout = timeout
        @repeat = repeat
        @around = around
        @options = { max_length: Stream.length_limit(max_length), max_depth: max_depth,
                     preserve_symbols: preserve_symbols }
        @state = State.new(Mutex.new, nil, [], false)
      end

      # The same client, whose connection they share, with another timeout or another rule for repeating.
      #
      #   client = VORN::RPC::Client.new("tcp:127.0.0.1:1")
      #   client.with(timeout: 0.1, repeat: true).call("add", 1, 2)  # raises VORN::RPC::ConnectionLost
      def with(timeout: @timeout, repeat: @repeat)
        dup.tap { |client| client.adjust(timeout, repeat) }
      end

      # Returns what the method returns.
      #
      # Raises RemoteError when the server answers with an error; TimedOut when it does not answer in time;
      # ConnectionLost when there is no connection, or it ends before the answer. A call that ends in TimedOut or
      # ConnectionLost may have been executed. One that a stopping server refuses is made again, until its deadline, on
      # a new connection; the old one serves the calls in flight and no other. Raises as Stream::Encoder#frame does for
      # arguments that cannot be sent; then nothing has been sent. What another thread raises in this one comes while
      # the call waits.
      #
      #   VORN::RPC::Client.new("tcp:127.0.0.1:1", timeout: 0.1).call("add", 1, 2)  # raises VORN::RPC::ConnectionLost
      def call(name, *arguments)
        return send_call(name, arguments, false) unless @around
        @around.call(name, arguments) { send_call(name, arguments, false) }
      end

      # Sends a call that has no answer, and returns nil when the kernel has it: whether the server executes it remains
      # unknown. Raises as #call does.
      #
      #   client = VORN::RPC::Client.new("tcp:127.0.0.1:1", timeout: 0.1)
      #   client.notify("log", "hello")  # raises VORN::RPC::ConnectionLost
      def notify(name, *arguments)
        return send_call(name, arguments, true) unless @around
        @around.call(name, arguments) { send_call(name, arguments, true) }
      end

      # Ends the connection. Calls in flight, and calls made later, raise ConnectionLost.
      #
      #   client = VORN::RPC::Client.new("tcp:127.0.0.1:1")
      #   client.close
      #   client.call("add", 1, 2)  # raises VORN::RPC::ConnectionLost "the client is closed"
      def close
        Interrupts.hold do
          @state.closed = true
          [*@state.stopping, *@state.connection].each { |connection| connection.lose("the client is closed") }
        end
        nil
      end

      protected

      def adjust(timeout, repeat)
        @timeout = timeout
        @repeat = repeat
      end

      private

      # lock: one thread connects while the others wait for it
      # stopping: former connections that may still have calls in flight
      State = Struct.new(:lock, :connection, :stopping, :closed)
      private_constant :State

      def send_call(name, arguments, notification)
        Interrupts.hold do
          deadline = Clock.now + @timeout
          delay = RETRY_SECONDS
          begin
            connection = connected(deadline)
            next connection.notify(name, arguments, deadline) if notification
            connection.call(name, arguments, deadline)
          rescue ClientConnection::Unusable
            retry
          rescue ConnectionLost, RemoteError => e
            raise if !repeatable?(e) || @state.closed || Clock.now + delay > deadline
            delay = pause(delay)
            retry
          end
        end
      end

      # A server that is stopping has not executed the call; after a lost connection nobody knows.
      def repeatable?(error)
        error.is_a?(RemoteError) ? error.code == Envelope::STOPPING : @repeat
      end

      # The current connection; replaces one that is lost, or whose server is stopping.
      def connected(deadline)
        connection = @state.connection
        return connection if connection && connection.usable? && !@state.closed
        @state.lock.synchronize do
          connection = @state.connection
          next connection if connection && connection.usable? && !@state.closed
          @state.stopping = [*@state.stopping, *connection].reject(&:lost?)
          @state.connection = connection = connect(deadline)
          connection.lose("the client is closed") if @state.closed # meanwhile
          connection
        end
      end

      def connect(deadline)
        delay = RETRY_SECONDS
        begin
          raise ConnectionLost, "the client is closed" if @state.closed
          ClientConnection.new(open_io([deadline - Clock.now, 0.001].max), **@options)
        rescue SystemCallError, SocketError, IOError => e
          raise ConnectionLost, "cannot connect: #{e.message}" if Clock.now + delay > deadline
          delay = pause(delay)
          retry
        end
      end

      def open_io(seconds)
        Interrupts.allow do
          @address.respond_to?(:call) ? @address.call(seconds) : Address.connect(@address, seconds)
        end
      end

      # Jitter: when a server comes back, its clients must not all return at once.
      def pause(delay)
        Interrupts.allow { sleep(delay * (0.5 + rand / 2)) }
        [delay * 2, MAX_RETRY_SECONDS].min
      end
    end
  end
end
