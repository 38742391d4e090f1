# frozen_string_literal: true

# Runs the examples of Markdown documents and compares the results with the text. bin/test documents calls it.
#
# The ```ruby blocks of a document run in order, in one process, and share their local variables. In them
#
#   code     # => value          the line's value equals this Ruby expression
#   code     # raises Klass "x"  the line raises this; without quotes any text will do
#   # prints text                one line of output; a block prints these lines and no others
#
# A marker on the line before a block:
#
#   <!-- file: path -->   the block is this file, word for word
#   <!-- tested -->       a ```console block: each `$ ` line runs in the shell, from the project's root, and prints
#                         the lines below it
#   <!-- not run -->      a ```ruby block that is not executed
#   <!-- write: name -->  the block goes into a file of this name in a folder of the document's own
#   <!-- tested in its folder -->
#                         a ```console block that runs there
#   <!-- goes on in its folder -->
#                         a ```console block of one command, which runs there until the document ends. Its output
#                         must begin with the lines below it
#   <!-- has printed since -->
#                         the lines that the last such command has printed in addition
#   <!-- needs python3: MARKER -->, <!-- needs msgpack -->, <!-- needs vorn_rpc by pkg-config: MARKER -->,
#   <!-- needs vorn-inspect: MARKER -->
#                         the block runs only where that is installed. Skipped blocks are reported.
#
# Arguments name documents; without any, all are run.
require "open3"
require "rbconfig"
require "stringio"
require "tmpdir"

