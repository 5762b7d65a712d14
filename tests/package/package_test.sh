#!/usr/bin/env bash
# Builds the Debian packages for a /usr install, installs them on this
# machine with apt-get, and checks what a new user and a library consumer
# meet first: kovathumb --version, the manual pages, the pkg-config flags,
# a program built with pkg-config and one built with CMake. Removes the
# packages again. Needs root. It changes the machine, so it runs only when
# asked: KOVATHUMB_PACKAGE_TEST=1 ctest -L package (as .ci/run does).
#   package_test.sh SOURCE_DIR BUILD_DIR
set -euo pipefail
src=$1
out=$2/package-test
[ "${KOVATHUMB_PACKAGE_TEST:-0}" = 1 ] || { echo "set KOVATHUMB_PACKAGE_TEST=1 to run: skipped"; exit 77; }
[ "$(id -u)" = 0 ] || { echo "needs root to install packages: skipped"; exit 77; }
command -v apt-get >/dev/null || { echo "no apt-get: skipped"; exit 77; }
multiarch=$(dpkg-architecture -qDEB_HOST_MULTIARCH 2>/dev/null || gcc -print-multiarch)

# The package build is kept between runs: it is rebuilt incrementally.
rm -rf "$out/consumer" "$out"/build/*.deb
mkdir -p "$out/consumer"
cmake -S "$src" -B "$out/build" -DCMAKE_BUILD_TYPE=RelWithDebInfo -DCMAKE_INSTALL_PREFIX=/usr \
  -DCMAKE_INSTALL_LIBDIR="lib/$multiarch" -DKOVATHUMB_BUILD_TESTS=OFF -DKOVATHUMB_BUILD_BENCH=OFF \
  ${CMAKE_CXX_COMPILER_LAUNCHER:+-DCMAKE_CXX_COMPILER_LAUNCHER=$CMAKE_CXX_COMPILER_LAUNCHER} >/dev/null
cmake --build "$out/build" -j"$(nproc)" >/dev/null
(cd "$out/build" && cpack -G DEB >"$out/cpack.log" 2>&1) || { cat "$out/cpack.log"; exit 1; }
debs=("$out"/build/*.deb)
echo "packages: ${debs[*]##*/}"
[ ${#debs[@]} = 4 ] || { echo "FAIL: expected 4 packages"; exit 1; }

packages=$(for d in "${debs[@]}"; do dpkg-deb -f "$d" Package; done)
remove() { apt-get purge -y -qq $packages >/dev/null 2>&1 || true; }
trap remove EXIT
(cd "$out/build" && DEBIAN_FRONTEND=noninteractive apt-get install -y -qq -o DPkg::Lock::Timeout=300 \
  $(printf './%s ' "${debs[@]##*/}") >"$out/apt.log" 2>&1) || { cat "$out/apt.log"; exit 1; }

fail() { echo "FAIL: $*"; exit 1; }
version=$(sed -n 's/^project(kovathumb VERSION \([0-9.]*\).*/\1/p' "$src/CMakeLists.txt")
[ "$(/usr/bin/kovathumb --version)" = "kovathumb $version" ] || fail "kovathumb --version"
for prog in kovathumb-cgi kovathumb-fcgi; do
  [ "$(/usr/bin/$prog --version)" = "$prog $version" ] || fail "$prog --version"
done
for page in kovathumb kovathumb-cgi kovathumb-fcgi; do
  [ -f "/usr/share/man/man1/$page.1.gz" ] || [ -f "/usr/share/man/man1/$page.1" ] || fail "no manual page $page"
done
ls /usr/lib/"$multiarch"/kovathumb/"$version"/libkovathumb_heif.so >/dev/null || fail "HEIF module"
[ -f /usr/share/kovathumb/web/index.html ] || fail "web files"
[ -f /etc/lighttpd/conf-available/50-kovathumb.conf ] || fail "web server configuration"
[ "$(realpath -m "$(pkg-config --variable=includedir kovathumb)")" = /usr/include ] || fail "pkg-config includedir"
[ "$(realpath -m "$(pkg-config --variable=libdir kovathumb)")" = "/usr/lib/$multiarch" ] || fail "pkg-config libdir"
! nm -DC --defined-only /usr/lib/"$multiarch"/libkovathumb.so."${version%%.*}" |
  grep -E 'Thumb::(Fail|SetOutStored|ProbeFacts)\(|ThumbInfo::SizeLetter' || fail "private members exported"
grep -q cxx_std_17 /usr/lib/"$multiarch"/cmake/kovathumb/kovathumbTargets.cmake || fail "no C++17 on the target"

cat >"$out/consumer/main.cpp" <<'CPP'
#include <kovathumb/thumb.h>
#include <kovathumb/version.h>

#include <cstdio>
#include <cstring>
#include <vector>

int main() {
  std::vector<std::string> sizes = {"small"};
  int (kovathumb::Thumb::*convert)(const std::vector<std::string>&) = &kovathumb::Thumb::Convert;
  (void)convert;
  std::printf("%s\n", kovathumb::Version());
  return std::strcmp(kovathumb::Version(), KOVATHUMB_VERSION_STRING) == 0 ? 0 : 1;
}
CPP
cat >"$out/consumer/CMakeLists.txt" <<'CMAKE'
cmake_minimum_required(VERSION 3.18)
project(consumer CXX)
find_package(kovathumb REQUIRED)
add_executable(consumer main.cpp)
target_link_libraries(consumer PRIVATE kovathumb::kovathumb)
CMAKE
# shellcheck disable=SC2046
g++ -std=c++17 -o "$out/consumer/by-pkg-config" "$out/consumer/main.cpp" $(pkg-config --cflags --libs kovathumb)
[ "$("$out/consumer/by-pkg-config")" = "$version" ] || fail "pkg-config consumer"
cmake -S "$out/consumer" -B "$out/consumer/build" >/dev/null
cmake --build "$out/consumer/build" >/dev/null
[ "$("$out/consumer/build/consumer")" = "$version" ] || fail "CMake consumer"
echo "1 passed, 0 failed"
