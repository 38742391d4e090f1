# frozen_string_literal: true

require_relative "helper"

require "socket"
require "stringio"
require "vorn_rpc/packing"
require "vorn_rpc/rpc"

# Runs the examples in the methods' comments. Indented lines are examples:
#
#   expr                           must run
#   expr  # => value               must return this value
#   expr  # raises Class "text"    must raise this exception; without "text", one of this class
class DocumentationTest < ExtTest
  SOURCES = Dir[File.expand_path("../../ext/*.cc", __dir__)].sort

  Comment = Struct.new(:place, :signatures, :example)

  COMMENTS = SOURCES.flat_map do |source|
    text = File.read(source, encoding: "UTF-8")
    text.to_enum(:scan, %r{/\*\n(.*?)\s*\*/}m).map do
      match = Regexp.last_match
      lines = match[1].lines.map { |line| line.chomp.sub(/\A \* ?/, "") }
      next unless lines.shift == "call-seq:"
      place = "#{File.basename(source)}:#{match.pre_match.count("\n") + 1}"
      signatures = lines.take_while { |line| line.start_with?("  ") }.map(&:strip)
      example = lines.drop(signatures.size).select { |line| line.start_with?("  ") }.map(&:strip)
      Comment.new(place, signatures, example)
    end.compact
  end

  # Comments of the Ruby sources: what stands before a definition.
  RUBY_COMMENTS = Dir[File.expand_path("../../lib/**/*.rb", __dir__)].sort.flat_map do |source|
    text = File.read(source, encoding: "UTF-8")
    text.to_enum(:scan, /((?:^ *#(?: .*)?\n)+) *(?:class|module|def|attr_reader|\w+ = Struct\.new) *:?([\w?<]+)/).map do
      match = Regexp.last_match
      lines = match[1].lines.map { |line| line.strip.sub(/\A# ?/, "") }
      place = "#{File.basename(source)}:#{match.pre_match.count("\n") + 1}"
      Comment.new(place, [match[2]], lines.grep(/\A  \S/).map(&:strip))
    end
  end

  def check(line, scope, place)
    note = "#{place}: #{line}"
    return if line.include?("would be cut") && 0.size < 8 # immediate Integers of 31 bits are written in full
    case line
    when /\A(.*?)\s+# => (.*)\z/
      expected, actual = eval($2, scope), eval($1, scope)
      # Examples show bytes as text literals, so encodings are not compared.
      expected, actual = [expected, actual].map { |value| value.is_a?(String) ? value.b : value }
      assert_equal [expected], [actual], note
    when /\A(.*?)\s+# raises ([\w:]+) (".*")\z/
      code, error, text = $1, Object.const_get($2), eval($3, scope)
      assert_raises_with(error, text, note) { eval(code, scope) }
    when /\A(.*?)\s+# raises ([\w:]+)\z/
      assert_raises(Object.const_get($2)) { eval($1, scope) }
    else
      eval(line, scope)
    end
  end

  (COMMENTS + RUBY_COMMENTS.reject { |comment| comment.example.empty? }).each do |comment|
    define_method("test_example at #{comment.place}") do
      refute_empty comment.example
      results = comment.example.grep(/# (=>|raises) /)
      refute_empty results, "no line of the example shows a result"
      scope = binding
      comment.example.each { |line| check(line, scope, comment.place) }
    end
  end

  def test_every_method_is_documented
    documented = COMMENTS.flat_map(&:signatures).map do |signature|
      signature[/\A(?:\w+ (<<)|(?:[\w:]+)\.(\w+[?]?(?: =)?))/] && ($1 || $2.delete(" "))
    end
    methods = [PacketBuf, PacketFrameIn, PacketFrameOut].flat_map { |klass| klass.public_instance_methods(false) }
    assert_equal (methods.map(&:to_s) + ["new"]).sort, documented.sort
  end

  def test_every_method_above_the_core_has_an_example
    stream = VORN::Stream
    classes = [stream::Decoder, stream::Encoder, stream::Reader, stream::Writer, VORN::Packing]
    methods = classes.flat_map { |klass| klass.public_instance_methods(false) + [:initialize] }
    methods += [VORN::RPC::Client, VORN::RPC::Server].flat_map { |klass| klass.public_instance_methods(false) }
    methods -= [:run] # that of #stop runs it
    shown = RUBY_COMMENTS.reject { |comment| comment.example.empty? }.flat_map(&:signatures)
    assert_empty methods.map(&:to_s).uniq - shown
  end
end
