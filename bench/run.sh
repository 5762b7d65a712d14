#!/usr/bin/env bash
# Measures kovathumb against the tools people would use instead and prints a
# markdown table (also saved as build-bench/results.md).
#
#   bench/run.sh            the full run (200 photos for the batch case)
#   PHOTOS=40 RUNS=5 bench/run.sh   a shorter one
#
# Whole processes are timed over repeated runs (median, min, max); peak
# memory is the largest resident set of the process tree. Benchmarks are not
# tests: nothing here passes or fails.
set -euo pipefail
cd "$(dirname "$0")/.."
top=$PWD
RUNS=${RUNS:-10}
PHOTOS=${PHOTOS:-200}
scripts/install-deps.sh
if ! command -v vipsthumbnail >/dev/null; then
  SUDO=""; [ "$(id -u)" -ne 0 ] && SUDO=sudo
  DEBIAN_FRONTEND=noninteractive $SUDO apt-get install -y -qq --no-install-recommends libvips-tools time >/dev/null
fi
BUILD_DIR=build-bench BUILD_TYPE=Release scripts/build.sh -DKOVATHUMB_BUILD_TESTS=OFF >/dev/null
B=$top/build-bench
K=$B/tools/kovathumb
CGI=$B/tools/kovathumb-cgi
T=$B/bench/kovathumb_timeit
PROBE=$B/bench/kovathumb_request_probe
CONVERT=/usr/bin/convert
data=$B/data
out=$B/out
mkdir -p "$data" "$out"

# ---- Images ------------------------------------------------------------------
# A 24-megapixel photo of camera-like entropy, unturned and turned (6); a
# 12-megapixel PNG; a HEIC; and PHOTOS photos of 12 megapixels.
if [ ! -s "$data/big.jpg" ]; then
  echo "making images..." >&2
  $CONVERT -size 6000x4000 plasma:fractal -blur 0x1 -attenuate 0.25 +noise Gaussian -quality 90 "$data/big.jpg"
  cp "$data/big.jpg" "$data/big6.jpg"
  exiv2 -M"set Exif.Image.Orientation 6" "$data/big6.jpg"
  $CONVERT -size 4000x3000 plasma:fractal -blur 0x2 "$data/photo.png"
  $CONVERT "$data/big.jpg" -resize 4000x3000 -quality 90 "$data/photo12.jpg"
  # A HEIC counts as a photo only with Exif first; cameras write one.
  exiv2 -M"set Exif.Image.Orientation 1" "$data/photo12.jpg"
  heif-enc -q 60 "$data/photo12.jpg" -o "$data/photo.heic" >/dev/null
fi
if [ "$(find "$data/batch" -name '*.jpg' 2>/dev/null | wc -l)" -ne "$PHOTOS" ]; then
  rm -rf "$data/batch"
  mkdir -p "$data/batch"
  for i in $(seq 1 10); do
    $CONVERT -size 4000x3000 plasma:fractal -blur 0x1 -attenuate 0.25 +noise Gaussian -quality 90 \
      "$data/batch/seed$i.jpg"
  done
  for i in $(seq 1 "$PHOTOS"); do
    cp "$data/batch/seed$(( (i - 1) % 10 + 1 )).jpg" "$data/batch/photo$(printf %04d "$i").jpg"
  done
  rm -f "$data/batch"/seed*.jpg
fi

