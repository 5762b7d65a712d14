#!/usr/bin/env bash
# Loads the gallery in headless Chromium against lighttpd and kovathumb-fcgi,
# over a sample tree with three broken files listed a few files a page, and
# checks that the page settles with every good thumbnail decoded and exactly
# the broken ones unavailable. Saves a screenshot as OUT_DIR/gallery.png.
#   gallery_test.sh SOURCE_DIR BUILD_DIR
set -euo pipefail
src=$1
build=$2
out=$build/tests/gallery
browser=$(command -v chromium || true)
if [ -z "$browser" ]; then echo "chromium is not installed: skipped"; exit 77; fi

rm -rf "$out"
mkdir -p "$out"
MAKE_DNG="$build/tests/kovathumb_make_dng" "$src/scripts/make-samples.sh" "$out/samples" >/dev/null
mkdir -p "$out/samples/broken"
printf 'not a photo' >"$out/samples/broken/text.jpg"
head -c 300 "$(find "$out/samples" -name '*.png' | head -1)" >"$out/samples/broken/cut.png"
: >"$out/samples/broken/empty.heic"
"$build/tools/kovathumb" index --no-progress -j 2 "$out/samples" >/dev/null || true
export SERVE_DIR="$out/server" KOVATHUMB_CGI="$build/tools/kovathumb-cgi" KOVATHUMB_FCGI="$build/tools/kovathumb-fcgi"
url=$("$src/scripts/serve.sh" start "$out/samples" 0)
trap '"$src/scripts/serve.sh" stop' EXIT

run_browser() {
  timeout 120 "$browser" --headless --no-sandbox --disable-gpu --disable-background-networking \
    --disable-component-update --disable-sync --disable-quic --no-first-run \
    --user-data-dir="$out/profile-$1" --window-size=1400,1200 --virtual-time-budget=30000 "${@:2}" \
    2>>"$out/chromium.log"
}

dom=$(run_browser dom --dump-dom "${url}?eager=1&page=7")
status=$(grep -o '<p id="status"[^>]*>' <<<"$dom" || true)
echo "$status"
total=$(sed -n 's/.*data-total="\([0-9]*\)".*/\1/p' <<<"$status")
loaded=$(sed -n 's/.*data-loaded="\([0-9]*\)".*/\1/p' <<<"$status")
failed=$(sed -n 's/.*data-failed="\([0-9]*\)".*/\1/p' <<<"$status")
settled=$(sed -n 's/.*data-settled="\([a-z]*\)".*/\1/p' <<<"$status")
run_browser shot --screenshot="$out/gallery.png" "${url}?eager=1" >/dev/null
[ -s "$out/gallery.png" ] || { echo "no screenshot"; exit 1; }
echo "screenshot: $out/gallery.png"

[ "$settled" = yes ] || { echo "FAIL: the page did not settle"; exit 1; }
[ "${total:-0}" -ge 15 ] || { echo "FAIL: only ${total:-0} files listed"; exit 1; }
[ "$failed" = 3 ] || { echo "FAIL: $failed unavailable, not the 3 broken files"; exit 1; }
[ "$loaded" = $((total - 3)) ] || { echo "FAIL: $loaded of $((total - 3)) good thumbnails decoded"; exit 1; }
echo "1 passed, 0 failed"
