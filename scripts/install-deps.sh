#!/usr/bin/env bash
# Installs what building, testing and the demo need, from Debian's packages.
set -euo pipefail
# Callers print results on standard output; the package manager talks on standard error.
exec 1>&2

packages=(
  cmake g++ make pkg-config help2man
  libexiv2-dev libheif-dev libpng-dev libwebp-dev libjxl-dev libraw-dev liblcms2-dev libjpeg62-turbo-dev
  libcli11-dev nlohmann-json3-dev libgtest-dev libseccomp-dev
  imagemagick libjpeg-turbo-progs dcraw colord-data
  exiv2 libheif-examples libjxl-tools webp libimage-exiftool-perl libvips-tools
  lighttpd libfcgi-dev ffmpeg chromium curl
  clang libclang-rt-14-dev valgrind wrk
)

SUDO=""
[ "$(id -u)" -ne 0 ] && SUDO="sudo"
# The account parsers and tools run as (the package makes it on the appliance).
getent passwd kovathumb-sandbox >/dev/null ||
  $SUDO useradd --system --user-group --no-create-home --home-dir /nonexistent --shell /usr/sbin/nologin \
    kovathumb-sandbox

missing=()
for p in "${packages[@]}"; do
  dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q "ok installed" || missing+=("$p")
done
[ ${#missing[@]} -eq 0 ] && exit 0

export DEBIAN_FRONTEND=noninteractive
$SUDO apt-get update -qq
$SUDO apt-get install -y -qq --no-install-recommends "${missing[@]}"
