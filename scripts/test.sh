#!/usr/bin/env bash
# Sets the machine up, then builds and runs the whole test suite under
# AddressSanitizer + UndefinedBehaviorSanitizer, then its concurrency suites
# under ThreadSanitizer.
# Usage: scripts/test.sh [preset...]   (default: asan tsan)
set -euo pipefail
cd "$(dirname "$0")/.."

bash scripts/setup.sh

presets=("$@")
[ ${#presets[@]} -gt 0 ] || presets=(asan tsan)
jobs=$(nproc)

for preset in "${presets[@]}"; do
  echo "=== ${preset}: configure and build"
  cmake --preset "${preset}" >/dev/null
  cmake --build --preset "${preset}" -j "${jobs}"
  echo "=== ${preset}: tests"
  ctest --preset "${preset}" -j "${jobs}"
done
