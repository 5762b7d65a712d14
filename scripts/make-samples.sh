#!/usr/bin/env bash
# Makes a small tree of sample photos in DIR (default build/samples):
# JPEGs in all eight EXIF orientations, one with a camera preview, PNG, BMP,
# TIFF, an animated GIF, a HEIC, (given MAKE_DNG, the DNG writer) a raw file
# with an embedded preview, and a video when ffmpeg is installed.
set -euo pipefail
DIR=${1:-build/samples}
CONVERT=/usr/bin/convert
mkdir -p "$DIR"
cd "$DIR"

# An upright photo of camera-like entropy: an arrow pointing up with a flag
# on its right. Cameras store pixels as the sensor saw them and tag how to
# show them; orientation-N.jpg is stored turned the inverse way and tagged
# N, so a correct thumbnail of every one of them shows the arrow pointing up
# with its flag on the right.
$CONVERT -size 2000x1500 plasma:fractal -attenuate 0.6 +noise Gaussian \
  -fill '#f4d35e' -stroke black -strokewidth 12 \
  -draw "polygon 1000,150 1400,700 1150,700 1150,1350 850,1350 850,700 600,700" \
  -fill '#e4572e' -draw "polygon 1150,760 1500,860 1150,960" \
  -quality 94 photo.jpg
inverse=("" "" "-flop" "-rotate 180" "-flip" "-transpose" "-rotate 270" "-transverse" "-rotate 90")
for o in 1 2 3 4 5 6 7 8; do
  # shellcheck disable=SC2086
  $CONVERT photo.jpg ${inverse[$o]} -quality 94 "orientation-$o.jpg"
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
# A raw camera file carrying a JPEG preview, as cameras write them.
if [ -n "${MAKE_DNG:-}" ]; then
  $CONVERT photo.jpg -resize 1600x1200 -quality 90 raw-preview.jpg
  "$MAKE_DNG" camera.dng raw-preview.jpg 1600 1200 && rm raw-preview.jpg
fi
# A short video, when ffmpeg is there to make it (and to index it).
if command -v ffmpeg >/dev/null; then
  ffmpeg -nostdin -v error -y -f lavfi -i testsrc=duration=2:size=640x360:rate=10 -pix_fmt yuv420p clip.mp4
fi
echo "$PWD"
