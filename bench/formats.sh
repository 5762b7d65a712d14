#!/usr/bin/env bash
# Quality mode's new types and in-process colour, side by side in one run:
# "big" of a 12 MP AVIF, WebP and JPEG XL against vipsthumbnail; the same
# 12 MP photo as a JPEG without a profile, with a Display P3 profile and with
# an sRGB profile; a CR3's "big" against vipsthumbnail of the preview exiv2
# extracts. Wall and CPU time (medians) and the peak memory of the process
# tree.
#
#   bench/formats.sh [BUILD_DIR]     (default build-bench, as run.sh builds it)
#   RUNS=5 CORPUS=/path/to/corpus bench/formats.sh build
set -euo pipefail
cd "$(dirname "$0")/.."
B=$(cd "${1:-build-bench}" && pwd)
K=$B/tools/kovathumb
T=$B/bench/kovathumb_timeit
RUNS=${RUNS:-7}
CORPUS=${CORPUS:-$PWD/../shared/corpus}
data=$B/data-formats
out=$B/out-formats
mkdir -p "$data" "$out"
for tool in vipsthumbnail cwebp cjxl heif-enc exiv2 cc; do
  command -v $tool >/dev/null || { echo "$tool is missing" >&2; exit 1; }
done

# ---- Images ------------------------------------------------------------------
# One real 12 MP camera photo (4288 x 2848) in every type.
photo=$CORPUS/jpeg/nikon_d90.jpg
[ -s "$data/plain.jpg" ] || convert "$photo" -strip -quality 92 "$data/plain.jpg"
[ -s "$data/photo.webp" ] || cwebp -quiet -q 85 "$data/plain.jpg" -o "$data/photo.webp"
# Debian's aom asserts on the 4:2:0 libheif 1.15 asks of it; 4:2:2 encodes.
[ -s "$data/photo.avif" ] || heif-enc -q 60 -p chroma=422 "$data/plain.jpg" -o "$data/photo.avif" >/dev/null
[ -s "$data/photo.jxl" ] || cjxl -q 85 "$data/plain.jpg" "$data/photo.jxl" >/dev/null 2>&1
# The same JPEG carrying a Display P3 profile (made with lcms2) and sRGB's.
if [ ! -s "$data/p3.jpg" ]; then
  cc -x c -o "$out/p3icc" - -llcms2 <<'EOF'
#include <lcms2.h>
int main(int argc, char** argv) {
  cmsCIExyY white = {0.3127, 0.3290, 1};
  cmsCIExyYTRIPLE p3 = {{0.680, 0.320, 1}, {0.265, 0.690, 1}, {0.150, 0.060, 1}};
  double srgb[5] = {2.4, 1 / 1.055, 0.055 / 1.055, 1 / 12.92, 0.04045};
  cmsToneCurve* c = cmsBuildParametricToneCurve(NULL, 4, srgb);
  cmsToneCurve* curves[3] = {c, c, c};
  return argc == 2 && cmsSaveProfileToFile(cmsCreateRGBProfile(&white, &p3, curves), argv[1]) ? 0 : 1;
}
EOF
  "$out/p3icc" "$out/p3.icc"
  convert "$data/plain.jpg" -profile "$out/p3.icc" -quality 92 "$data/p3.jpg"
  convert "$data/plain.jpg" -profile /usr/share/color/icc/colord/sRGB.icc -quality 92 "$data/srgb.jpg"
fi
# The CR3 whose raw data was pruned, and the 1620 x 1080 preview exiv2 extracts.
cp "$CORPUS/raw/canon_r6_pruned.cr3" "$data/r6.cr3"
rm -f "$data"/r6-preview*.jpg
(cd "$data" && exiv2 -ep2 r6.cr3)

