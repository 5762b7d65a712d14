#!/usr/bin/env bash
# Writes the seed corpora: DIR/probe (small files of every kind, with a
# leading name byte and size byte as the harness reads them) and DIR/cgi
# (queries).
#   fuzz/make-seeds.sh DIR [MAKE_DNG]
set -euo pipefail
dir=$1
make_dng=${2:-}
C=/usr/bin/convert
mkdir -p "$dir/probe" "$dir/cgi" "$dir/webp" "$dir/heif" "$dir/jxl" "$dir/raw" "$dir/tmp"
t=$dir/tmp
$C -size 64x48 gradient:red-blue "$t/a.jpg"
exiv2 -M"set Exif.Image.Orientation 6" -M"set Exif.Image.Make Panasonic" -M"set Exif.Panasonic.Rotation 8" "$t/a.jpg"
$C -size 160x120 xc:blue "$t/a-thumb.jpg" && exiv2 -it "$t/a.jpg"
$C -size 64x48 gradient:red-blue "$t/a.png"
$C -size 32x24 -delay 10 xc:red xc:blue "$t/a.gif"
$C -size 32x24 plasma: "$t/a.tif"
$C -size 32x24 plasma: "$t/a.bmp"
heif-enc -q 30 "$t/a.jpg" -o "$t/a.heic" >/dev/null
# name byte picks p.jpg p.png p.gif p.tif p.bmp p.dng p.cr2 p.nef p.heic p.HEIF
seed() { { printf "\\x$(printf %02x "$1")\\x$(printf %02x "$2")"; cat "$3"; } > "$dir/probe/$4"; }
seed 0 1 "$t/a.jpg" jpg; seed 0 4 "$t/a.jpg" jpg-custom; seed 1 1 "$t/a.png" png; seed 2 65 "$t/a.gif" gif
seed 3 2 "$t/a.tif" tif; seed 4 1 "$t/a.bmp" bmp; seed 8 1 "$t/a.heic" heic; seed 9 3 "$t/a.heic" heif
if [ -n "$make_dng" ]; then
  "$make_dng" "$t/a.dng" "$t/a.jpg" 64 48 && seed 5 1 "$t/a.dng" dng && seed 6 1 "$t/a.dng" cr2
fi
# The decoders' harnesses: a leading byte (the size asked for), then the file.
dseed() { { printf "\\x$(printf %02x "$1")"; cat "$2"; } > "$dir/$3"; }
$C -size 64x48 gradient:red-blue -alpha set -channel A -evaluate set 60% "$t/alpha.png"
cwebp -quiet "$t/a.png" -o "$t/a.webp" && dseed 0 "$t/a.webp" webp/lossy && dseed 40 "$t/a.webp" webp/scaled
cwebp -quiet -lossless "$t/alpha.png" -o "$t/b.webp" && dseed 0 "$t/b.webp" webp/lossless-alpha
# Debian's aom asserts on the 4:2:0 and 4:4:4 libheif 1.15 asks of it.
heif-enc -q 30 -p chroma=422 "$t/a.png" -o "$t/a.avif" >/dev/null && dseed 0 "$t/a.avif" heif/avif
$C -size 32x24 gradient:white-black -depth 16 PNG48:"$t/deep.png"
heif-enc -q 30 -b 10 -p chroma=422 "$t/deep.png" -o "$t/deep.avif" >/dev/null && dseed 0 "$t/deep.avif" heif/deep
cjxl -q 90 "$t/a.png" "$t/a.jxl" >/dev/null 2>&1 && dseed 0 "$t/a.jxl" jxl/lossy
cjxl -d 0 "$t/alpha.png" "$t/b.jxl" >/dev/null 2>&1 && dseed 0 "$t/b.jxl" jxl/lossless-alpha
corpus=${KOVATHUMB_CORPUS:-$(dirname "$0")/../../shared/corpus}
for f in "$corpus"/raw/*.cr3; do [ -f "$f" ] && dseed 0 "$f" "raw/$(basename "$f")"; done
# The in-process JPEG path: a size byte, then baseline, progressive, grey and CMYK files.
mkdir -p "$dir/jpeg"
$C -size 64x48 gradient:red-blue -interlace JPEG "$t/p.jpg"
$C -size 64x48 gradient:white-black -colorspace Gray "$t/g.jpg"
$C -size 64x48 gradient:red-blue -colorspace CMYK "$t/c.jpg"
for f in a p g c; do { printf "\\x$(printf %02x $((RANDOM % 256)))"; cat "$t/$f.jpg"; } > "$dir/jpeg/$f"; done
# The in-process PNG path: a size byte, then 8- and 16-bit, alpha, palette with
# tRNS, interlaced and grey files (one with a gAMA of 1/1.8).
mkdir -p "$dir/png"
$C -size 64x48 gradient:red-blue -depth 16 PNG48:"$t/d.png"
$C -size 64x48 gradient:red-blue -transparent red PNG8:"$t/t.png"
$C -size 64x48 gradient:red-blue -interlace PNG "$t/i.png"
$C -size 64x48 gradient:white-black -type Grayscale -set gamma 0.55556 PNG:"$t/g.png"
for f in a alpha d t i g; do { printf "\\x$(printf %02x $((RANDOM % 256)))"; cat "$t/$f.png"; } > "$dir/png/$f"; done
rm -rf "$t"
i=0
for q in "path=album/a.jpg&size=big" "path=album%2Fa.jpg&w=100&h=50&rotate=-1" "path=../outside/secret.jpg&size=small" \
         "path=%2e%2e/outside/secret.jpg&edge=64" "path=leak.jpg&size=big&app=pictavo" "path=out/secret.jpg&size=big" \
         "path=album/.kovaea/a.jpg/KOVAFILE_THUMB_S.jpg&size=small" "list=1" "path=inner.jpg&size=medium&fallback=1&gif=1" \
         "path=/etc/passwd&size=big" "path=album/./a.jpg&size=big&avatar=1"; do
  printf '%s' "$q" > "$dir/cgi/q$((i++))"
done
