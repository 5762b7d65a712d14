#!/usr/bin/env bash
# Installs, builds, makes sample photos, makes every size of thumbnail of
# each, and answers one thumbnail request as a web server would see it.
set -euo pipefail
cd "$(dirname "$0")/.."
scripts/install-deps.sh
scripts/build.sh
K=build/tools/kovathumb
rm -rf build/samples
samples=$(MAKE_DNG="$PWD/build/tests/kovathumb_make_dng" scripts/make-samples.sh build/samples)

echo "== What the library reads from each sample"
$K info --size big "$samples"/* | cut -c1-160

echo "== Making small, medium, big, large and xlarge of each"
$K make --all "$samples"/* 2>/dev/null

echo "== Stored thumbnails (EA directories beside the sources)"
find "$samples/.kovaea" -type f | sort | sed "s|^$samples/||"

echo "== kovathumb get big orientation-6.jpg: the response headers"
$K get --dossiva big "$samples/orientation-6.jpg" > build/response.bin
sed -n '1,/^\r$/p' build/response.bin
echo "(body: $(( $(stat -c %s build/response.bin) - $(sed -n '1,/^\r$/p' build/response.bin | wc -c) )) bytes, saved in build/response.bin)"