# ---- Measuring -------------------------------------------------------------------
field() { sed -n "s/.*\"$2\":\\([0-9.]*\\).*/\\1/p" <<<"$1"; }
declare -A WALL CPU RSS
measure() {  # measure NAME RUNS CMD...
  local name=$1 runs=$2 r
  shift 2
  r=$("$T" -n "$runs" -w 1 -s "rm -rf '$data/.kovaea'" -- "$@" || true)
  [ "$(field "$r" failures)" = 0 ] || echo "warning: $name failed $(field "$r" failures) times" >&2
  WALL[$name]=$(field "$r" median_ms)
  CPU[$name]=$(field "$r" cpu_ms)
  RSS[$name]=$(field "$r" maxrss_kb)
}
for t in avif webp jxl; do
  echo "big of the 12 MP $t..." >&2
  measure "$t.ours" "$RUNS" "$K" get --quality big "$data/photo.$t"
  measure "$t.vips" "$RUNS" vipsthumbnail "$data/photo.$t" -s 640x640 -o "$out/v.jpg"
done
for t in plain p3 srgb; do
  echo "big of the 12 MP JPEG, $t..." >&2
  measure "$t.ours" "$RUNS" "$K" get --quality big "$data/$t.jpg"
done
echo "big of the CR3..." >&2
measure cr3.ours "$RUNS" "$K" get --quality big "$data/r6.cr3"
measure cr3.vips "$RUNS" vipsthumbnail "$data/r6-preview2.jpg" -s 640x640 -o "$out/v.jpg"
rm -rf "$data/.kovaea"

# ---- The table ---------------------------------------------------------------------
ratio() { awk -v a="$1" -v b="$2" 'BEGIN { if (b > 0) printf "%.2f", a / b; else printf "—" }'; }
mib() { awk -v k="$1" 'BEGIN { printf "%.1f", k / 1024 }'; }
row() { printf '| %s | %.0f | %.0f | %s |\n' "$1" "${WALL[$2]}" "${CPU[$2]}" "$(mib "${RSS[$2]}")"; }
{
  echo "Machine: $(nproc) cores, $(sed -n 's/^model name\s*: //p' /proc/cpuinfo | head -1); load average at the end: $(cut -d' ' -f1-3 /proc/loadavg)."
  echo "Runs: $RUNS per case (medians, one warm-up). Photo: the corpus's nikon_d90.jpg (4288 x 2848) in each type."
  echo
  echo "| case | wall ms | CPU ms (process tree) | peak RSS MiB |"
  echo "|---|---:|---:|---:|"
  for t in avif webp jxl; do
    row "12 MP $t, big: kovathumb get --quality" "$t.ours"
    row "12 MP $t, big: vipsthumbnail -s 640x640" "$t.vips"
  done
  row "12 MP JPEG without a profile, big: kovathumb" plain.ours
  row "12 MP JPEG with a Display P3 profile, big: kovathumb" p3.ours
  row "12 MP JPEG with an sRGB profile, big: kovathumb" srgb.ours
  row "CR3 (R6, raw data pruned), big: kovathumb" cr3.ours
  row "its 1620 x 1080 preview, big: vipsthumbnail" cr3.vips
  echo
  echo "| target | wall | CPU | peak memory |"
  echo "|---|---|---|---|"
  for t in avif:1.0 webp:0.7 jxl:1.0; do
    n=${t%%:*}
    echo "| $n big ≤ ${t#*:} × vipsthumbnail, no more memory | $(ratio "${WALL[$n.ours]}" "${WALL[$n.vips]}") × | $(ratio "${CPU[$n.ours]}" "${CPU[$n.vips]}") × | $(ratio "${RSS[$n.ours]}" "${RSS[$n.vips]}") × |"
  done
  for t in p3 srgb; do
    echo "| $t-profiled JPEG ≤ 1.2 × the same without a profile | $(ratio "${WALL[$t.ours]}" "${WALL[plain.ours]}") × | $(ratio "${CPU[$t.ours]}" "${CPU[plain.ours]}") × | $(ratio "${RSS[$t.ours]}" "${RSS[plain.ours]}") × |"
  done
  echo "| CR3 big ≤ 1.0 × vipsthumbnail of its preview | $(ratio "${WALL[cr3.ours]}" "${WALL[cr3.vips]}") × | $(ratio "${CPU[cr3.ours]}" "${CPU[cr3.vips]}") × | $(ratio "${RSS[cr3.ours]}" "${RSS[cr3.vips]}") × |"
} | tee "$out/results.md"
