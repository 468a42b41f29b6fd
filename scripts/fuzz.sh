#!/usr/bin/env bash
# Builds the fuzz targets with clang and libFuzzer and runs each for a while:
#   fuzz.sh [SECONDS [TARGET...]]
# SECONDS per target (default 600); TARGET names files of tests/fuzz (default
# all of them). Each target starts from its committed corpus
# (tests/fuzz/corpus/TARGET) and grows a working corpus in build-fuzz/corpus/;
# crashing inputs land in build-fuzz/crashes/TARGET/. A crash, once fixed,
# belongs in the committed corpus, so that the test suite replays it.
set -euo pipefail
source "$(dirname "$0")/deps.sh"
lv_install_missing clang libclang-rt-14-dev libomp-dev
seconds="${1:-600}"
shift || true
targets=("$@")
if [ ${#targets[@]} -eq 0 ]; then
    for f in "$lv_root"/tests/fuzz/*.cpp; do
        name="$(basename "$f" .cpp)"
        [[ "$name" == fuzz_scene || "$name" == replay ]] || targets+=("$name")
    done
fi
dir="$lv_root/build-fuzz"
mkdir -p "$dir"
CC=clang CXX=clang++ cmake -S "$lv_root" -B "$dir" -DCMAKE_BUILD_TYPE=Release -DLV_FUZZ=ON -DLV_TESTS=OFF \
    -DLV_BENCH=OFF -DLV_PREVIEW=OFF > "$dir/configure.log" 2>&1 || { cat "$dir/configure.log"; exit 1; }
# Only the fuzz programs: the shared library does not link the sanitizers' runtime.
cmake --build "$dir" -j "$(nproc)" --target "${targets[@]/#/fuzz_}"
status=0
for t in "${targets[@]}"; do
    mkdir -p "$dir/corpus/$t" "$dir/crashes/$t"
    echo "fuzzing $t for $seconds s"
    # Findings are kept and the run goes on, so that one crash does not hide others.
    (cd "$dir/crashes/$t" && "$dir/tests/fuzz/fuzz_$t" -max_total_time="$seconds" -rss_limit_mb=4096 \
        -timeout=20 -fork=1 -ignore_crashes=1 -ignore_timeouts=1 -ignore_ooms=1 -print_final_stats=1 \
        "$dir/corpus/$t" "$lv_root/tests/fuzz/corpus/$t" 2>"$dir/crashes/$t/log.txt") || status=1
    found=$(find "$dir/crashes/$t" -name 'crash-*' -o -name 'timeout-*' -o -name 'oom-*' -o -name 'leak-*' | wc -l)
    echo "  $found findings in build-fuzz/crashes/$t"
    [ "$found" -eq 0 ] || status=1
done
exit $status
