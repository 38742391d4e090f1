# frozen_string_literal: true

require "socket"
require "vorn_rpc/stream"

here, there = UNIXSocket.pair
server = Thread.new do
  answers = VORN::Stream::Writer.new(there)
  VORN::Stream::Reader.new(there).each { |request| answers << { "sum" => request["numbers"].inject(:+) } }
  there.close
end

VORN::Stream::Writer.new(here) << { "numbers" => [1, 2, 3] } << { "numbers" => [0.5, -4] }
here.close_write
VORN::Stream::Reader.new(here).each { |answer| puts answer["sum"] }
server.join
# prints 6
# prints -3.5
