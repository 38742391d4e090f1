# frozen_string_literal: true

# Hostile clients for the tests: slow, silent, flooding, resetting and malformed ones. They know only the address of the
# server, which runs in a separate process.

require "socket"
require "vorn_rpc/stream"

module HostileClients
  module_function

  RESETTING = [1, 0].pack("ii").freeze # SO_LINGER: close() sends a reset

  def now
    Process.clock_gettime(Process::CLOCK_MONOTONIC)
  end

  def connect(address)
    kind, where = address.split(":", 2)
    kind == "unix" ? UNIXSocket.new(where) : TCPSocket.new(*where.split(":"))
  end

  def request(id, method, *arguments)
    VORN::Stream::Encoder.new.frame([id, method, arguments])
  end

  # A header and the first byte of its payload.
  def half_a_frame
    request(1, "echo", "x" * 100).byteslice(0, 9)
  end

  # A request with an arbitrarily encoded id.
  def request_with_id(id)
    payload = "\x0A".b + id + "\x07\x04echo\x0A\x81\x0B\x0B".b
    [0xA5, 1, 0, payload.bytesize].pack("CCnN") + payload
  end

  def reset(socket)
    socket.setsockopt(:SOCKET, :LINGER, RESETTING)
    socket.close
  end

  # How long a well-behaved client waits for an answer, including connecting. Raises after 30 s without one.
  def seconds_for_others(address)
    began = now
    socket = connect(address)
    socket.write(request(1, "echo", "well"))
    raise "no answer" unless IO.select([socket], nil, nil, 30)

    VORN::Stream::Decoder.new.feed_each(socket.readpartial(1000)) do |answer|
      raise "a wrong answer: #{answer.inspect}" unless answer == [1, nil, "well"]
    end
    now - began
  ensure
    socket.close if socket
  end

  # How long until the server closes the connection; nil: it does not within `limit`. Received bytes are dropped.
  def seconds_until_closed(socket, limit)
    began = now
    loop do
      left = began + limit - now
      return unless left > 0 && IO.select([socket], nil, nil, left)

      socket.readpartial(65_536)
    end
  rescue EOFError, Errno::ECONNRESET
    now - began
  end

  # Requests many large answers in one write and reads none. Returns the longest time that another client waited.
  def flood(address, clients, requests = 64)
    bytes = Array.new(requests) { |id| request(id, "fill", 1_000_000) }.join
    sockets = Array.new(clients) { connect(address) }
    sockets.each { |socket| socket.write(bytes) }
    # Longer than the server's timeout for writing.
    Array.new(10) { sleep(0.25); seconds_for_others(address) }.max
  ensure
    sockets.to_a.each(&:close)
  end

  # Resets at every byte of a request, and in the middle of an answer.
  def resets(address, times)
    whole = request(1, "pause", 0.01)
    times.times do |number|
      socket = connect(address)
      if number.odd?
        socket.write(whole.byteslice(0, 1 + number % whole.bytesize))
      else
        socket.write(request(1, "fill", 1_000_000) * 3)
        socket.readpartial(1 + number) if IO.select([socket], nil, nil, 5)
      end
      reset(socket)
    end
  end

  # Sends malformed requests: noise, damaged requests, whole frames of noise, frames with wrong lengths. Each must end
  # in an answer or in the end of the connection.
  def garbage(address, times, random)
    whole = request("id", "add", 20, 22)
    times.times do |number|
      bytes =
        case number % 4
        when 0 then random.bytes(1 + random.rand(300))
        when 1 then whole.dup.tap { |damaged| damaged.setbyte(random.rand(damaged.bytesize), random.rand(256)) }
        when 2 then random.bytes(40).tap { |payload| payload[0, 0] = [0xA5, 1, 0, 40].pack("CCnN") }
        else [0xA5, random.rand(256), random.rand(65_536), random.rand(1 << 32)].pack("CCnN") + random.bytes(20)
        end
      exchange(address, bytes)
    end
  end

  # Sends the bytes and reads until the server closes.
  def exchange(address, bytes)
    socket = connect(address)
    begin
      socket.write(bytes)
      socket.close_write
      raise "the server keeps the connection" unless seconds_until_closed(socket, 10)
    rescue Errno::ECONNRESET, Errno::EPIPE, Errno::ENOTCONN
      nil # closed before it read all our bytes
    end
  ensure
    socket.close if socket
  end

  # Sends byte by byte. Returns whether the server kept the connection open to the end.
  def trickle(socket, bytes, pause)
    bytes.each_char do |byte|
      socket.write(byte)
      return false if IO.select([socket], nil, nil, pause) && socket.read_nonblock(1000, exception: false).nil?
    end
    true
  rescue EOFError, Errno::EPIPE, Errno::ECONNRESET
    false
  end

  # Threads and descriptors of a process, which a server must not leak.
  def holdings(pid)
    [Dir.entries("/proc/#{pid}/task").size, Dir.entries("/proc/#{pid}/fd").size]
  end

  # Peak resident size in MB.
  def peak_memory(pid)
    File.read("/proc/#{pid}/status")[/^VmHWM:\s+(\d+)/, 1].to_i / 1024
  end
end
