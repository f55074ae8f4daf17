#!/usr/bin/env bash
# Runs a command as root inside a private mount namespace in which the
# system folders the daemon uses are replaced by folders of a sandbox:
#
#   <sandbox>/Library       is mounted on /Library
#   <sandbox>/Applications  is mounted on /Applications
#   <sandbox>/home          is mounted on the home folder of root (/root)
#   <sandbox>/bin/*         shadow same-named tools in /bin (for /bin/launchctl)
#
# Nothing of the real machine's /Library, /Applications, /root or /bin is
# touched: the command sees a new root made of bind mounts of the real
# top-level folders plus the sandbox's, and everything vanishes with the
# namespace when the command ends. Network and processes stay shared, so a
# loopback server started outside is reachable inside.
#
# SANDBOX_OVERLAY names top-level system folders (e.g. "usr etc var") that the
# command may change: each is an overlay of the real folder with its changes in
# <sandbox>/overlay/<name>/upper, kept from one run to the next, so a package
# can be installed into the sandbox, looked at, and removed again.
#
# With SANDBOX_NETWORK=none the command also gets a network namespace of its
# own with no interface up, so nothing it sends can leave it. With
# SANDBOX_LIBRARY=none there is no /Library at all. SANDBOX_BINDS holds more
# bind mounts, one "<target>=<host path>[:ro]" a line, made after the above
# (":ro": read-only), e.g. "/etc/passwd=/tmp/x/passwd".
#
# Usage: sandbox.sh <sandbox-dir> <command> [args...]
set -euo pipefail

if [ $# -lt 2 ]; then
  echo "usage: $0 <sandbox-dir> <command> [args...]" >&2
  exit 2
fi

sandbox=$(realpath "$1"); shift
for d in Library Applications home bin; do mkdir -p "$sandbox/$d"; done

if [ "${SANDBOX_INSIDE:-}" != 1 ]; then
  namespaces=(--mount --propagation private)
  [ "${SANDBOX_NETWORK:-}" = none ] && namespaces+=(--net)
  [ "$(id -u)" -eq 0 ] || namespaces=(--user --map-root-user "${namespaces[@]}")
  exec env SANDBOX_INSIDE=1 unshare "${namespaces[@]}" "$0" "$sandbox" "$@"
fi

# Inside the namespace: build the new root on a tmpfs.
root="$sandbox/.root"
mkdir -p "$root"
mount -t tmpfs -o mode=0755 sandbox-root "$root"
for entry in /*; do
  name=${entry#/}
  case "$name" in
    Library|Applications|bin) continue ;;
  esac
  if [ -L "$entry" ]; then
    cp -P "$entry" "$root/$name"
  elif [ -d "$entry" ] && [[ " ${SANDBOX_OVERLAY:-} " == *" $name "* ]]; then
    layer="$sandbox/overlay/$name"
    mkdir -p "$root/$name" "$layer/upper" "$layer/work"
    mount -t overlay "sandbox-$name" -o "lowerdir=$entry,upperdir=$layer/upper,workdir=$layer/work" "$root/$name"
  elif [ -d "$entry" ]; then
    mkdir "$root/$name"
    if [ "$name" = tmp ]; then
      # Not recursive: the new root itself may be mounted below /tmp.
      mount --bind "$entry" "$root/$name"
    else
      mount --rbind "$entry" "$root/$name"
    fi
  fi
done

# /bin: the sandbox's tools over the real ones (a read-only overlay); with
# /usr an overlay, a merged /bin stays the link into it.
realbin=$(realpath /bin)
if [ -L /bin ] && [[ " ${SANDBOX_OVERLAY:-} " == *" usr "* ]]; then
  cp -P /bin "$root/bin"
else
  mkdir "$root/bin"
  if [ -n "$(ls -A "$sandbox/bin")" ]; then
    mount -t overlay sandbox-bin -o "lowerdir=$sandbox/bin:$realbin" "$root/bin"
  else
    mount --bind "$realbin" "$root/bin"
  fi
fi

if [ "${SANDBOX_LIBRARY:-}" != none ]; then
  mkdir "$root/Library"
  mount --bind "$sandbox/Library" "$root/Library"
fi
mkdir "$root/Applications"
mount --bind "$sandbox/Applications" "$root/Applications"
home=$(getent passwd 0 | cut -d: -f6)
mount --bind "$sandbox/home" "$root${home:-/root}"

while IFS='=' read -r target source; do
  [ -n "$target" ] || continue
  mount --bind "${source%:ro}" "$root$target"
  if [ "${source%:ro}" != "$source" ]; then
    mount -o remount,bind,ro "$root$target"
  fi
done <<< "${SANDBOX_BINDS:-}"

cd /
exec chroot "$root" "$@"
