#!/usr/bin/env bash
# kovathumb watch: what it costs while nothing changes over a large tree, and
# how fast a burst of new photos gets its thumbnails next to index.
#   bench/watch.sh [BUILD_DIR]     FOLDERS=10000 PHOTOS=2000 SIZE=400x300 SIZES=small JOBS=2 IDLE=30
set -euo pipefail
build=${1:-build}
kt=$(realpath "$build/tools/kovathumb")
folders=${FOLDERS:-10000} photos=${PHOTOS:-2000} size=${SIZE:-400x300} sizes=${SIZES:-small}
jobs=${JOBS:-2} idle=${IDLE:-30}
work=$(mktemp -d "${TMPDIR:-/tmp}/kovathumb-watch-bench.XXXXXX")
watcher=
trap '[ -n "$watcher" ] && kill "$watcher" 2>/dev/null; rm -rf "$work"' EXIT

ticks() { awk '{print $14 + $15}' "/proc/$1/stat"; }
# Our own CPU and that of the children we waited for (workers, their tools).
cputicks() { awk '{print $14 + $15 + $16 + $17}' "/proc/$1/stat"; }
field() { awk -v k="$2:" '$1 == k {print $2}' "/proc/$1/status"; }
lines() { [ -f "$1" ] && wc -l <"$1" || echo 0; }
now() { date +%s.%N; }

# ---- Idle over a large tree ------------------------------------------------------
mkdir -p "$work/idle"
(cd "$work/idle" && for ((i = 0; i < folders; i += 100)); do
  mkdir -p $(seq -f "d$((i / 100))/%g" 0 99)
done)
"$kt" watch --sizes "$sizes" "$work/idle" &
watcher=$!
sleep 5  # the first look at the tree
t0=$(ticks $watcher)
sleep "$idle"
t1=$(ticks $watcher)
hz=$(getconf CLK_TCK)
echo "idle over $folders folders: $(awk -v t=$((t1 - t0)) -v hz="$hz" -v s="$idle" 'BEGIN {printf "%.2f", 100 * t / hz / s}') % CPU" \
     "over ${idle} s, VmRSS $(field $watcher VmRSS) kB, VmHWM $(field $watcher VmHWM) kB," \
     "watches $(grep -c '^inotify' /proc/$watcher/fdinfo/* 2>/dev/null | awk -F: '{s += $2} END {print s}')"
kill $watcher
wait $watcher || true
watcher=

# ---- A burst of new photos, against index ---------------------------------------------
convert -size "$size" plasma:fractal -quality 90 "$work/photo.png"
mkdir -p "$work/src" "$work/watched" "$work/indexed"
for ((i = 0; i < photos; i++)); do cp "$work/photo.png" "$work/src/$i.png"; done
# Both at the same priority: watch's own default (nice 19, idle I/O) would
# only measure the other load on the machine.
"$kt" watch -j "$jobs" --sizes "$sizes" --settle 0.5 --nice 0 --io-class keep --json "$work/watched" >"$work/watch.json" &
watcher=$!
sleep 1
start=$(now)
mv "$work/src" "$work/watched/burst"
while [ "$(lines "$work/watch.json")" -lt "$photos" ]; do sleep 0.2; done
watchSecs=$(awk -v a="$start" -v b="$(now)" 'BEGIN {print b - a}')
watchCpu=$(awk -v t="$(cputicks $watcher)" -v hz="$hz" 'BEGIN {print t / hz}')
kill $watcher
wait $watcher || true
watcher=
cp -r "$work/watched/burst" "$work/indexed/burst"
rm -rf "$work/indexed/burst/.kovaea"
start=$(now)
/usr/bin/time -f %U+%S -o "$work/index.time" "$kt" index -j "$jobs" --sizes "$sizes" --no-progress "$work/indexed" >/dev/null
indexCpu=$(awk -F+ '{print $1 + $2}' "$work/index.time")
indexSecs=$(awk -v a="$start" -v b="$(now)" 'BEGIN {print b - a}')
made=$(grep -c '"made":1' "$work/watch.json" || true)
awk -v n="$photos" -v w="$watchSecs" -v i="$indexSecs" -v m="$made" -v j="$jobs" -v wc="$watchCpu" -v ic="$indexCpu" 'BEGIN {
  printf "burst of %d photos, -j %d: watch %.1f photos/s (%.1f s, %d converted, %.1f ms CPU a photo), " \
         "index %.1f photos/s (%.1f s, %.1f ms CPU a photo): %.2f x the photos/s, %.2f x the CPU\n",
         n, j, n / w, w, m, 1000 * wc / n, n / i, i, 1000 * ic / n, i / w, wc / ic }'
