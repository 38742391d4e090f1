# shellcheck shell=bash
#
# Debian roots, made with debootstrap and reused; delete one to have it made again. Sourced after lib.sh by checks
# that need another Debian release, or a minimal one. Making and entering roots needs root; otherwise sudo is used.
#
# Sets roots, the folder that contains them: VORN_ROOTS_DIR (default: vorn-rpc/rubies in the user's cache directory).

roots=${VORN_ROOTS_DIR:-${XDG_CACHE_HOME:-$HOME/.cache}/vorn-rpc/rubies}
mkdir -p "$roots/logs"
roots=$(cd "$roots" && pwd)

# The mirror that apt uses; empty where apt is not Debian's (debootstrap then uses its default).
debian_mirror() {
  # shellcheck disable=SC2016 # for apt to expand
  apt-get indextargets --format '$(ORIGIN)|$(LABEL)|$(REPO_URI)' 'Created-By: Packages' 2>/dev/null |
    sed -n 's/^Debian|Debian|//p' | grep -m 1 '^https\{0,1\}:' || true
}

# Names the loopback address, as an installer would: of the packages only newer ones do.
name_loopback() { # root
  [ -e "$1/etc/hosts" ] || printf '127.0.0.1 localhost\n::1 localhost\n' | as_root tee "$1/etc/hosts" >/dev/null
}

# make_root NAME RELEASE PACKAGE,PACKAGE,... [ARCHITECTURE]: makes $roots/NAME unless it is there with these packages.
# The architecture is this machine's, or one whose programs it runs too.
make_root() {
  local release=$2 packages=$3 root=$roots/$1 log=$roots/logs/$1.log proxy=
  if [ -e "$root/vorn-packages" ] && [ "$(cat "$root/vorn-packages")" = "$packages" ]; then return; fi
  # shellcheck disable=SC2154 # lib.sh sets it
  echo "$command: making the root $root"
  as_root rm -rf --one-file-system "$root" "$root.partial"
  eval "$(apt-config shell proxy Acquire::http::Proxy 2>/dev/null)"
  # shellcheck disable=SC2046 # no mirror, no argument
  as_root env ${proxy:+http_proxy="$proxy"} PATH="$PATH:/usr/sbin:/sbin" DEBIAN_FRONTEND=noninteractive \
    debootstrap ${4:+--arch="$4"} --variant=minbase --force-check-gpg ${packages:+--include="$packages"} "$release" "$root.partial" \
    $(debian_mirror) >"$log" 2>&1 || { tail -n 5 "$log" >&2; return 1; }
  as_root rm -rf "$root.partial/var/cache/apt/archives"
  name_loopback "$root.partial"
  # Marks a finished root, and records its packages.
  echo "$packages" | as_root tee "$root.partial/vorn-packages" >/dev/null
  as_root mv "$root.partial" "$root"
}

# in_root ROOT COMMAND...: runs a command in a root, without the caller's environment. /proc is mounted in a separate
# mount namespace, so that nothing is left to unmount however the command ends; where namespaces are not allowed, the
# command runs without /proc. If `emulator` is set, to what `emulate` found, programs of that architecture run in it;
# only this command sees it, in a user namespace that has a table of formats of its own (from Linux 6.7 on; before, the
# machine's own table must name the emulator).
in_root() {
  local root=$1 namespace=()
  shift
  if [ -n "${emulator:-}" ]; then
    namespace=(unshare --user --map-root-user --mount)
    set -- ${emulated_cpu:+"QEMU_CPU=$emulated_cpu"} "$@"
  elif as_root unshare --mount true 2>/dev/null; then namespace=(unshare --mount); fi
  # shellcheck disable=SC2016 # for the inner shell
  as_root ${namespace[@]+"${namespace[@]}"} sh -c '
    root=$1 emulator=$2 mount=$3 formats=/proc/sys/fs/binfmt_misc
    shift 3
    if [ "$mount" -gt 0 ]; then mount -t proc proc "$root/proc" 2>/dev/null || mount --rbind /proc "$root/proc" || true; fi
    if [ -n "$emulator" ]; then
      mount --rbind /dev "$root/dev"
      if mount -t binfmt_misc binfmt_misc "$formats"; then printf %s "$emulator" >"$formats/register"; fi
    fi
    exec chroot "$root" /usr/bin/env -i PATH=/usr/local/sbin:/usr/local/bin:/usr/sbin:/usr/bin:/sbin:/bin HOME=/root \
      LANG=C.UTF-8 DEBIAN_FRONTEND=noninteractive "$@"
  ' sh "$root" "${emulator:-}" ${#namespace[@]} "$@"
}

