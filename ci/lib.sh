# shellcheck shell=bash
#
# What the commands in bin/ and ci/ share. Each sources it first:
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

# The comment between the first line and the first line that is none.
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

# Runs a command whose output matters only when it fails.
quietly() {
  local log status=0
  log=$(mktemp)
  "$@" >"$log" 2>&1 || status=$?
  [ "$status" -eq 0 ] || cat "$log" >&2
  rm -f "$log"
  return "$status"
}

# native PRESET [option...]: configures a preset of CMakePresets.json and builds it, in $build/PRESET. The options go to
# the build: --target NAME.
native() {
  local preset=$1
  shift
  quietly cmake --preset "$preset" -B "$build/$preset"
  quietly cmake --build "$build/$preset" -j"$jobs" "$@"
}

# extension [option...]: builds the extension, with options of ext/extconf.rb, and sets `extension` to its folder.
extension() {
  # shellcheck disable=SC2034 # likewise
  extension=$(bin/build "$@" | tee -a /dev/stderr | tail -n 1)
}

# What an interpreter needs that is to load an extension built with AddressSanitizer and UndefinedBehaviorSanitizer.
sanitizer_environment() {
  local name path runtimes=
  for name in libasan.so libubsan.so; do
    path=$("${CXX:-g++}" -print-file-name="$name")
    # A name that is not found comes back as it is.
    case $path in /*) runtimes+=${runtimes:+:}$(realpath "$path") ;; *) die "no $name here: install g++'s runtimes" ;; esac
  done
  # The interpreter itself is not built with them, and they must be the first libraries of a process.
  export LD_PRELOAD=$runtimes
  # detect_leaks=0: the interpreter keeps what it has at its end, and the check would take all of it for lost.
  #   Whether our own memory is given back is tested by test/ext/memory_test.rb, in the ordinary build.
  # detect_stack_use_after_return=0: the collector looks for objects on the machine stack, and locals must be there.
  # allocator_may_return_null=1: what is too large ends in std::bad_alloc, as without the sanitizer.
  # use_sigaltstack=0, handle_segv=0: the interpreter's own handler turns an overrun of the stack into SystemStackError.
  #   It still reports any other bad access, and dies.
  # quarantine_size_mb: freed memory stays poisoned for a while; more than this much of it only costs time.
  export ASAN_OPTIONS=detect_leaks=0:detect_stack_use_after_return=0:allocator_may_return_null=1:use_sigaltstack=0
  ASAN_OPTIONS+=:handle_segv=0:quarantine_size_mb=64:abort_on_error=1
  export UBSAN_OPTIONS=print_stacktrace=1:halt_on_error=1
}
