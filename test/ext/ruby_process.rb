# frozen_string_literal: true

require "open3"
require "rbconfig"

# Runs Ruby code in a child process: for what a process can do only once or may not survive, and for measurements,
# which need a process that has done nothing else.
module RubyProcess
  # The shared object that this process has loaded.
  EXTENSION = $LOADED_FEATURES.grep(/vorn_rpc_ext\.#{RbConfig::CONFIG["DLEXT"]}\z/).first

  # Harmless warnings of AddressSanitizer about the stacks of fibers.
  FIBER_WARNING = Regexp.union(
    /^==\d+==WARNING: ASan is ignoring requested __asan_handle_no_return: .*\nFalse positive .*\nFor details .*\n/,
    /^==\d+==WARNING: ASan doesn't fully support makecontext.*\n/
  )

  # For the code: bytes of its process's memory, VmRSS now or VmHWM at the peak.
  STATUS = <<-'RUBY'
    def status(name)
      File.read("/proc/self/status")[/^#{name}:\s+(\d+) kB/, 1].to_i * 1024
    end
  RUBY

  # What the code prints to stdout. The process must succeed and print nothing to stderr.
  def run_ruby(code, *options)
    out, err = run_ruby_with_errors(code, *options)
    assert_equal "", err
    out
  end

  # What the code prints to stdout and to stderr. The process must succeed.
  def run_ruby_with_errors(code, *options)
    out, err, status = Open3.capture3(RbConfig.ruby, "-W", *options, "-I#{File.dirname(EXTENSION)}",
                                      "-rvorn_rpc_ext", "-e", "include VORN::PROTO\n#{code}")
    assert status.success?, "#{status}\n#{(out + err).lines.first(20).join}"
    [out, err.gsub(FIBER_WARNING, "")]
  end

  # The functions that a shared object exports. Headers of a Ruby in development add ruby_abi_version.
  def exported(library)
    symbols = IO.popen(["nm", "-D", "--defined-only", library], &:read).lines.map { |line| line.split.last }
    symbols - %w[_init _fini __bss_start _edata _end ruby_abi_version]
  rescue Errno::ENOENT
    skip "nm is missing"
  end

  # The sanitizers and valgrind keep freed memory and reserve address space, so measurements there mean nothing.
  def skip_under_sanitizers
    skip "memory is not measured under a sanitizer or valgrind" if ENV["LD_PRELOAD"].to_s =~ /[ltu]b?san|asan|vgpreload/
  end

  # A process that lives within 256 MiB and asks for 512.
  BEYOND_THE_LIMIT = <<-RUBY
    Process.setrlimit(Process::RLIMIT_AS, 1 << 28)
    begin
      "x" * (1 << 29)
      puts "passed over"
    rescue NoMemoryError
      puts "kept"
    end
  RUBY

  # A continuation that leads back into an iteration over a Hash that has ended, without the extension.
  RESUMED_HASH = <<-'RUBY'
    times = 0
    { 1 => 2 }.each { callcc { |k| $again = k } }
    $again.call if (times += 1) < 3
    puts times
  RUBY

  # Ruby 3.4 raises "iteration level underflow" there.
  def hashes_can_be_resumed?
    Open3.capture2e(RbConfig.ruby, "-W0", "-rcontinuation", "-e", RESUMED_HASH)[0] == "3\n"
  end

  # Emulators of other processors pass limits of address space over.
  def limits_are_kept?
    Open3.capture2e(RbConfig.ruby, "--disable-gems", "-e", BEYOND_THE_LIMIT)[0] != "passed over\n"
  end

  def skip_without_limits
    skip "no limit of address space here" unless Process.const_defined?(:RLIMIT_AS)
    skip "limits of address space are not kept here: an emulator?" unless limits_are_kept?
  end

  def skip_without_proc
    skip "no /proc here" unless File.exist?("/proc/self/status")
  end
end
