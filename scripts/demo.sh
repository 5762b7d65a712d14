#!/usr/bin/env bash
# The demo: installs, builds, makes a tree of sample photos (and a video),
# indexes it, and serves a gallery of it through lighttpd and kovathumb-fcgi
# (KOVATHUMB_ENDPOINT=cgi: kovathumb-cgi) on 127.0.0.1.
#
#   scripts/demo.sh [PORT]   start (default port 8080; 0 picks a free one)
#   scripts/demo.sh stop     stop the web server
#
# The web server and the endpoint run as the user who starts the demo. As
# root (the appliance's way) thumbnails are stored root-owned in the EA
# directories; the endpoint follows no link in the served tree, so users who write
# there cannot make root read or write outside it. serve.sh prints which
# user that is when it starts.
set -euo pipefail
cd "$(dirname "$0")/.."
if [ "${1:-}" = stop ]; then
  scripts/serve.sh stop
  echo "stopped"
  exit 0
fi
port=${1:-8080}
# Our own earlier demo may hold the port; anything else there is reported
# now, not after the build.
scripts/serve.sh stop
if [ "$port" != 0 ] && (exec 3<>"/dev/tcp/127.0.0.1/$port") 2>/dev/null; then
  echo "Port $port is in use. Pick another: scripts/demo.sh PORT (scripts/demo.sh 0 picks a free one)" >&2
  exit 1
fi
scripts/install-deps.sh
# Only what the demo runs: the programs and the sample maker.
BUILD_TARGETS="kovathumb_cli kovathumb_cgi kovathumb_fcgi kovathumb_make_dng" scripts/build.sh
rm -rf build/samples
samples=$(MAKE_DNG="$PWD/build/tests/kovathumb_make_dng" scripts/make-samples.sh build/samples)
echo "Sample tree: $samples"
build/tools/kovathumb index "$samples"
url=$(scripts/serve.sh start "$samples" "$port")
echo
echo "Gallery: $url"
echo "Stop the server with: scripts/demo.sh stop"
