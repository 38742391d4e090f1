# frozen_string_literal: true

# Ruby and C++ read each other's bytes. Called by bin/test wire with the path of wire_peer, the number of random trees
# in each direction, and their seed.

require_relative "peer"
require_relative "table_test"
require_relative "trees_test"

puts "#{$passed} passed, #{$failed} failed"
exit $failed.zero?