# ---- Measuring -------------------------------------------------------------------
declare -A MED MIN MAX RSS
field() { sed -n "s/.*\"$2\":\\([0-9.]*\\).*/\\1/p" <<<"$1"; }
# measure NAME SETUP RUNS CMD...
measure() {
  local name=$1 setup=$2 runs=$3
  shift 3
  local r
  r=$("$T" -n "$runs" -w 1 -s "$setup" -- "$@" || true)
  [ "$(field "$r" failures)" = 0 ] || echo "warning: $name failed $(field "$r" failures) times" >&2
  MED[$name]=$(field "$r" median_ms)
  MIN[$name]=$(field "$r" min_ms)
  MAX[$name]=$(field "$r" max_ms)
  RSS[$name]=$(field "$r" maxrss_kb)
}
ratio() { awk -v a="${MED[$1]}" -v b="${MED[$2]}" 'BEGIN { printf "%.2f", a / b }'; }
mib() { awk -v k="$1" 'BEGIN { printf "%.1f", k / 1024 }'; }
row() {  # row NAME LABEL [REFERENCE]
  local ref=${3:-}
  local r="—"
  [ -n "$ref" ] && r="$(ratio "$ref" "$1")×"
  printf '| %s | %.1f | %.1f | %.1f | %s | %s |\n' "$2" "${MED[$1]}" "${MIN[$1]}" "${MAX[$1]}" "$(mib "${RSS[$1]}")" "$r"
}
header() { printf '\n### %s\n\n| command | median ms | min ms | max ms | peak RSS MiB | ours ÷ this |\n|---|---:|---:|---:|---:|---:|\n' "$1"; }

drop() { echo "rm -rf '$data/.kovaea'"; }

# ---- On the fly: "big" (640 x 640) -------------------------------------------------
onfly() {  # onfly KEY FILE JPEG?
  local key=$1 src=$2 jpeg=$3
  measure "$key.ours" "$(drop)" "$RUNS" "$K" get big "$src"
  measure "$key.quality" "$(drop)" "$RUNS" "$K" get --quality big "$src"
  if [ "$jpeg" = yes ]; then
    # The bare pipeline of our request: djpeg with the same arguments, then
    # convert with the same arguments where the image must turn.
    local argv
    argv=$("$K" convert djpeg --size big "$src" "$out/probe.bmp" | sed 's/.*"argv":\[\(.*\)\],"scale".*/\1/; s/"//g; s/,/ /g')
    rm -f "$out/probe.bmp"*
    local rot
    rot=$("$K" info "$src" | sed -n 's/.*"rotate":\([0-9]*\).*/\1/p')
    local target
    target=$("$K" info --size big "$src" | sed -n 's/.*"target":\[\([0-9]*\),\([0-9]*\)\].*/\1x\2/p')
    # shellcheck disable=SC2086
    set -- $argv
    local djpeg_args=("${@:2:8}")
    if [ "$rot" = 0 ]; then
      measure "$key.pipeline" true "$RUNS" /usr/bin/djpeg "${djpeg_args[@]}" "$out/pipe.bmp" "$src"
    else
      measure "$key.pipeline" true "$RUNS" sh -c "/usr/bin/djpeg ${djpeg_args[*]} '$out/pipe.bmp' '$src' && \
        $CONVERT -strip -colorspace sRGB '$out/pipe.bmp[0]' -thumbnail $target -rotate $(( rot * 90 )) -rotate 0 '$out/pipe.jpg'"
    fi
  fi
  measure "$key.vips" true "$RUNS" vipsthumbnail "$src" -s 640x640 -o "$out/vips.jpg"
  measure "$key.convert" true "$RUNS" "$CONVERT" "$src" -thumbnail 640x640 "$out/im.jpg"
  if [ "$jpeg" = yes ]; then
    measure "$key.convert_size" true "$RUNS" "$CONVERT" -define jpeg:size=1280x1280 "$src" -thumbnail 640x640 "$out/im2.jpg"
  fi
}

echo "measuring on-the-fly requests..." >&2
onfly big "$data/big.jpg" yes
onfly big6 "$data/big6.jpg" yes
onfly png "$data/photo.png" no
onfly heic "$data/photo.heic" no

echo "measuring cache hits..." >&2
"$K" get --dossiva big "$data/big6.jpg" >/dev/null
stored=$(find "$data/.kovaea/big6.jpg" -name 'KOVAFILE_THUMB_B*' | head -1)
measure hit.ours true $(( RUNS * 3 )) "$K" get --dossiva big "$data/big6.jpg"
measure hit.cgi true $(( RUNS * 3 )) env KOVATHUMB_ROOT="$data" REQUEST_METHOD=GET \
  QUERY_STRING="path=big6.jpg&size=big&app=dossiva" "$CGI"
