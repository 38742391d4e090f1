# frozen_string_literal: true

# Clients that no server should suffer from, for the tests: slow, silent, flooding, resetting, and such as speak badly.
# They know the address of a server that runs in a process of its own, and nothing else of it.

require_relative "framing"
require_relative "sockets"

module HostileClients
  module_function

  RESETTING = [1, 0].pack("ii").freeze # SO_LINGER: closing resets

  def connect(address)
    Sockets.connect(address, 5)
  end

  def request(id, method, *arguments)
    FrameWriter.new(1 << 20).frame([id, method, arguments])
  end

  # Half a frame: a header and the first byte of what it announces.
  def half_a_frame
    request(1, "echo", "x" * 100).byteslice(0, 9)
  end

  # A request whose id is given by the bytes of its encoding.
  def request_with_id(id)
    payload = "\x0A".b + id + "\x07\x04echo\x0A\x81\x0B\x0B".b
    [0xA5, 1, 0, payload.bytesize].pack("CCnN") + payload
  end

  def reset(socket)
    socket.setsockopt(:SOCKET, :LINGER, RESETTING)
    socket.close
  end

  # How long a well-behaved client waits for an answer, connecting included. Raises when it gets none in 30 s.
  def seconds_for_others(address)
    began = Sockets.now
    socket = connect(address)
    socket.write(request(1, "echo", "well"))
    raise "no answer" unless IO.select([socket], nil, nil, 30)

    FrameReader.new(1000).feed(socket.readpartial(1000)) do |answer|
      raise "a wrong answer: #{answer.inspect}" unless answer == [1, nil, "well"]
    end
    Sockets.now - began
  ensure
    socket.close if socket
  end

  # How long until the server closes the connection; what it sends first is read and dropped. nil: it does not.
  def seconds_until_closed(socket, limit)
    began = Sockets.now
    loop do
      left = began + limit - Sockets.now
      return unless left > 0 && IO.select([socket], nil, nil, left)

      socket.readpartial(65_536)
    end
  rescue EOFError, Errno::ECONNRESET
    Sockets.now - began
  end

  # Many large answers are asked for at once, in one write, and none is read. Returns how long others waited at most.
  def flood(address, clients, requests = 64)
    bytes = Array.new(requests) { |id| request(id, "fill", 1_000_000) }.join
    sockets = Array.new(clients) { connect(address) }
    sockets.each { |socket| socket.write(bytes) }
    # For as long as a client's patience is tried, and a little more.
    Array.new(10) { sleep(0.25); seconds_for_others(address) }.max
  ensure
    sockets.to_a.each(&:close)
  end

  # Resets at every place of a request, and in the middle of an answer.
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

  # Bytes that are no requests: noise, damaged requests, whole frames of noise, frames of wrong lengths. Every one of
  # them ends in an answer or in the end of the connection.
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

  # Sends all and reads until the server closes.
  def exchange(address, bytes)
    socket = connect(address)
    begin
      socket.write(bytes)
      socket.close_write
      raise "the server keeps the connection" unless seconds_until_closed(socket, 10)
    rescue Errno::ECONNRESET, Errno::EPIPE, Errno::ENOTCONN
      nil # closed with our bytes unread
    end
  ensure
    socket.close if socket
  end

  # A byte at a time. Returns whether all went out before the server closed.
  def trickle(socket, bytes, pause)
    bytes.each_char do |byte|
      socket.write(byte)
      return false if IO.select([socket], nil, nil, pause) && socket.read_nonblock(1000, exception: false).nil?
    end
    true
  rescue EOFError, Errno::EPIPE, Errno::ECONNRESET
    false
  end

  # Threads and descriptors of a process: what a server must not gather.
  def holdings(pid)
    [Dir.entries("/proc/#{pid}/task").size, Dir.entries("/proc/#{pid}/fd").size]
  end

  # In MB, the most that it ever was.
  def peak_memory(pid)
    File.read("/proc/#{pid}/status")[/^VmHWM:\s+(\d+)/, 1].to_i / 1024
  end
end