class Document
  Block = Struct.new(:language, :marker, :first_line, :lines) do
    def text
      lines.join
    end
  end

  Running = Struct.new(:pid, :log, :shown)

  NEEDS = {
    "python3" => -> { Open3.capture2e("python3", "--version")[1].success? },
    "msgpack" => -> { !require("msgpack").nil? },
    "vorn-inspect" => -> { Open3.capture2e("vorn-inspect", "--version")[1].success? },
    "vorn_rpc by pkg-config" => -> { Open3.capture2e("pkg-config", "--exists", "vorn_rpc")[1].success? }
  }.freeze

  SECONDS_TO_WAIT = 20
  SECONDS_TO_RUN = 120

  attr_reader :counts, :failures, :left_out

  def initialize(path)
    @path = path
    @blocks = blocks_of(File.readlines(path, encoding: "UTF-8"))
    @counts = Hash.new(0)
    @left_out = Hash.new(0)
    @failures = []
    @running = []
  end

  def run
    scope = TOPLEVEL_BINDING.eval("binding")
    Dir.mktmpdir do |folder|
      @folder = folder
      begin
        @blocks.each { |block| run_block(block, scope) }
      ensure
        @running.each { |running| stop(running) }
      end
    end
  end

  # The code that the examples are rewritten to calls it.
  def equal(line, expected, actual)
    @counts["results"] += 1
    return actual if expected == actual && expected.class == actual.class
    fail_at(line, "says #{expected.inspect}, is #{actual.inspect}")
    actual
  end

  def raising(line, klass, text)
    @counts["results"] += 1
    yield
    fail_at(line, "says #{klass} is raised, but nothing was raised")
  rescue Exception => e
    return if e.class.name == klass && (text.nil? || e.message == text)
    fail_at(line, "says #{klass} #{text.inspect} is raised, but #{e.class} #{e.message.inspect} was")
  end

  private

  def run_block(block, scope)
    marker = block.marker.to_s
    if marker =~ /\Aneeds ([^:]+)(?:: (.+))?\z/
      need, marker = $1, $2.to_s
      return @left_out[need] += 1 unless there?(need)
    end
    case marker
    when /\Afile: (.+)/ then compare_with_file(block, $1)
    when /\Awrite: (.+)/ then return File.write(File.join(@folder, $1), block.text)
    when "has printed since" then return check_log(block)
    when "not run" then return
    end
    case block.language
    when "ruby" then run_ruby(block, scope)
    when "console" then run_console(block, marker)
    end
  end

  def there?(need)
    @there ||= {}
    return @there[need] if @there.key?(need)
    @there[need] = begin
      NEEDS.fetch(need).call
    rescue LoadError, Errno::ENOENT
      false
    end
  end

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

  def compare_with_file(block, file)
    @counts["files"] += 1
    fail_at(block.first_line, "is not the text of #{file}") unless block.text == File.read(file, encoding: "UTF-8")
  end

  def run_ruby(block, scope)
    @counts["ruby examples"] += 1
    printed = capture { scope.eval(instrument(block), @path, block.first_line) }
    expected = block.lines.map { |line| line[/# prints (.*)/, 1] }.compact
    @counts["printed lines"] += expected.size
    return if printed.lines.map(&:chomp) == expected
    fail_at(block.first_line, "says it prints #{expected.inspect}, and prints #{printed.lines.map(&:chomp).inspect}")
  rescue Exception => e
    places = (e.backtrace || []).grep(/#{Regexp.escape(@path)}/).first(3)
    fail_at(block.first_line, ["#{e.class}: #{e.message}", *places].join("\n  "))
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

  def run_console(block, marker)
    case marker
    when "tested" then run_commands(block, ".")
    when "tested in its folder" then run_commands(block, @folder)
    when "goes on in its folder" then start_command(block)
    end
  end

  def run_commands(block, folder)
    command = nil
    expected = nil
    block.lines.each_with_index do |line, index|
      if line.start_with?("$ ")
        check_command(block.first_line + index - 1, command, expected, folder)
        command = line[2..-1].chomp
        expected = +""
      else
        expected << line
      end
    end
    check_command(block.first_line + block.lines.size, command, expected, folder)
  end

  def check_command(line, command, expected, folder)
    return unless command
    @counts["commands"] += 1
    bounded = ["timeout", SECONDS_TO_RUN.to_s, "bash", "-euo", "pipefail", "-c", command]
    output, status = Open3.capture2e(*bounded, chdir: folder)
    fail_at(line, "`#{command}` ends with #{status.exitstatus}\n#{output}") unless status.success?
    fail_at(line, "`#{command}` prints\n#{output}instead of\n#{expected}") unless output == expected
  end

  def start_command(block)
    @counts["commands"] += 1
    command = block.lines[0][/\A\$ (.+)/, 1]
    expected = block.lines.drop(1).join
    log = File.join(@folder, "log#{@running.size}")
    pid = Process.spawn("bash", "-euc", "exec #{command}", chdir: @folder, in: File::NULL, [:out, :err] => log)
    @running << Running.new(pid, log, expected)
    printed = wait_for(expected, @running.last)
    return if printed == expected && !ended?(pid)
    fail_at(block.first_line, "`#{command}` prints\n#{printed}instead of\n#{expected}and going on")
  end

  def check_log(block)
    running = @running.last
    @counts["printed lines"] += block.lines.size
    running.shown += block.text
    printed = wait_for(running.shown, running)
    return if printed == running.shown
    fail_at(block.first_line, "the command that goes on has printed\n#{printed}instead of\n#{running.shown}")
  end

  # Returns the command's output once it is as long as expected.
  def wait_for(expected, running)
    deadline = Time.now + SECONDS_TO_WAIT
    until Time.now > deadline || ended?(running.pid)
      printed = File.read(running.log)
      return printed if printed.bytesize >= expected.bytesize
      sleep(0.02)
    end
    File.read(running.log)
  end

  def ended?(pid)
    Process.waitpid(pid, Process::WNOHANG) ? true : false
  rescue Errno::ECHILD
    true
  end

  def stop(running)
    return if ended?(running.pid)
    Process.kill(:TERM, running.pid)
    Process.wait(running.pid)
  end
end

if ARGV[0] == "--child"
  $document = Document.new(ARGV[1])
  $document.run
  puts $document.failures
  puts $document.left_out.map { |need, count| "left out: #{ARGV[1]}: #{count} blocks that need #{need}" }
  puts "counts #{$document.counts.map { |name, count| "#{name}=#{count}" }.join(',')}"
  exit $document.failures.empty?
end

totals = Hash.new(0)
failed = 0
documents = ARGV.empty? ? ["README.md", "CONTRIBUTING.md", "SECURITY.md"] + Dir["docs/**/*.md"].sort : ARGV
documents.each do |path|
  output, status = Open3.capture2e(RbConfig.ruby, "-W", __FILE__, "--child", path)
  left_out, output = output.lines.partition { |line| line.start_with?("left out: ") }
  puts left_out
  counts, others = output.partition { |line| line.start_with?("counts ") }
  counts.join.sub("counts ", "").chomp.split(",").each do |pair|
    name, count = pair.split("=")
    totals[name] += count.to_i
  end
  next if status.success? && others.empty? && !counts.empty?
  failed += 1
  puts "#{path}:", others
end

# A run that found nothing to check must fail.
names = ["files", "ruby examples", "results", "printed lines", "commands"]
(ARGV.empty? ? names : [names.find { |name| totals[name] > 0 }]).each do |name|
  next if name && totals[name] > 0
  failed += 1
  puts "no #{name || 'example'} in any document"
end
summary = totals.map { |name, count| "#{count} #{name}" }.join(", ")
puts "#{documents.size} documents: #{summary}; #{failed} failures"
exit failed.zero?
