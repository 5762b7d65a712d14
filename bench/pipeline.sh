#!/usr/bin/env bash
# Quality mode's in-process pipeline, side by side in one run with
# vipsthumbnail and, given BASE_K, with an earlier kovathumb: CPU per 12 MP
# photo (all four stored sizes), "big" of the 24 MP JPEG on the fly (and of
# the same picture progressive), index -j 2 over a batch of real photos
# against a vipsthumbnail script doing the same job, the worker's peak
# memory, and the bytes of each stored size; the same for the 12 MP photo
# as a PNG, against the ImageMagick runs that made PNG thumbnails before.
#
#   bench/pipeline.sh [BUILD_DIR]          (default build-bench, as run.sh builds it)
#   BASE_K=/path/to/old/kovathumb PHOTOS=30 RUNS=5 bench/pipeline.sh build
#
# Photos come from the corpus (CORPUS, default ../shared/corpus): its JPEGs
# of 2 MP and more, with and without colour profiles, copied round-robin.
set -euo pipefail
cd "$(dirname "$0")/.."
B=$(cd "${1:-build-bench}" && pwd)
K=$B/tools/kovathumb
T=$B/bench/kovathumb_timeit
PROBE=$B/bench/kovathumb_request_probe
RUNS=${RUNS:-5}
PHOTOS=${PHOTOS:-30}
CORPUS=${CORPUS:-$PWD/../shared/corpus}
BASE_K=${BASE_K:-}
data=$B/data-pipeline
out=$B/out-pipeline
mkdir -p "$data" "$out"
command -v vipsthumbnail >/dev/null || { echo "vipsthumbnail is missing (libvips-tools)" >&2; exit 1; }

# ---- Images ------------------------------------------------------------------
# run.sh's 24 MP JPEG (camera-like entropy, 4:4:4, quality 90: a hard case
# for the entropy decoder) and a real 12 MP camera photo.
[ -s "$data/big.jpg" ] || convert -size 6000x4000 plasma:fractal -blur 0x1 -attenuate 0.25 +noise Gaussian \
  -quality 90 "$data/big.jpg"
