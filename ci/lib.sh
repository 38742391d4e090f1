# shellcheck shell=bash
#
# Shared code of the commands in bin/ and ci/. Each sources it first:
#
#   . "$(dirname "$0")/../ci/lib.sh"
#
# It prints the script's head comment for --help, changes to the project's root, and sets
#
#   command  the script's name, for messages
#   build    the build folder: VORN_BUILD_DIR (default: build/)
#   ruby     the interpreter: RUBY (default: ruby)
#   jobs     the number of processors

set -euo pipefail

command=${0##*/}

# The first comment block of the script, without the #! line.
usage() { sed -n '2d; 1d; /^#/!q; s/^# \{0,1\}//p' "$0"; }
case ${1:-} in -h | --help) usage; exit ;; esac

cd "$(dirname "${BASH_SOURCE[0]}")/.."
build=$(realpath -m "${VORN_BUILD_DIR:-build}")
# shellcheck disable=SC2034 # for the scripts that source this
ruby=${RUBY:-ruby}
jobs=$(nproc)

die() { echo "$command: $*" >&2; exit 1; }
misuse() { echo "$command: $* (see --help)" >&2; exit 2; }
no_arguments() { [ $# -eq 0 ] || misuse "no argument '$1'"; }
heading() { printf '\n== %s ==\n' "$1"; }
as_root() { if [ "$(id -u)" = 0 ]; then "$@"; else sudo "$@"; fi; }

# Runs a command, and shows its output only when it fails.
quietly() {
  local log status=0
  log=$(mktemp)
  "$@" >"$log" 2>&1 || status=$?
  [ "$status" -eq 0 ] || cat "$log" >&2
  rm -f "$log"
  return "$status"
}

# native PRESET [option...]: configures a preset of CMakePresets.json and builds it in $build/PRESET. The options
# are for the build: --target NAME.
native() {
  local preset=$1
  shift
  quietly cmake --preset "$preset" -B "$build/$preset"
  quietly cmake --build "$build/$preset" -j"$jobs" "$@"
}

# extension [option...]: builds the extension, with options of ext/extconf.rb, and sets `extension` to its folder.
# shellcheck disable=SC2120 # for the scripts that source this
extension() {
  # shellcheck disable=SC2034 # likewise
  extension=$(bin/build "$@" | tee -a /dev/stderr | tail -n 1)
}

# The checkout's files with local changes but without build output: object files of one Ruby must not be used by
# another.
export_project() {
  local file
  git ls-files -co --exclude-standard -z | while IFS= read -r -d '' file; do
    # A tracked file may have been deleted.
    if [ -e "$file" ] || [ -L "$file" ]; then printf '%s\0' "$file"; fi
  done | tar -c --null --no-recursion -T -
}

# Generates the pages of both languages anew: $build/reference/ruby, $build/reference/native, and xml beside them, which
# names what native has. Fails on any warning, and if anything public is undocumented.
reference_pages() {
  local pages=$build/reference
  bin/setup base docs
  extension
  # Pages of deleted classes must not stay.
  rm -rf "$pages"
  mkdir -p "$pages"
  {
    cat docs/development/Doxyfile
    echo "OUTPUT_DIRECTORY = \"$pages\""
    echo "PROJECT_NUMBER = $("$ruby" -Ilib -r vorn_rpc/version -e 'print VORN::VERSION')"
  } | doxygen -
  echo "C++: every public member is documented"
  "$ruby" -I"$extension" -Ilib test/docs/ruby_reference.rb "$pages/ruby"
}

# Environment of an interpreter that loads an extension built with AddressSanitizer and UndefinedBehaviorSanitizer.
sanitizer_environment() {
  local name path runtimes=
  for name in libasan.so libubsan.so; do
    path=$("${CXX:-g++}" -print-file-name="$name")
    # The compiler prints a name that it cannot find unchanged.
    case $path in /*) runtimes+=${runtimes:+:}$(realpath "$path") ;; *) die "no $name here: install g++'s runtimes" ;; esac
  done
  # The interpreter is not instrumented, and the runtimes must be the first libraries of a process.
  export LD_PRELOAD=$runtimes
  # detect_leaks=0: the interpreter does not free its memory at exit, and the check would report all of it.
  #   test/ext/memory_test.rb checks in the ordinary build that our own memory is freed.
  # detect_stack_use_after_return=0: the garbage collector scans the machine stack, so locals must be there.
  # allocator_may_return_null=1: a request that is too large raises std::bad_alloc, as without the sanitizer.
  # use_sigaltstack=0, handle_segv=0: the interpreter's own handler turns a stack overflow into SystemStackError, and
  #   still reports and dies on any other bad access.
  # quarantine_size_mb: a larger quarantine of freed memory only costs time.
  export ASAN_OPTIONS=detect_leaks=0:detect_stack_use_after_return=0:allocator_may_return_null=1:use_sigaltstack=0
  ASAN_OPTIONS+=:handle_segv=0:quarantine_size_mb=64:abort_on_error=1
  export UBSAN_OPTIONS=print_stacktrace=1:halt_on_error=1
}
