# frozen_string_literal: true

# Sockets by address: tcp:HOST:PORT or unix:PATH. TCP port 0 lets the kernel choose.

require "socket"

module Sockets
  module_function

  def listen(address)
    kind, where = parse(address)
    if kind == :unix
      remove_stale(where)
      return Addrinfo.unix(where).listen
    end
    host, port = where
    Addrinfo.tcp(host, port).listen
  end

  # Raises SystemCallError, also when connecting takes longer than `seconds`.
  def connect(address, seconds)
    kind, where = parse(address)
    addrinfo = kind == :unix ? Addrinfo.unix(where) : Addrinfo.tcp(*where)
    prepare(addrinfo.connect(timeout: seconds))
  end

  # Socket options for both sides of a connection.
  def prepare(socket)
    return socket unless socket.local_address.ip?

    # Small frames go out at once instead of waiting until the peer acknowledges the previous one.
    socket.setsockopt(:TCP, :NODELAY, true)
    # Keepalive detects a dead peer host in about half a minute.
    socket.setsockopt(:SOCKET, :KEEPALIVE, true)
    socket.setsockopt(:TCP, :KEEPIDLE, 15)
    socket.setsockopt(:TCP, :KEEPINTVL, 5)
    socket.setsockopt(:TCP, :KEEPCNT, 3)
    socket
  end

  def address_of(listener)
    local = listener.local_address
    local.unix? ? "unix:#{local.unix_path}" : "tcp:#{local.ip_address}:#{local.ip_port}"
  end

  # A name for the log. The clients of a UNIX socket have no address.
  def name_of(client)
    remote = client.remote_address
    remote.unix? ? "local client #{client.fileno}" : remote.inspect_sockaddr
  end

  # Writes all bytes. Raises Errno::ETIMEDOUT when the peer does not read them within `seconds`.
  def write_within(socket, bytes, seconds)
    deadline = nil
    until (sent = socket.write_nonblock(bytes, exception: false)) == bytes.bytesize
      bytes = bytes.byteslice(sent..-1) unless sent == :wait_writable
      deadline ||= now + seconds
      left = deadline - now
      raise Errno::ETIMEDOUT, "the peer takes nothing" unless left > 0 && IO.select(nil, [socket], nil, left)
    end
  end

  # The monotonic clock: setting the time does not move it.
  def now
    Process.clock_gettime(Process::CLOCK_MONOTONIC)
  end

  def parse(address)
    case address
    when /\Aunix:(.+)\z/ then [:unix, Regexp.last_match(1)]
    when /\Atcp:(.+):(\d+)\z/ then [:tcp, [Regexp.last_match(1), Regexp.last_match(2).to_i]]
    else raise ArgumentError, "no address: #{address} (tcp:HOST:PORT or unix:PATH)"
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
