#!/usr/bin/env bash
# What the sandbox costs: the same requests from two builds side by side,
# ./build (sandboxed) and ./build-nosbx (bodies in the caller's process:
# cmake -B build-nosbx "-DCMAKE_CXX_FLAGS=-DKOVATHUMB_SANDBOX_IN_PROCESS=1"),
# with the bare tools and cat, then scripts/load.sh's stored-thumbnail rows
# for each build's kovathumb-fcgi. Medians in ms.
#   bench/sandbox.sh [RUNS [LOAD_SECONDS]]   (LOAD_SECONDS 0: no load runs)
set -euo pipefail
top=$(cd "$(dirname "$0")/.." && pwd)
R=${1:-5}
L=${2:-5}
echo "load average before: $(cut -d' ' -f1-3 /proc/loadavg)"
d=$top/build-bench/sandbox
mkdir -p "$d/batch"
cd "$d"
[ -s big.jpg ] || convert -size 6000x4000 plasma:fractal -blur 0x1 +noise Gaussian -quality 90 big.jpg
[ -s big6.jpg ] || { cp big.jpg big6.jpg && exiv2 -M"set Exif.Image.Orientation 6" big6.jpg; }
for i in $(seq 8); do [ -s "batch/p$i.jpg" ] || convert -size 4000x3000 plasma:fractal +noise Gaussian "batch/p$i.jpg"; done
t() { local s; s=$(date +%s%N); "$@" >/dev/null 2>&1 || true; echo $(( ($(date +%s%N) - s) / 100000 )); }
med() { sort -n | awk '{a[NR]=$1} END {printf "%.1f", a[int((NR+1)/2)]/10}'; }
# CPU time (user + system, children included) in tenths of ms: what a
# shared machine's other loads disturb least.
c() { local TIMEFORMAT='%3U %3S' r; r=$( { time "$@" >/dev/null 2>&1; } 2>&1 ) || true; echo "$r" | awk '{printf "%d\n", ($1 + $2) * 10000}'; }
for b in build build-nosbx; do
  K=$top/$b/tools/kovathumb
  big=$(for _ in $(seq "$R"); do rm -rf .kovaea; t "$K" get big big.jpg; done | med)
  big6=$(for _ in $(seq "$R"); do rm -rf .kovaea; t "$K" get big big6.jpg; done | med)
  "$K" get --dossiva big big6.jpg >/dev/null 2>&1
  hit=$(for _ in $(seq $((R * 3))); do t "$K" get --dossiva big big6.jpg; done | med)
  # A box's stored name takes the source's size: its hit still probes.
  "$K" get --dossiva 640x640 big6.jpg >/dev/null 2>&1
  boxhit=$(for _ in $(seq $((R * 3))); do t "$K" get --dossiva 640x640 big6.jpg; done | med)
  idx=$(for _ in 1 2; do rm -rf batch/.kovaea; t "$K" index --appliance --no-progress -j 2 --sizes big batch; done | med)
  hitc=$(for _ in $(seq $((R * 3))); do c "$K" get --dossiva big big6.jpg; done | med)
  idxc=$(for _ in 1 2; do rm -rf batch/.kovaea; c "$K" index --appliance --no-progress -j 2 --sizes big batch; done | med)
  echo "$b: big $big, big turned $big6, hit $hit, hit of a box (probes) $boxhit, index of 8 $idx;" \
    "CPU: hit $hitc, index of 8 $idxc"
done
K=$top/build/tools/kovathumb
argv=$("$K" convert djpeg --size big big.jpg probe.bmp | sed 's/.*"argv":\[\(.*\)\],"scale".*/\1/; s/"//g; s/,/ /g')
rm -f probe.bmp*
# shellcheck disable=SC2086
set -- $argv
dj=("${@:2:8}")
pipe=$(for _ in $(seq "$R"); do t /usr/bin/djpeg "${dj[@]}" pipe.bmp big.jpg; done | med)
pipe6=$(for _ in $(seq "$R"); do t sh -c "/usr/bin/djpeg ${dj[*]} pipe.bmp big6.jpg && convert -strip -colorspace sRGB 'pipe.bmp[0]' -thumbnail 480x640 -rotate 90 -rotate 0 pipe.jpg"; done | med)
stored=.kovaea/big6.jpg/KOVAFILE_THUMB_B_r1.jpg  # the hit's
cat=$(for _ in $(seq $((R * 3))); do t cat "$stored"; done | med)
catc=$(for _ in $(seq $((R * 3))); do c cat "$stored"; done | med)
echo "bare: djpeg $pipe, djpeg + convert $pipe6, cat $cat; CPU: cat $catc"
[ "$L" -gt 0 ] || exit 0
for b in build build-nosbx; do
  KOVATHUMB_FCGI=$top/$b/tools/kovathumb-fcgi KOVATHUMB_CGI=$top/$b/tools/kovathumb-cgi "$top/scripts/load.sh" "$L" |
    grep -E "req/s|stored|gallery" | sed "s|^|$b: |"
done
echo "load average after: $(cut -d' ' -f1-3 /proc/loadavg)"
