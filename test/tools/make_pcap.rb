# frozen_string_literal: true

# Writes capture files of TCP connections with exactly the segments that a test needs, which a real connection does
# not promise.
#
#   ruby test/tools/make_pcap.rb OUT.pcap [PORT [SIZE...]] < stream
#
# puts the bytes of standard input into one connection to PORT (default 40700), in segments of the given sizes;
# the last size repeats (default 1400).
class PcapWriter
  RAW_IP = 101 # packets begin with their IP header
  SYN, ACK, PSH, FIN = 0x02, 0x10, 0x08, 0x01
  MAX_SEGMENT = 65_495 # what fits into an IP packet with both headers
  Peer = Struct.new(:address, :port, :seq)

  def self.open(path)
    File.open(path, "wb") { |file| yield new(file) }
  end

  # snap_length: the most bytes kept of a packet.
  def initialize(io, snap_length = 262_144)
    @io = io
    @snap_length = snap_length
    @microseconds = 1_000_000
    @connections = 0
    io.write([0xA1B2C3D4, 2, 4, 0, 0, 262_144, RAW_IP].pack("L<S<S<l<L<L<L<"))
  end

  # Writes a whole connection. `segments` are strings, sent by the client, or pairs of :client or :server and a
  # string. With out_of_order they are pairs of a string and its offset in the client's stream.
  def connection(segments, port = 40_700, out_of_order: false)
    @connections += 1
    client = Peer.new([127, 0, 0, 1], 20_000 + @connections, 1000)
    server = Peer.new([127, 0, 0, 2], port, 5000)
    packet(client, server, SYN)
    packet(server, client, SYN | ACK)
    packet(client, server, ACK)
    first = client.seq
    segments.each do |from, bytes|
      if out_of_order
        client.seq = first + bytes
        from, bytes = :client, from
      end
      from, bytes = :client, from if bytes.nil?
      sender, receiver = from == :client ? [client, server] : [server, client]
      packet(sender, receiver, PSH | ACK, bytes)
    end
    packet(client, server, FIN | ACK)
    packet(server, client, FIN | ACK)
  end

  # Cuts bytes into segments of these sizes; the last size repeats.
  def self.cut(bytes, *sizes)
    segments, pos = [], 0
    while pos < bytes.bytesize
      size = sizes.size > 1 ? sizes.shift : sizes.first
      segments << bytes.byteslice(pos, size)
      pos += size
    end
    segments
  end

  private

  def packet(from, to, flags, bytes = "")
    raise ArgumentError, "segment of #{bytes.bytesize} bytes" if bytes.bytesize > MAX_SEGMENT
    tcp = [from.port, to.port, from.seq, to.seq, 5 << 4, flags, 65_535, 0, 0].pack("nnNNCCnnn")
    pseudo = (from.address + to.address).pack("C8") + [0, 6, tcp.bytesize + bytes.bytesize].pack("CCn")
    tcp[16, 2] = [checksum(pseudo + tcp + bytes)].pack("n")
    ip = [0x45, 0, 20 + tcp.bytesize + bytes.bytesize, 0, 0, 64, 6, 0, *from.address, *to.address].pack("CCnnnCCnC8")
    ip[10, 2] = [checksum(ip)].pack("n")
    record(ip + tcp + bytes)
    from.seq += bytes.bytesize + (flags & (SYN | FIN) == 0 ? 0 : 1)
  end

  def record(packet)
    @microseconds += 100
    kept = packet.byteslice(0, @snap_length)
    @io.write([*@microseconds.divmod(1_000_000), kept.bytesize, packet.bytesize].pack("L<4") + kept)
  end

  def checksum(bytes)
    sum = (bytes.bytesize.odd? ? bytes + "\0" : bytes).unpack("n*").inject(0) { |all, word| all + word }
    sum = (sum & 0xFFFF) + (sum >> 16) while sum > 0xFFFF
    ~sum & 0xFFFF
  end
end

if $PROGRAM_NAME == __FILE__
  abort "usage: #{$PROGRAM_NAME} OUT.pcap [PORT [SIZE...]] < stream" if ARGV.empty?
  path, port, *sizes = ARGV
  stream = $stdin.binmode.read
  PcapWriter.open(path) do |pcap|
    pcap.connection(PcapWriter.cut(stream, *(sizes.empty? ? [1400] : sizes.map { |size| Integer(size) })),
                    Integer(port || 40_700))
  end
end