[ -s "$data/bigp.jpg" ] || jpegtran -progressive -outfile "$data/bigp.jpg" "$data/big.jpg"
cp "$CORPUS/jpeg/nikon_d90.jpg" "$data/photo12.jpg"
[ -s "$data/photo12.png" ] || /usr/bin/convert "$data/photo12.jpg" -strip "$data/photo12.png"
mapfile -t real < <(for f in "$CORPUS"/jpeg/*.jpg; do
  [ "$(identify -format '%[fx:w*h>=2000000]' "$f")" = 1 ] && echo "$f"; done)
rm -rf "$data/batch"
mkdir -p "$data/batch"
for i in $(seq 0 $((PHOTOS - 1))); do
  cp "${real[$((i % ${#real[@]}))]}" "$data/batch/p$(printf %03d "$i").jpg"
done

# ---- Measuring -------------------------------------------------------------------
field() { sed -n "s/.*\"$2\":\\([0-9.]*\\).*/\\1/p" <<<"$1"; }
declare -A WALL CPU RSS
measure() {  # measure NAME SETUP RUNS CMD...
  local name=$1 setup=$2 runs=$3 r
  shift 3
  r=$("$T" -n "$runs" -w 1 -s "$setup" -- "$@" || true)
  [ "$(field "$r" failures)" = 0 ] || echo "warning: $name failed $(field "$r" failures) times" >&2
  WALL[$name]=$(field "$r" median_ms)
  CPU[$name]=$(field "$r" cpu_ms)
  RSS[$name]=$(field "$r" maxrss_kb)
}
# The job the issue compares with: the largest size with shrink-on-load,
# each smaller from the one above.
# PNGs stay PNGs.
cat >"$out/vips-one.sh" <<'EOF'
#!/bin/sh
set -e
e=${1##*.}
d=$2/$(basename "$1" ".$e")
q=; [ "$e" = jpg ] && q="[Q=85]"
mkdir -p "$d"
vipsthumbnail "$1" -s 1280x1280 -o "$d/xl.$e$q"
vipsthumbnail "$d/xl.$e" -s 640x640 -o "$d/b.$e$q"
vipsthumbnail "$d/b.$e" -s 360x360 -o "$d/m.$e$q"
vipsthumbnail "$d/m.$e" -s 120x120 -o "$d/s.$e$q"
EOF
# What quality mode ran for a PNG before: ImageMagick per size, each from
# the one above, with the same arguments.
cat >"$out/im-png.sh" <<'EOF'
#!/bin/sh
set -e
d=$2/im
mkdir -p "$d"
p=/usr/share/color/icc/colord/sRGB.icc
prev="png:$1[0]"
for s in 1280 640 360 120; do
  /usr/bin/convert "$prev" -thumbnail "${s}x${s}>" -profile $p -colorspace sRGB -strip "png:$d/$s.png"
  prev="png:$d/$s.png[0]"
done
EOF
chmod +x "$out/vips-one.sh" "$out/im-png.sh"
clean="rm -rf '$data/.kovaea' '$data/batch/.kovaea' '$out/vips'"

echo "one 12 MP photo, four sizes..." >&2
measure one.ours "$clean" "$RUNS" "$K" make --quality "$data/photo12.jpg"
[ -n "$BASE_K" ] && measure one.base "$clean" "$RUNS" "$BASE_K" make --quality "$data/photo12.jpg"
measure one.vips "$clean" "$RUNS" "$out/vips-one.sh" "$data/photo12.jpg" "$out/vips"

echo "one 12 MP PNG, four sizes..." >&2
measure png.ours "$clean" "$RUNS" "$K" make --quality "$data/photo12.png"
measure png.im "$clean" "$RUNS" "$out/im-png.sh" "$data/photo12.png" "$out/vips"
measure png.vips "$clean" "$RUNS" "$out/vips-one.sh" "$data/photo12.png" "$out/vips"
measure pngfly.ours "$clean" "$RUNS" "$K" get --quality big "$data/photo12.png"
measure pngfly.vips "$clean" "$RUNS" vipsthumbnail "$data/photo12.png" -s 640x640 -o "$out/v.png"

echo "on the fly, big of 24 MP..." >&2
measure fly.ours "$clean" "$RUNS" "$K" get --quality big "$data/big.jpg"
[ -n "$BASE_K" ] && measure fly.base "$clean" "$RUNS" "$BASE_K" get --quality big "$data/big.jpg"
measure fly.vips "$clean" "$RUNS" vipsthumbnail "$data/big.jpg" -s 640x640 -o "$out/v.jpg"
measure fly.djpeg "$clean" "$RUNS" djpeg -scale 1/8 -outfile "$out/d.ppm" "$data/big.jpg"
measure prog.ours "$clean" "$RUNS" "$K" get --quality big "$data/bigp.jpg"
measure prog.vips "$clean" "$RUNS" vipsthumbnail "$data/bigp.jpg" -s 640x640 -o "$out/v.jpg"

echo "index -j 2 over $PHOTOS photos..." >&2
measure batch.ours "$clean" 3 "$K" index --no-progress -j 2 "$data/batch"
[ -n "$BASE_K" ] && measure batch.base "$clean" 3 "$BASE_K" index --no-progress -j 2 "$data/batch"
measure batch.vips "$clean" 3 sh -c "ls '$data/batch'/*.jpg | xargs -P 2 -I{} '$out/vips-one.sh' {} '$out/vips'"

echo "worker memory and bytes..." >&2
eval "$clean"
rss_big=$(field "$("$PROBE" 128 big "$data/big.jpg" 2>&1 >/dev/null)" children_maxrss_kb)
eval "$clean"
rss_xl=$(field "$("$PROBE" 128 xlarge "$data/big.jpg" 2>&1 >/dev/null)" children_maxrss_kb)
eval "$clean"
rss_prog=$(field "$("$PROBE" 128 big "$data/bigp.jpg" 2>&1 >/dev/null)" children_maxrss_kb)
eval "$clean"
rss_png=$(field "$("$PROBE" 128 big "$data/photo12.png" 2>&1 >/dev/null)" children_maxrss_kb)
eval "$clean"
rss_pngxl=$(field "$("$PROBE" 128 xlarge "$data/photo12.png" 2>&1 >/dev/null)" children_maxrss_kb)
eval "$clean"
"$K" make --quality "$data/photo12.png" >/dev/null
"$out/im-png.sh" "$data/photo12.png" "$out/vips"
bytes_png=$(for l in S M B XL; do stat -c %s "$data/.kovaea/photo12.png/KOVAFILE_THUMB_$l.png"; done | tr '\n' ' ')
bytes_im=$(for s in 120 360 640 1280; do stat -c %s "$out/vips/im/$s.png"; done | tr '\n' ' ')
bytes() {  # bytes KOVATHUMB: "S M B XL" bytes summed over the batch
  eval "$clean"
  "$1" index --no-progress -j 2 "$data/batch" >/dev/null
  for l in S M B XL; do
    find "$data/batch/.kovaea" -name "KOVAFILE_THUMB_${l}.jpg" -o -name "KOVAFILE_THUMB_${l}_r*.jpg" |
      xargs -r stat -c %s | awk '{ s += $1 } END { printf "%d ", s }'
  done
}
bytes_ours=$(bytes "$K")
bytes_base=""
[ -n "$BASE_K" ] && bytes_base=$(bytes "$BASE_K")
eval "$clean"

# ---- The table ---------------------------------------------------------------------
ratio() { awk -v a="$1" -v b="$2" 'BEGIN { if (b > 0) printf "%.2f", a / b; else printf "—" }'; }
row() { printf '| %s | %.0f | %.0f | %.1f |\n' "$1" "${WALL[$2]}" "${CPU[$2]}" "$(awk -v k="${RSS[$2]}" 'BEGIN { print k / 1024 }')"; }
{
  echo "Machine: $(nproc) cores, $(sed -n 's/^model name\s*: //p' /proc/cpuinfo | head -1); load average at the end: $(cut -d' ' -f1-3 /proc/loadavg)."
  echo "Runs: $RUNS per case, batch 3 (medians, one warm-up); batch: $PHOTOS copies of ${#real[@]} corpus JPEGs of 2 MP and more."
  echo
  echo "| case | wall ms | CPU ms (process tree) | peak RSS MiB |"
  echo "|---|---:|---:|---:|"
  row "12 MP photo, four sizes: kovathumb make --quality" one.ours
  [ -n "$BASE_K" ] && row "12 MP photo, four sizes: earlier kovathumb" one.base
  row "12 MP photo, four sizes: vipsthumbnail script" one.vips
  row "24 MP, big on the fly: kovathumb get --quality" fly.ours
  [ -n "$BASE_K" ] && row "24 MP, big on the fly: earlier kovathumb" fly.base
  row "24 MP, big on the fly: vipsthumbnail -s 640x640" fly.vips
  row "24 MP, djpeg -scale 1/8 alone (the entropy decoder's floor)" fly.djpeg
  row "24 MP progressive, big on the fly: kovathumb get --quality" prog.ours
  row "24 MP progressive, big on the fly: vipsthumbnail -s 640x640" prog.vips
  row "12 MP PNG, four sizes: kovathumb make --quality" png.ours
  row "12 MP PNG, four sizes: ImageMagick as before (four runs)" png.im
  row "12 MP PNG, four sizes: vipsthumbnail script" png.vips
  row "12 MP PNG, big on the fly: kovathumb get --quality" pngfly.ours
  row "12 MP PNG, big on the fly: vipsthumbnail -s 640x640" pngfly.vips
  row "index -j 2, $PHOTOS photos: kovathumb" batch.ours
  [ -n "$BASE_K" ] && row "index -j 2, $PHOTOS photos: earlier kovathumb" batch.base
  row "index -j 2, $PHOTOS photos: vipsthumbnail script, 2 at a time" batch.vips
  echo
  pps() { awk -v n="$PHOTOS" -v ms="${WALL[$1]}" 'BEGIN { printf "%.1f", n / (ms / 1000) }'; }
  echo "| target | measured |"
  echo "|---|---|"
  echo "| CPU per 12 MP JPEG, four sizes, ≤ 100 ms | ${CPU[one.ours]} ms |"
  echo "| big of 24 MP on the fly ≤ 0.3 × vipsthumbnail | wall $(ratio "${WALL[fly.ours]}" "${WALL[fly.vips]}") ×, CPU $(ratio "${CPU[fly.ours]}" "${CPU[fly.vips]}") × |"
  echo "| index -j 2 photos/s ≥ 3 × the vipsthumbnail script | $(pps batch.ours) against $(pps batch.vips): $(ratio "${WALL[batch.vips]}" "${WALL[batch.ours]}") × |"
  [ -n "$BASE_K" ] && echo "| index -j 2 photos/s ≥ 2 × the earlier kovathumb | $(pps batch.ours) against $(pps batch.base): $(ratio "${WALL[batch.base]}" "${WALL[batch.ours]}") × |"
  echo "| worker peak RSS, 24 MP JPEG, ≤ 64 MiB | big $(awk -v k="$rss_big" 'BEGIN { printf "%.1f", k / 1024 }') MiB, xlarge $(awk -v k="$rss_xl" 'BEGIN { printf "%.1f", k / 1024 }') MiB |"
  echo "| bytes of S, M, B, XL over the batch ≤ earlier | ours: $bytes_ours; earlier: ${bytes_base:-not measured} |"
  echo "| big of 24 MP progressive on the fly | wall $(ratio "${WALL[prog.ours]}" "${WALL[prog.vips]}") ×, CPU $(ratio "${CPU[prog.ours]}" "${CPU[prog.vips]}") × vipsthumbnail; worker peak $(awk -v k="$rss_prog" 'BEGIN { printf "%.1f", k / 1024 }') MiB |"
  echo "| 12 MP PNG, four sizes | CPU $(ratio "${CPU[png.ours]}" "${CPU[png.im]}") × ImageMagick's, $(ratio "${CPU[png.ours]}" "${CPU[png.vips]}") × the vipsthumbnail script's |"
  echo "| 12 MP PNG, big on the fly | wall $(ratio "${WALL[pngfly.ours]}" "${WALL[pngfly.vips]}") ×, CPU $(ratio "${CPU[pngfly.ours]}" "${CPU[pngfly.vips]}") × vipsthumbnail |"
  echo "| worker peak RSS, 12 MP PNG | big $(awk -v k="$rss_png" 'BEGIN { printf "%.1f", k / 1024 }') MiB, xlarge $(awk -v k="$rss_pngxl" 'BEGIN { printf "%.1f", k / 1024 }') MiB |"
  echo "| bytes of S, M, B, XL of the 12 MP PNG | ours: $bytes_png; ImageMagick: $bytes_im|"
} | tee "$out/results.md"
