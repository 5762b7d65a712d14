#!/usr/bin/env bash
# Makes a small tree of sample photos in DIR (default build/samples):
# JPEGs in all eight EXIF orientations, one with a camera preview, PNG, BMP,
# TIFF, an animated GIF and a HEIC.
set -euo pipefail
DIR=${1:-build/samples}
CONVERT=/usr/bin/convert
mkdir -p "$DIR"
cd "$DIR"

# An arrow pointing up, so a wrongly turned thumbnail shows at a glance.
arrow() {
  $CONVERT -size "$2" xc:'#2a6f97' -fill '#f4d35e' -stroke black -strokewidth 4 \
    -draw "polygon 50%,8% 85%,50% 62%,50% 62%,92% 38%,92% 38%,50% 15%,50%" "$1" 2>/dev/null ||
  $CONVERT -size "$2" gradient:'#2a6f97'-'#f4d35e' "$1"
}

$CONVERT -size 1600x1200 plasma:fractal -blur 0x2 -quality 88 photo.jpg
for o in 1 2 3 4 5 6 7 8; do
  cp photo.jpg "orientation-$o.jpg"
  exiv2 -M"set Exif.Image.Orientation $o" "orientation-$o.jpg"
done
$CONVERT -size 2400x1600 plasma:fractal -quality 85 camera.jpg
$CONVERT camera.jpg -resize 640x427 camera-thumb.jpg
exiv2 -M"set Exif.Image.Make Camera" camera.jpg && exiv2 -it camera.jpg && rm camera-thumb.jpg
$CONVERT -size 900x600 gradient:'#ff8800'-'#0044aa' graphic.png
$CONVERT -size 800x600 plasma: picture.bmp
$CONVERT -size 1000x800 plasma: scan.tif
$CONVERT -size 200x150 -delay 20 xc:red xc:green xc:blue -loop 0 anim.gif
exiv2 -M"set Exif.Image.Orientation 1" photo.jpg
heif-enc -q 60 photo.jpg -o photo.heic >/dev/null
echo "$PWD"
