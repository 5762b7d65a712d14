#!/usr/bin/env bash
# kovathumb get and kovathumb index over a sample tree under valgrind: no
# memory error and no definite leak of ours.
#   valgrind_test.sh SOURCE_DIR BUILD_DIR
set -euo pipefail
src=$1
build=$2
command -v valgrind >/dev/null || { echo "valgrind is not installed: skipped"; exit 77; }
if ldd "$build/tools/kovathumb" | grep -q libasan; then echo "sanitizer build: skipped"; exit 77; fi
out=$build/tests/valgrind
rm -rf "$out"
mkdir -p "$out"
MAKE_DNG="$build/tests/kovathumb_make_dng" "$src/scripts/make-samples.sh" "$out/samples" >/dev/null
vg=(valgrind --error-exitcode=99 --leak-check=full --errors-for-leak-kinds=definite --show-leak-kinds=definite
    --suppressions="$src/scripts/valgrind.supp" --quiet)
K=$build/tools/kovathumb
for f in orientation-6.jpg photo.heic camera.dng anim.gif; do
  "${vg[@]}" "$K" get big "$out/samples/$f" >/dev/null 2>"$out/get-$f.log" ||
    { [ $? = 99 ] && { cat "$out/get-$f.log"; echo "FAIL: get $f"; exit 1; }; }
done
"${vg[@]}" --trace-children=no "$K" index --no-progress -j 2 "$out/samples" >/dev/null 2>"$out/index.log" ||
  { [ $? = 99 ] && { cat "$out/index.log"; echo "FAIL: index"; exit 1; }; }
echo "1 passed, 0 failed"
