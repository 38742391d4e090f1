# frozen_string_literal: true

# Builds the extension out of tree: in an empty folder, `ruby <root>/ext/extconf.rb && make`.
#
# The sources of ext/ and proto/ are compiled into one shared object, and those of vobject/ with them.
# stream_ext/extconf.rb loads this file for another one.
#
#   --enable-werror      warnings of our own code are errors (for development)
#   --enable-sanitize    with AddressSanitizer and UndefinedBehaviorSanitizer
#   --enable-assertions  what contracts demand of callers is checked (on with --enable-sanitize)
#   --enable-coverage    with counters for gcov
#   CXX=...              in the environment: another compiler than the interpreter's

require "mkmf"
require "shellwords"

ROOT = File.expand_path("..", __dir__)
TARGET = "vorn_rpc_ext" unless defined?(TARGET)
SOURCES = %w[ext/*.cc proto/*.cc vobject/*.cc].freeze unless defined?(SOURCES)

# --- compiler ---------------------------------------------------------------------------------------------

MakeMakefile::CONFIG["CXX"] = RbConfig::MAKEFILE_CONFIG["CXX"] = ENV["CXX"] if ENV["CXX"]
CXX = RbConfig.expand((MakeMakefile::CONFIG["CXX"] || "").dup)

RUBY_INCLUDES = %w[rubyarchhdrdir rubyhdrdir].map { |dir| "-isystem #{Shellwords.escape(RbConfig::CONFIG[dir])}" }
STANDARD = "-std=c++17"

# Whether the compiler takes `code` with these options. mkmf's own probes speak C before 2.7.
def compiles?(code, options = "", link = false)
  File.write("conftest.cc", code)
  out = link ? "-shared -fPIC -o conftest.so" : "-c -o conftest.o"
  command = "#{CXX} #{STANDARD} #{RUBY_INCLUDES.join(' ')} #{options} conftest.cc #{out}"
  Logging.open do
    puts command
    system(command)
  end
ensure
  %w[conftest.cc conftest.o conftest.so].each { |file| File.delete(file) if File.exist?(file) }
end

def require_that(what, found, advice)
  puts "checking for #{what}... #{found ? 'yes' : 'no'}"
  return if found
  abort "vorn_rpc_ext needs #{what}: #{advice}."
end

require_that("a C++17 compiler", compiles?("#include <string_view>\nint main() { if (int i = 0; i) return i; }\n"),
             "install g++ 8 or clang++ 7 or newer (Debian: apt-get install g++), or name one in CXX")
require_that("Ruby's headers", compiles?("#include <ruby.h>\n"),
             "install the interpreter's development package (Debian: apt-get install ruby-dev)")
boost = "#include <boost/make_shared.hpp>\n#include <boost/thread/recursive_mutex.hpp>\n"
require_that("Boost's headers", compiles?(boost), "install Boost (Debian: apt-get install libboost-dev)")

# --- what the interpreter has -----------------------------------------------------------------------------

def ruby_before?(version)
  Gem::Version.new(RUBY_VERSION) < Gem::Version.new(version)
end

# The table at the head of ruby_compat.h says what each is for, and since when it is there.
have_func("rb_gc_adjust_memory_usage", "ruby.h")
have_func("rb_ext_ractor_safe", "ruby.h")
have_func("rb_enc_interned_str", "ruby/encoding.h")
have_func("rb_hash_bulk_insert", "ruby.h")
$defs << "-DVORN_RUBY_HAS_TYPED_CALLBACKS" unless ruby_before?("2.7") # <ruby/backward/cxxanyargs.hpp>
# Of a newer Ruby nobody has looked yet, docs/development/decisions/0010-no-second-check.md.
$defs << "-DVORN_RUBY_HASHES_STRINGS_ITSELF" if RUBY_ENGINE == "ruby" && ruby_before?("3.5")
$defs << "-DVORN_RUBY_ALIASES_PASS_FOR_BUILTIN" if ruby_before?("2.3") # to rb_method_basic_definition_p
# In 2.2 ruby_stack_check() is the constant 0; where it is no more, between that and 2.7, was not tried.
if ruby_before?("2.7") && have_func("pthread_getattr_np", ["ruby.h", "pthread.h"])
  $defs << "-DVORN_RUBY_OVERRUNS_THE_STACK"
end
$defs << "-DVORN_RUBY_KEEPS_VARIABLES_IN_OBJECTS" unless ruby_before?("3.5") # those of a buffer
$defs << "-DVORN_RUBY_TAINTS" if ruby_before?("2.7") # later the calls remain and do nothing

# --- flags ------------------------------------------------------------------------------------------------

# Ruby's headers are system headers, so that the warnings below are about our own code.
$INCFLAGS = $INCFLAGS.gsub(/-I(?=\S*hdrdir)/, "-isystem ") << " -I#{Shellwords.escape(ROOT)}"

# Ruby 2.2 leaves its C++ flags empty. Its headers say `register`, which C++17 has not.
# -O3 inlines the writers into their callers (with -O2: 5,000 strings, encode, 34 to 45 us). Ruby's functions are called
# for each value, too often for the indirection of a linkage table.
$CXXFLAGS = ["-g", $CXXFLAGS, STANDARD, "-O3 -fno-plt -fvisibility=hidden -Wall -Wextra -Wpedantic"].compact.join(" ")
$CXXFLAGS << " -Wno-register" if compiles?("", "-Wno-register")
# From g++ 16 on (15 was not tried) Boost's counted pointers of one type are taken for those of another, and their
# members for out of bounds.
recent_gcc = "#if !defined(__GNUC__) || defined(__clang__) || __GNUC__ < 15\n#error\n#endif\n"
$CXXFLAGS << " -Wno-array-bounds" if compiles?(recent_gcc)
$CXXFLAGS << " -Werror" if enable_config("werror", false)

# Only what the interpreter looks for is exported: templates of the standard library would be visible otherwise.
version_script = "-Wl,--version-script=#{Shellwords.escape(File.join(ROOT, 'ext', 'vorn_rpc_ext.map'))}"
$LDFLAGS << " " << version_script if compiles?("extern \"C\" void Init_#{TARGET}() {}\n", version_script, true)

sanitized = enable_config("sanitize", false)
$defs << "-DNDEBUG" unless enable_config("assertions", sanitized)
if sanitized
  sanitize = " -fsanitize=address,undefined -fno-sanitize-recover=undefined -fno-omit-frame-pointer"
  # Ruby's raise leaves our frames unseen by the sanitizer, which would go on to guard their locals' bounds.
  without_stack = ["--param=asan-stack=0", "-mllvm -asan-stack=0"].find do |option|
    compiles?("", "#{sanitize} #{option}")
  end
  sanitize += " #{without_stack}"
  $CXXFLAGS << sanitize
  $LDFLAGS << sanitize
end
if enable_config("coverage", false)
  $CXXFLAGS << " --coverage -O0"
  $LDFLAGS << " --coverage"
end

# --- sources ----------------------------------------------------------------------------------------------

$srcs = SOURCES.flat_map { |pattern| Dir[File.join(ROOT, pattern)].sort }
$VPATH.concat($srcs.map { |source| File.dirname(source) }.uniq)
$objs = $srcs.map { |source| "#{File.basename(source, '.cc')}.#{$OBJEXT}" }

# Only sources are looked for elsewhere: RubyGems compiles in place, and with VPATH make would take the objects that
# another shared object was made of for this one's.
create_makefile(TARGET) do |makefile|
  makefile.map { |line| line.sub(/^VPATH = (.*)$/, "vpath %.cc \\1") }
end
