# frozen_string_literal: true

# usage: ruby run_tests.rb FILE... [-- minitest option...]
#
# Runs the tests of several files in one process.

files = ARGV.take_while { |argument| argument != "--" }
ARGV.shift(files.size + 1)
files.each { |file| require File.expand_path(file) }