measure hit.cat true $(( RUNS * 3 )) cat "$stored"

echo "measuring the batch case ($PHOTOS photos)..." >&2
measure batch.j1 "rm -rf '$data/batch/.kovaea'" 1 "$K" index --appliance --no-progress -j 1 "$data/batch"
measure batch.j2 "rm -rf '$data/batch/.kovaea'" 1 "$K" index --appliance --no-progress -j 2 "$data/batch"
measure batch.rerun true "$RUNS" "$K" index --appliance --no-progress -j 2 "$data/batch"
measure batch.q1 "rm -rf '$data/batch/.kovaea'" 1 "$K" index --no-progress -j 1 "$data/batch"
measure batch.q2 "rm -rf '$data/batch/.kovaea'" 1 "$K" index --no-progress -j 2 "$data/batch"

echo "measuring the demo gallery's \"medium\" tiles..." >&2
rm -rf "$data/samples"
MAKE_DNG="$B/tests/kovathumb_make_dng" scripts/make-samples.sh "$data/samples" >/dev/null 2>&1 || true
tiles() {  # tiles FLAGS...: bytes of every photo's "medium" response, made on the fly
  local total=0 n=0 f
  while IFS= read -r -d '' f; do
    rm -rf "$data/samples/.kovaea"
    total=$(( total + $("$K" get "$@" medium "$f" 2>/dev/null | wc -c) ))
    n=$(( n + 1 ))
  done < <(find "$data/samples" -path '*/.kovaea' -prune -o -type f ! -name '*.mp4' -print0)
  echo "$n $total"
}
read -r tiles_n tiles_appliance < <(tiles)
read -r _ tiles_quality < <(tiles --quality)

echo "probing our own share..." >&2
rm -rf "$data/.kovaea"
probe_fly=$("$PROBE" 0 big "$data/big6.jpg" 2>&1 >/dev/null)
probe_hit=$("$PROBE" 2 big "$data/big6.jpg" 2>&1 >/dev/null)
rm -rf "$data/.kovaea"
probe_jpg=$("$PROBE" 0 big "$data/big.jpg" 2>&1 >/dev/null)

