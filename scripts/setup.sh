#!/usr/bin/env bash
# Installs the Debian packages the project builds, tests and benchmarks with.
# Idempotent: packages already present are left alone and apt is not asked twice.
set -euo pipefail

packages=(
  cmake ninja-build g++ pkg-config
  libgtest-dev libgmock-dev libbenchmark-dev
  libplist-dev nlohmann-json3-dev libssl-dev libsqlite3-dev
  libcurl4-openssl-dev libpcre2-dev libfmt-dev libsystemd-dev
  dbus zip unzip util-linux
  # The Debian package (CPack: dpkg-shlibdeps) and its unit check (systemd-analyze).
  dpkg-dev systemd
  # Benchmarks compare the logger against spdlog; the library never links it.
  libspdlog-dev
  # The `fuzz` preset (scripts/fuzz.sh): clang++ and its libFuzzer runtime.
  clang clang-14 libclang-rt-14-dev
)

missing=()
for p in "${packages[@]}"; do
  if ! dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q 'install ok installed'; then
    missing+=("$p")
  fi
done

if [ ${#missing[@]} -eq 0 ]; then
  exit 0
fi

if [ "$(id -u)" -ne 0 ]; then
  echo "setup: missing packages: ${missing[*]} (run as root to install them)" >&2
  exit 1
fi

echo "setup: installing ${missing[*]}"
export DEBIAN_FRONTEND=noninteractive
apt-get update -qq
apt-get install -y -qq --no-install-recommends "${missing[@]}"
