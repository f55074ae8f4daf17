#!/usr/bin/env bash
# Builds the fuzz entry points with libFuzzer (the `fuzz` preset: clang,
# AddressSanitizer + UndefinedBehaviorSanitizer) and runs them, one after the
# other, one job each.
# Usage: scripts/fuzz.sh [seconds] [target...]
#   seconds  how long each target runs (default 600)
#   target   DevConfig, InfoPlist, UserDefaults, SystemInfo, BackendResponse, LogExtraction,
#            KeychainFile, KeyStorageBlob, SealedFile
#            (default: all of Tests/Fuzz/*Fuzz.cpp)
# The committed inputs in Tests/Fuzz/corpus/<target>/ are read, never written;
# new inputs go to <build>/corpus/<target>/, crashes to <build>/artifacts/<target>/.
# A crash, once fixed, belongs in Tests/Fuzz/corpus/<target>/ as a regression
# input. FUZZ_BUILD_DIR overrides the build folder (default build/fuzz);
# FUZZ_OPTIONS adds libFuzzer options (e.g. "-fork=1 -ignore_crashes=1").
# Exits 1 when any target crashed.
set -euo pipefail
cd "$(dirname "$0")/.."

bash scripts/setup.sh

seconds=${1:-600}
if [ $# -gt 0 ]; then shift; fi
targets=("$@")
if [ ${#targets[@]} -eq 0 ]; then
  for source in Tests/Fuzz/*Fuzz.cpp; do
    name=$(basename "$source" .cpp)
    targets+=("${name%Fuzz}")
  done
fi
targets=("${targets[@]%Fuzz}")
build=${FUZZ_BUILD_DIR:-build/fuzz}

echo "=== fuzz: configure and build (${build})"
cmake --preset fuzz -B "${build}" >/dev/null
cmake --build "${build}" -j "$(nproc)" --target "${targets[@]/%/Fuzz}"

crashed=()
for target in "${targets[@]}"; do
  case "${target}" in
    SystemInfo | BackendResponse) max_len=16384 ;;
    *) max_len=65536 ;;  # property lists and JSON files
  esac
  corpus="${build}/corpus/${target}"
  artifacts="${build}/artifacts/${target}"
  # Scratch files of the runs (a crashed run leaves its folder behind).
  scratch="${build}/scratch/${target}"
  rm -rf "${scratch}"
  mkdir -p "${corpus}" "${artifacts}" "${scratch}"
  echo "=== fuzz: ${target} for ${seconds} s"
  # shellcheck disable=SC2086  # FUZZ_OPTIONS is a list of options
  if ! TMPDIR="${scratch}" "${build}/Tests/Fuzz/${target}Fuzz" "${corpus}" "Tests/Fuzz/corpus/${target}" \
      -max_total_time="${seconds}" -max_len="${max_len}" -rss_limit_mb=2048 -timeout=10 \
      -artifact_prefix="${artifacts}/" -print_final_stats=1 ${FUZZ_OPTIONS:-}; then
    crashed+=("${target}")
  fi
done

if [ ${#crashed[@]} -gt 0 ]; then
  echo "fuzz: crashes in ${crashed[*]} (inputs under ${build}/artifacts/)" >&2
  exit 1
fi
echo "fuzz: no crashes"
