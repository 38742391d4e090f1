# frozen_string_literal: true

require "open3"
require "rbconfig"

# Ruby code in a process of its own: for what a process can have only once, or may not survive, or what is
# measured on a process that has done nothing else.
module RubyProcess
  # The shared object that this process has loaded.
  EXTENSION = $LOADED_FEATURES.grep(/vorn_rpc_ext\.#{RbConfig::CONFIG["DLEXT"]}\z/).first

  # What AddressSanitizer says, harmlessly, of the stacks of fibers.
  FIBER_WARNING = Regexp.union(
    /^==\d+==WARNING: ASan is ignoring requested __asan_handle_no_return: .*\nFalse positive .*\nFor details .*\n/,
    /^==\d+==WARNING: ASan doesn't fully support makecontext.*\n/
  )

  # What the code prints. The process must succeed and write nothing to its error stream.
  def run_ruby(code, *options)
    out, err = run_ruby_with_errors(code, *options)
    assert_equal "", err
    out
  end

  # What the code prints, and what it writes to the error stream. The process must succeed.
  def run_ruby_with_errors(code, *options)
    out, err, status = Open3.capture3(RbConfig.ruby, "-W", *options, "-I#{File.dirname(EXTENSION)}",
                                      "-rvorn_rpc_ext", "-e", "include VORN::PROTO\n#{code}")
    assert status.success?, "#{status}\n#{(out + err).lines.first(20).join}"
    [out, err.gsub(FIBER_WARNING, "")]
  end

  # The sanitizers and valgrind keep freed memory and reserve address space: what is measured there says nothing.
  def skip_under_sanitizers
    skip "memory is not measured under a sanitizer or valgrind" if ENV["LD_PRELOAD"].to_s =~ /[ltu]b?san|asan|vgpreload/
  end

  def skip_without_proc
    skip "no /proc here" unless File.exist?("/proc/self/status")
  end
end
