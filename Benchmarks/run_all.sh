#!/usr/bin/env bash
# Builds the release preset, runs every benchmark program and the daemon's
# figures, and prints one table of every figure with its target and whether
# it is met (the programs' FIGURE lines; their full output stays in the log).
# Run it on a quiet machine: the figures are medians of repeated runs, and
# other load moves them.
# Usage: Benchmarks/run_all.sh [repetitions]   (default 5)
#   IDLE_SECONDS (default 60): the daemon's idle window.
set -euo pipefail
cd "$(dirname "$0")/.."
repetitions=${1:-5}

bash scripts/setup.sh
cmake --preset release >/dev/null
cmake --build --preset release -j "$(nproc)" | tail -n 1

log=$(mktemp /tmp/benchmarks.XXXXXX.log)
figures=$(mktemp /tmp/figures.XXXXXX)
trap 'rm -f "$figures"' EXIT

run() {
  echo "=== $*" | tee -a "$log"
  "$@" 2>&1 | tee -a "$log" | sed -n 's/^.*\(FIGURE\t\)/\1/p' >> "$figures" || true
}
for program in build/release/Benchmarks/*Benchmarks; do
  case "$(basename "$program")" in
    # 300 rounds each, with medians and percentiles of their own.
    AppBundleObserverBenchmarks) run "$program" --benchmark_color=false ;;
    *) run "$program" --benchmark_color=false --benchmark_repetitions="$repetitions" \
         --benchmark_report_aggregates_only=true ;;
  esac
done
run bash Benchmarks/daemon_figures.sh "${IDLE_SECONDS:-60}"

echo
echo "Figures ($(nproc) cores, load average $(cut -d' ' -f1-3 /proc/loadavg); full output in $log)"
awk -F'\t' '
  { name[NR] = $2; measured[NR] = $3; target[NR] = $4; met[NR] = $5
    if (length($2) > w1) w1 = length($2); if (length($3) > w2) w2 = length($3); if (length($4) > w3) w3 = length($4)
    if ($5 == "MISSED") missed++ }
  END {
    for (i = 1; i <= NR; i++) printf "%-*s  %-*s  %-*s  %s\n", w1, name[i], w2, measured[i], w3, target[i], met[i]
    printf "\n%d figures, %d targets missed\n", NR, missed
  }' "$figures"