# emulate CPU: sets `emulator` and `emulated_cpu` for in_root, from what qemu-user-static says of the CPU's programs. F:
# the kernel opens the emulator here, so that the root needs none. From Debian 13 on programs for arm64 sign return
# addresses, which takes the emulator five times as long as all else; it may use a cheaper algorithm.
emulate() {
  # shellcheck disable=SC2034 # in_root reads it
  emulator=$(sed "s|[^:]*:[^:]*\$|/usr/bin/qemu-$1-static:F|" "/usr/lib/binfmt.d/qemu-$1.conf")
  emulated_cpu=
  if [ "$1" = aarch64 ]; then emulated_cpu=max,pauth-impdef=on; fi
}

# unpack_root NAME RELEASE ARCHITECTURE PACKAGE...: makes $roots/NAME unless it is there with these packages, for a
# machine of another architecture. Packages are unpacked and not installed, since their scripts would run in the
# emulator, for ten minutes; dpkg-query knows them. Packages named PACKAGE:amd64 run natively in the root: compilers for
# the architecture, say.
unpack_root() {
  local release=$2 foreign=$3 root=$roots/$1 log=$roots/logs/$1.log temp mirror here architecture package wanted
  shift 3
  if [ "$(cat "$root/vorn-packages" 2>/dev/null)" = "$*" ]; then return; fi
  echo "$command: making the root $root"
  as_root rm -rf --one-file-system "$root" "$root.partial"
  mirror=$(debian_mirror)
  [ -n "$mirror" ] || die "apt names no mirror of Debian's packages"
  here=$(dpkg --print-architecture)
  temp=$(mktemp -d)
  mkdir -p "$temp"/{lists,cache}/partial
  touch "$temp/status"
  : >"$log"
  echo "deb [signed-by=/usr/share/keyrings/debian-archive-keyring.gpg] $mirror $release main" \
    >"$temp/sources.list"
  # Apts of their own: nothing is installed, and this machine's lists stay as they are. One for each architecture, since
  # one for both would not take a package for all that a foreign one needs, unless it is marked for that.
  for architecture in "$foreign" "$here"; do
    cat >"$temp/apt.conf" <<END
APT::Architecture "$architecture";
APT::Architectures { "$architecture"; };
APT::Sandbox::User "root";
Dir::State::status "$temp/status";
Dir::State::lists "$temp/lists";
Dir::Cache "$temp/cache";
Dir::Cache::archives "$temp/cache";
Dir::Etc::sourcelist "$temp/sources.list";
Dir::Etc::sourceparts "$temp/none";
Acquire::Retries "3";
END
    wanted=()
    for package in "$@"; do
      case $package in
        *":$here") [ "$architecture" = "$foreign" ] || wanted+=("${package%:*}") ;;
        *) [ "$architecture" = "$here" ] || wanted+=("${package%:*}") ;;
      esac
    done
    if ! { APT_CONFIG=$temp/apt.conf apt-get -q update &&
      APT_CONFIG=$temp/apt.conf apt-get -q -y --download-only --no-install-recommends install "${wanted[@]}"
    } >>"$log" 2>&1 </dev/null; then
      tail -n 5 "$log" >&2
      rm -rf "$temp"
      return 1
    fi
  done
  as_root mkdir -p "$root.partial"/{usr/{bin,sbin,lib,lib32,lib64},dev,proc,root,tmp,work,var/lib/dpkg/{info,updates}}
  for package in bin sbin lib lib32 lib64; do as_root ln -s "usr/$package" "$root.partial/$package"; done
  for package in "$temp"/cache/*.deb; do
    # What both have, and is there once, runs natively.
    if [[ $package = *_"$foreign".deb ]] && [ "$(dpkg-deb -f "$package" Multi-Arch)" != same ] &&
      compgen -G "${package%%_*}_*_$here.deb" >/dev/null; then continue; fi
    # shellcheck disable=SC2024 # the log is ours
    dpkg-deb --fsys-tarfile "$package" |
      as_root tar -x --no-same-owner --keep-directory-symlink -C "$root.partial" >>"$log" 2>&1 || { rm -rf "$temp"; return 1; }
    { dpkg-deb -f "$package"; printf 'Status: install ok unpacked\n\n'; } >>"$temp/unpacked"
  done
  as_root cp "$temp/unpacked" "$root.partial/var/lib/dpkg/status"
  rm -rf "$temp"
  name_loopback "$root.partial"
  echo "$*" | as_root tee "$root.partial/vorn-packages" >/dev/null
  as_root mv "$root.partial" "$root"
}
