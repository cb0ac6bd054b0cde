#!/usr/bin/env bash
# Runs every libFuzzer harness for a short time on its seed corpus.
# Usage: scripts/fuzz.sh [build-dir] [seconds-each]   (default build-fuzz, 10 s)
# Builds with clang ($CXX, default clang++-19, which has std::expected) into the build folder first. Exits non-zero when a harness finds a
# crash; the reproducer is left in the build folder's fuzz-findings/<harness>/.
set -euo pipefail
cd "$(dirname "$0")/.."
build=${1:-build-fuzz}
seconds=${2:-10}
if [ ! -f "$build/build.ninja" ]; then
  CXX=${CXX:-clang++-19} cmake -S . -B "$build" -G Ninja -DCMAKE_BUILD_TYPE=Debug -DPLIM_FUZZ=ON >/dev/null
fi
harnesses=$(cd fuzz && ls *_fuzz.cpp | sed 's/\.cpp$//')
ninja -C "$build" -j"$(nproc)" $harnesses
status=0
for harness in $harnesses; do
  reader=${harness%_fuzz}
  corpus="$build/fuzz-corpus/$reader"
  findings="$build/fuzz-findings/$reader"
  mkdir -p "$corpus" "$findings"
  echo "== $harness ($seconds s)"
  if ! "$build/fuzz/$harness" -max_total_time="$seconds" -max_len=65536 -timeout=10 -rss_limit_mb=2048 \
      -artifact_prefix="$findings/" -print_final_stats=1 "$corpus" "fuzz/corpus/$reader" 2>"$build/fuzz-$reader.log"; then
    echo "$harness found a problem; see $build/fuzz-$reader.log and $findings/"
    tail -30 "$build/fuzz-$reader.log"
    status=1
  else
    grep -E "stat::number_of_executed_units|cov:" "$build/fuzz-$reader.log" | tail -2
  fi
done
exit $status
