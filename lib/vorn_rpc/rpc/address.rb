# frozen_string_literal: true

require "socket"

module VORN
  module RPC
    # Sockets by address: "tcp:HOST:PORT" or "unix:PATH". With TCP port 0 the kernel chooses.
    module Address # :nodoc:
      module_function

      def listen(address)
        kind, where = parse(address)
        if kind == :unix
          remove_stale(where)
          return UNIXServer.new(where)
        end
        TCPServer.new(*where)
      end

      # Raises SystemCallError, also when connecting takes longer than `seconds`.
      def connect(address, seconds)
        kind, where = parse(address)
        addrinfo = kind == :unix ? Addrinfo.unix(where) : Addrinfo.tcp(*where)
        prepare(addrinfo.connect(timeout: seconds))
      end

      # Socket options for both sides of a connection. What is no socket stays as it is.
      def prepare(socket)
        return socket unless socket.is_a?(BasicSocket) && socket.local_address.ip?
        # Small frames go out at once instead of waiting until the peer acknowledges the previous one.
        socket.setsockopt(:TCP, :NODELAY, true)
        # Keepalive detects a dead peer host in about half a minute.
        socket.setsockopt(:SOCKET, :KEEPALIVE, true)
        socket.setsockopt(:TCP, :KEEPIDLE, 15)
        socket.setsockopt(:TCP, :KEEPINTVL, 5)
        socket.setsockopt(:TCP, :KEEPCNT, 3)
        socket
      end

      def of(listener)
        local = listener.local_address
        local.unix? ? "unix:#{local.unix_path}" : "tcp:#{local.ip_address}:#{local.ip_port}"
      end

      # A name for the log. The clients of a UNIX socket have no address.
      def name_of(io)
        socket = io.to_io
        remote = socket.remote_address if socket.respond_to?(:remote_address)
        remote && remote.ip? ? remote.inspect_sockaddr : "local client #{socket.fileno}"
      end

      def parse(address)
        case address
        when /\Aunix:(.+)\z/m then [:unix, Regexp.last_match(1)]
        when /\Atcp:(.+):(\d+)\z/ then [:tcp, [Regexp.last_match(1), Regexp.last_match(2).to_i]]
        else raise ArgumentError, "no address: #{address.inspect} (tcp:HOST:PORT or unix:PATH)"
        end
      end

      # A killed server leaves its socket file behind. A running one keeps its file.
      def remove_stale(path)
        return unless File.socket?(path)
        Addrinfo.unix(path).connect(timeout: 1).close
      rescue Errno::ECONNREFUSED
        File.unlink(path)
      end
    end
  end
end