# ---- The table ---------------------------------------------------------------------
{
  echo "## Results"
  echo
  echo "Machine: $(nproc) cores, $(awk '/MemTotal/ { printf "%.0f GiB", $2 / 1048576 }' /proc/meminfo), $(sed -n 's/^model name\s*: //p' /proc/cpuinfo | head -1); $(. /etc/os-release; echo "$PRETTY_NAME"); $(uname -r)."
  echo "Runs: $RUNS per case (cache hits $(( RUNS * 3 ))), one warm-up; batch: $PHOTOS photos of 4000 x 3000, one run each."
  for key in big big6 png heic; do
    case $key in
      big) title='On the fly "big": 24 MP JPEG (6000 x 4000), unturned';;
      big6) title='On the fly "big": 24 MP JPEG, orientation 6';;
      png) title='On the fly "big": 12 MP PNG';;
      heic) title='On the fly "big": HEIC (4000 x 3000)';;
    esac
    header "$title"
    row "$key.ours" "kovathumb get big" 
    row "$key.quality" "kovathumb get --quality big" "$key.ours"
    [ -n "${MED[$key.pipeline]:-}" ] && row "$key.pipeline" "bare pipeline (same djpeg$( [ $key = big6 ] && echo ' + convert') arguments)" "$key.ours"
    row "$key.vips" "vipsthumbnail -s 640x640" "$key.ours"
    row "$key.convert" "convert -thumbnail 640x640" "$key.ours"
    [ -n "${MED[$key.convert_size]:-}" ] && row "$key.convert_size" "convert -define jpeg:size=1280x1280 -thumbnail 640x640" "$key.ours"
  done
  header "Serving a stored thumbnail (cache hit)"
  row hit.ours "kovathumb get --dossiva big"
  row hit.cgi "kovathumb-cgi (path=...&size=big&app=dossiva)"
  row hit.cat "cat of the stored file" hit.ours
  awk -v a="${MED[hit.cgi]}" -v b="${MED[hit.cat]}" 'BEGIN { printf "\nkovathumb-cgi ÷ cat: %.2f×\n", a / b }'
  header "Batch: kovathumb index over $PHOTOS photos, all five sizes"
  row batch.j1 "index -j 1"
  row batch.j2 "index -j 2"
  row batch.rerun "index -j 2, re-run over the unchanged tree"
  row batch.q1 "index -j 1 (quality mode)" batch.j1
  row batch.q2 "index -j 2 (quality mode)" batch.j2
  awk -v n="$PHOTOS" -v a="${MED[batch.j1]}" -v b="${MED[batch.j2]}" -v c="${MED[batch.rerun]}" 'BEGIN {
    printf "\nPhotos per second: -j 1 %.1f, -j 2 %.1f (%.2f×); re-run %.0f× faster than the first -j 2 run.\n",
      n / (a / 1000), n / (b / 1000), a / b, b / c }'
  printf '\n### %s\n\n' "Quality mode against the targets"
  echo "| case | quality mode | reference | ratio |"
  echo "|---|---:|---:|---:|"
  for key in big big6 heic; do
    printf '| on the fly "big", %s | %.1f ms | vipsthumbnail %.1f ms | %s× |\n' "$key" "${MED[$key.quality]}" "${MED[$key.vips]}" \
      "$(ratio "$key.quality" "$key.vips")"
  done
  awk -v n="$PHOTOS" -v a="${MED[batch.q2]}" -v b="${MED[batch.j2]}" 'BEGIN {
    printf "| index -j 2, photos/s | %.1f | appliance %.1f | %.2f× |\n", n / (a / 1000), n / (b / 1000), b / a }'
  awk -v n="$tiles_n" -v a="$tiles_quality" -v b="$tiles_appliance" 'BEGIN {
    printf "| demo gallery, %d \"medium\" tiles | %.2f MB | appliance %.2f MB | %.2f× |\n", n, a / 1e6, b / 1e6, a / b }'
  echo
  echo "### Our own share (one request, measured inside the process)"
  echo
  echo "| request | library CPU ms (inside the request) | process CPU ms (start-up included) | our peak RSS MiB | tools' CPU ms | tools' peak RSS MiB |"
  echo "|---|---:|---:|---:|---:|---:|"
  for p in "on the fly, 24 MP unturned:$probe_jpg" "on the fly, 24 MP turned:$probe_fly" "cache hit:$probe_hit"; do
    label=${p%%:*}
    j=${p#*:}
    printf '| %s | %.1f | %.1f | %s | %.1f | %s |\n' "$label" "$(field "$j" request_cpu_ms)" "$(field "$j" self_cpu_ms)" \
      "$(mib "$(field "$j" self_maxrss_kb)")" \
      "$(field "$j" children_cpu_ms)" "$(mib "$(field "$j" children_maxrss_kb)")"
  done
  if [ -x "$B/bench/kovathumb_micro" ]; then
    echo
    echo "### Microbenchmarks (Google Benchmark)"
    echo
    echo '```'
    BENCH_JPEG="$data/big.jpg" BENCH_HEIC="$data/photo.heic" "$B/bench/kovathumb_micro" 2>/dev/null | grep -E '^(BM_|Benchmark|-)'
    echo '```'
  fi
} | tee "$B/results.md"

# ---- Quality mode's in-process pipeline ---------------------------------------------
# Side by side with vipsthumbnail (and an earlier build given BASE_K).
echo "measuring quality mode's in-process pipeline..." >&2
{ echo; echo "### Quality mode's in-process pipeline"; echo; RUNS=$RUNS bench/pipeline.sh "$B"; } | tee -a "$B/results.md"
