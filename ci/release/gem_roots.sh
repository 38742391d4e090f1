# shellcheck shell=bash
#
# The Debian roots that a native gem is made and checked in. Sourced after lib.sh and roots.sh by bin/package and
# bin/test gem-native. Those for another processor than this machine's are unpacked: compilers and base programs run
# natively there, Ruby in the emulator.

# The releases whose Rubies a native gem has builds for, the oldest first.
# shellcheck disable=SC2034 # for the scripts that source this
releases=(bullseye bookworm trixie)

# gem_for ARCHITECTURE: makes ready for the gem of an architecture, as Debian names it. Sets architecture; platform, as
# RubyGems names it; triplet, as compilers do; and emulator, for in_root. Waits until nobody else uses the folder
# /vorn-gem of these roots, and keeps it until the next call or the script's end.
# shellcheck disable=SC2034 # likewise
gem_for() {
  architecture=$1 emulator=
  case $architecture in
    amd64) platform=x86_64-linux ;;
    arm64) platform=aarch64-linux ;;
  esac
  [ "$(uname -m)" = x86_64 ] || die "the native gems are made on x86_64: this machine is $(uname -m)"
  triplet=$platform-gnu
  bin/setup base matrix
  if [ "$architecture" = arm64 ]; then
    bin/setup foreign
    emulate aarch64
  fi
  # shellcheck disable=SC2154 # roots.sh sets it
  exec 9>"$roots/logs/gem-$architecture.lock"
  flock 9
}

# root_with_compiler RELEASE: sets root to a root with the release's Ruby, its headers and $triplet-g++
root_with_compiler() {
  root=$roots/$1
  if [ "$architecture" = amd64 ]; then
    make_root "$1" "$1" ruby,ruby-dev,ruby-minitest,rake,g++,make,libboost-dev || die "cannot make $root"
  else
    root=$roots/$architecture-$1
    unpack_root "${root##*/}" "$1" "$architecture" ruby-minitest rake {ruby,ruby-dev,libstdc++6,libboost-dev}":$architecture" \
      {base-files,bash,dash,coreutils,sed,grep,gawk,findutils,diffutils,make,"g++-$triplet"}":$(dpkg --print-architecture)"
  fi
}

# root_without_compiler RELEASE: sets root to a root with the release's Ruby and nothing that compiles
root_without_compiler() {
  root=$roots/$1-ruby
  if [ "$architecture" = amd64 ]; then
    make_root "$1-ruby" "$1" ruby || die "cannot make $root"
  else
    root=$roots/$architecture-$1-ruby
    unpack_root "${root##*/}" "$1" "$architecture" {ruby,libstdc++6}":$architecture" \
      {base-files,bash,dash,coreutils,sed,grep,findutils}":$(dpkg --print-architecture)"
  fi
}
