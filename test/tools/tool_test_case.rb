# frozen_string_literal: true

# The base of the tests of the command-line tools.

require "minitest/autorun"
require "tmpdir"

# A test with its own empty folder.
class ToolTestCase < Minitest::Test
  def setup
    @dir = Dir.mktmpdir("vorn-tools")
  end

  def teardown
    FileUtils.remove_entry(@dir)
  end

  private

  # For values of any size and kind: the failure message is bounded, and nil may be expected.
  def check(what, expected, actual)
    assert(expected == actual, lambda {
      "#{what[0, 500]}\n  expected #{expected.inspect[0, 1000]}\n  got      #{actual.inspect[0, 1000]}"
    })
  end

  def path(name)
    File.join(@dir, name)
  end
end
