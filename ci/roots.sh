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

# make_root NAME RELEASE PACKAGE,PACKAGE,...: makes $roots/NAME unless it is there with these packages.
make_root() {
  local release=$2 packages=$3 root=$roots/$1 log=$roots/logs/$1.log proxy=
  if [ "$(cat "$root/vorn-packages" 2>/dev/null)" = "$packages" ]; then return; fi
  # shellcheck disable=SC2154 # lib.sh sets it
  echo "$command: making the root $root"
  as_root rm -rf --one-file-system "$root" "$root.partial"
  eval "$(apt-config shell proxy Acquire::http::Proxy 2>/dev/null)"
  # shellcheck disable=SC2046 # no mirror, no argument
  as_root env ${proxy:+http_proxy="$proxy"} PATH="$PATH:/usr/sbin:/sbin" DEBIAN_FRONTEND=noninteractive \
    debootstrap --variant=minbase --force-check-gpg ${packages:+--include="$packages"} "$release" "$root.partial" \
    $(debian_mirror) >"$log" 2>&1 || { tail -n 5 "$log" >&2; return 1; }
  as_root rm -rf "$root.partial/var/cache/apt/archives"
  # Marks a finished root, and records its packages.
  echo "$packages" | as_root tee "$root.partial/vorn-packages" >/dev/null
  as_root mv "$root.partial" "$root"
}

# in_root ROOT COMMAND...: runs a command in a root, without the caller's environment. /proc is mounted in a separate
# mount namespace, so that nothing is left to unmount however the command ends; where namespaces are not allowed, the
# command runs without /proc.
in_root() {
  local root=$1 namespace=()
  shift
  if as_root unshare --mount true 2>/dev/null; then namespace=(unshare --mount); fi
  # shellcheck disable=SC2016 # for the inner shell
  as_root ${namespace[@]+"${namespace[@]}"} sh -c '
    root=$1 mount=$2
    shift 2
    if [ "$mount" -gt 0 ]; then mount -t proc proc "$root/proc" || mount --rbind /proc "$root/proc" || true; fi
    exec chroot "$root" /usr/bin/env -i PATH=/usr/local/sbin:/usr/local/bin:/usr/sbin:/usr/bin:/sbin:/bin HOME=/root \
      LANG=C.UTF-8 DEBIAN_FRONTEND=noninteractive "$@"
  ' sh "$root" ${#namespace[@]} "$@"
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
