# Runs the examples of Markdown documents and compares what they do with what they say. bin/test-docs calls it.
#
# The ```ruby blocks of a document run in order, in one process, and share their local variables. In them
#
#   code     # => value          the line's value equals this Ruby expression
#   code     # raises Klass "x"  the line raises this; without quotes any text will do
#   # prints text                one line of output; a block prints these lines and no others
#
# A marker on the line before a block:
#
#   <!-- file: path -->  the block is this file, word for word
#   <!-- tested -->      a ```console block: each `$ ` line runs in the shell, from the project's root, and prints
#                        the lines below it
#   <!-- not run -->     a ```ruby block that is not for running
require "open3"
require "rbconfig"
require "stringio"

class Document
  Block = Struct.new(:language, :marker, :first_line, :lines) do
    def text
      lines.join
    end
  end

  attr_reader :counts, :failures

  def initialize(path)
    @path = path
    @blocks = blocks_of(File.readlines(path, encoding: "UTF-8"))
    @counts = Hash.new(0)
    @failures = []
  end

  def run
    scope = TOPLEVEL_BINDING.eval("binding")
    @blocks.each do |block|
      compare_with_file(block) if block.marker =~ /\Afile: (.+)/
      case block.language
      when "ruby" then run_ruby(block, scope) unless block.marker == "not run"
      when "console" then run_console(block) if block.marker == "tested"
      end
    end
  end

  # Called from within the examples.
  def equal(line, expected, actual)
    @counts["results"] += 1
    return actual if expected == actual && expected.class == actual.class
    fail_at(line, "says #{expected.inspect}, is #{actual.inspect}")
    actual
  end

  def raising(line, klass, text)
    @counts["results"] += 1
    yield
    fail_at(line, "says #{klass} is raised, and nothing is")
  rescue Exception => e # rubocop:disable Lint/RescueException
    return if e.class.name == klass && (text.nil? || e.message == text)
    fail_at(line, "says #{klass} #{text.inspect} is raised, but #{e.class} #{e.message.inspect} is")
  end

  private

  def fail_at(line, text)
    @failures << "#{@path}:#{line}: #{text}"
  end

  def blocks_of(lines)
    blocks = []
    open = nil
    marker = nil
    lines.each_with_index do |line, index|
      if open
        line =~ /\A```\s*\z/ ? (blocks << open) && (open = nil) : open.lines << line
      elsif line =~ /\A```(\w*)/
        open = Block.new($1, marker, index + 2, [])
      end
      marker = line[/\A<!-- (.*) -->/, 1]
    end
    raise "#{@path}: a code block is not closed" if open
    blocks
  end

  def compare_with_file(block)
    @counts["files"] += 1
    file = block.marker[/\Afile: (.+)/, 1]
    fail_at(block.first_line, "is not the text of #{file}") unless block.text == File.read(file, encoding: "UTF-8")
  end

  def run_ruby(block, scope)
    @counts["ruby examples"] += 1
    printed = capture { scope.eval(instrument(block), @path, block.first_line) }
    expected = block.lines.map { |line| line[/# prints (.*)/, 1] }.compact
    @counts["printed lines"] += expected.size
    return if printed.lines.map(&:chomp) == expected
    fail_at(block.first_line, "says it prints #{expected.inspect}, and prints #{printed.lines.map(&:chomp).inspect}")
  rescue Exception => e # rubocop:disable Lint/RescueException
    fail_at(block.first_line, "#{e.class}: #{e.message}\n  #{(e.backtrace || []).grep(/#{Regexp.escape(@path)}/).first(3).join("\n  ")}")
  end

  def instrument(block)
    block.lines.each_with_index.map do |line, index|
      number = block.first_line + index
      case line.chomp
      when /\A(\s*\S.*?)\s+# => (.+)\z/
        "$document.equal(#{number}, (#{$2}), (#{$1.strip}))\n"
      when /\A(\s*\S.*?)\s+# raises ([\w:]+)(?: ("(?:[^"\\]|\\.)*"))?\z/
        "$document.raising(#{number}, #{$2.inspect}, #{$3 || 'nil'}) { #{$1.strip} }\n"
      else
        line
      end
    end.join
  end

  def capture
    saved = $stdout
    $stdout = StringIO.new
    yield
    $stdout.string
  ensure
    $stdout = saved
  end

  def run_console(block)
    command = nil
    expected = nil
    block.lines.each_with_index do |line, index|
      if line.start_with?("$ ")
        check_command(block.first_line + index - 1, command, expected)
        command = line[2..-1].chomp
        expected = ""
      else
        expected << line
      end
    end
    check_command(block.first_line + block.lines.size, command, expected)
  end

  def check_command(line, command, expected)
    return unless command
    @counts["commands"] += 1
    output, status = Open3.capture2e("bash", "-euo", "pipefail", "-c", command)
    fail_at(line, "`#{command}` ends with #{status.exitstatus}\n#{output}") unless status.success?
    fail_at(line, "`#{command}` prints\n#{output}instead of\n#{expected}") unless output == expected
  end
end

if ARGV.size == 1
  # A child: one document.
  $document = Document.new(ARGV[0])
  $document.run
  puts $document.failures
  puts "counts #{$document.counts.map { |name, count| "#{name}=#{count}" }.join(',')}"
  exit $document.failures.empty?
end

totals = Hash.new(0)
failed = 0
documents = ["README.md"] + Dir["docs/**/*.md"].sort
documents.each do |path|
  output, status = Open3.capture2e(RbConfig.ruby, "-W", __FILE__, path)
  counts, others = output.lines.partition { |line| line.start_with?("counts ") }
  counts.join.sub("counts ", "").chomp.split(",").each do |pair|
    name, count = pair.split("=")
    totals[name] += count.to_i
  end
  next if status.success? && others.empty? && !counts.empty?
  failed += 1
  puts "#{path}:", others
end

# A checker that found nothing to check has checked nothing.
["files", "ruby examples", "results", "printed lines", "commands"].each do |name|
  next if totals[name] > 0
  failed += 1
  puts "no #{name} in any document"
end
summary = totals.map { |name, count| "#{count} #{name}" }.join(", ")
puts "#{documents.size} documents: #{summary}; #{failed} failures"
exit failed.zero?
