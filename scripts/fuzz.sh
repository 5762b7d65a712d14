#!/usr/bin/env bash
# Builds the libFuzzer harnesses with clang (AddressSanitizer and UBSan on)
# and runs each for SECONDS (default 60). Every harness runs; crashes, hangs,
# memory growth and leaks of ours fail the run at the end, with the inputs
# kept in build-fuzz/findings/<time>.
#   scripts/fuzz.sh [SECONDS]
set -euo pipefail
cd "$(dirname "$0")/.."
top=$PWD
secs=${1:-60}
B=$top/build-fuzz
flags="-fsanitize=fuzzer-no-link,address,undefined -fno-sanitize-recover=undefined"
CC=clang CXX=clang++ cmake -S . -B "$B" -DCMAKE_BUILD_TYPE=RelWithDebInfo -DKOVATHUMB_FUZZ=ON \
  -DKOVATHUMB_BUILD_TESTS=OFF -DKOVATHUMB_BUILD_BENCH=OFF -DKOVATHUMB_BUILD_TOOLS=ON \
  "-DCMAKE_CXX_FLAGS=$flags" "-DCMAKE_SHARED_LINKER_FLAGS=-fsanitize=address,undefined" \
  "-DCMAKE_MODULE_LINKER_FLAGS=-fsanitize=address,undefined" >/dev/null
harnesses=(probe cgi jpeg png webp heif jxl raw)
cmake --build "$B" -j"$(nproc)" --target "${harnesses[@]/%/_fuzzer}" kovathumb_heif kovathumb_formats >/dev/null
g++ -O1 -I"$top/tests" "$top/tests/support/dng.cpp" "$top/tests/support/make_dng_main.cpp" -o "$B/make_dng"
{ [ -d "$B/seeds/raw" ] && [ -d "$B/seeds/jpeg" ] && [ -d "$B/seeds/png" ]; } || fuzz/make-seeds.sh "$B/seeds" "$B/make_dng"
for h in "${harnesses[@]}"; do mkdir -p "$B/corpus/$h"; done
# Findings are kept, one folder per run; the harnesses write only under a
# private TMPDIR, removed at the end.
found=$B/findings/$(date +%Y%m%d-%H%M%S)
mkdir -p "$found"
TMPDIR=$(mktemp -d /tmp/kovathumb-fuzz.XXXXXX)
export TMPDIR
trap 'rm -rf "$TMPDIR"' EXIT
export ASAN_OPTIONS=detect_leaks=1
export LSAN_OPTIONS=suppressions=$top/scripts/lsan.supp:print_suppressions=0
# The probe must neither hang nor grow: a tool's limits are far beyond a probe's.
# The decoders are held to what the sandbox gives them.
declare -A limits=([probe]="-timeout=20 -rss_limit_mb=2048" [cgi]="-timeout=20 -rss_limit_mb=2048"
                   [jpeg]="-timeout=20 -rss_limit_mb=2048" [png]="-timeout=20 -rss_limit_mb=2048"
                   [webp]="-timeout=20 -rss_limit_mb=1024" [heif]="-timeout=20 -rss_limit_mb=1024"
                   [jxl]="-timeout=20 -rss_limit_mb=1024" [raw]="-timeout=20 -rss_limit_mb=1024")
# A decoder's child cannot map more than its address-space limit: there an
# allocation beyond it fails and the decoder reports an error. Under the
# sanitizers no such limit is set, so ASan is made to fail it the same way
# (an AV1 stream may declare a frame of gigabytes inside a 64 x 48 AVIF).
bounded=:allocator_may_return_null=1:max_allocation_size_mb=512
declare -A asan=([webp]=$bounded [heif]=$bounded [jxl]=$bounded [raw]=$bounded)
failed=()
for h in "${harnesses[@]}"; do
  echo "fuzzing $h for ${secs}s"
  # shellcheck disable=SC2086
  if ASAN_OPTIONS="$ASAN_OPTIONS${asan[$h]:-}" "$B/fuzz/${h}_fuzzer" -max_total_time="$secs" ${limits[$h]} -print_final_stats=1 \
    -artifact_prefix="$found/$h-" "$B/corpus/$h" "$B/seeds/$h" 2>"$B/$h.log"; then
    grep -E "stat::number_of_executed_units|cov:" "$B/$h.log" | tail -2
  else
    # The sanitizer's report with its stack, not only the shadow map below it.
    sed -n '/^==[0-9]*==ERROR/,/^SUMMARY/p' "$B/$h.log" | head -60
    tail -5 "$B/$h.log"
    failed+=("$h")
  fi
done
echo "fuzzing: $((${#harnesses[@]} - ${#failed[@]})) passed, ${#failed[@]} failed${failed:+ (${failed[*]}; inputs in $found)}"
[ ${#failed[@]} -eq 0 ] && rmdir "$found" 2>/dev/null
[ ${#failed[@]} -eq 0 ]
