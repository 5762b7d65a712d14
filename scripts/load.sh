#!/usr/bin/env bash
# A bounded load run against lighttpd + kovathumb-cgi on 127.0.0.1: cached
# thumbnails, then thumbnails made on every request. Prints wrk's figures
# and the count of non-2xx answers.
#   scripts/load.sh [SECONDS]   (at most 30; default 15)
set -euo pipefail
cd "$(dirname "$0")/.."
secs=${1:-15}
[ "$secs" -gt 30 ] && secs=30
command -v wrk >/dev/null || { echo "wrk is not installed (scripts/install-deps.sh)"; exit 1; }
out=build/load
rm -rf "$out"
samples=$(MAKE_DNG="$PWD/build/tests/kovathumb_make_dng" scripts/make-samples.sh "$out/samples")
build/tools/kovathumb index --no-progress "$samples" >/dev/null
export SERVE_DIR=$out/server
url=$(scripts/serve.sh start "$samples" 0)
trap 'scripts/serve.sh stop' EXIT
cat > "$out/uncached.lua" <<'LUA'
-- Every request a box not made before: a conversion each time.
counter = 0
request = function()
  counter = counter + 1
  local w = 100 + (counter % 500)
  return wrk.format("GET", "/thumb?path=orientation-6.jpg&w=" .. w .. "&h=" .. (w + 7))
end
LUA
cat > "$out/report.lua" <<'LUA'
done = function(summary, latency, requests)
  local errors = summary.errors.status + summary.errors.connect + summary.errors.read + summary.errors.write + summary.errors.timeout
  io.write(string.format("requests %d, failed %d, %.1f req/s, latency p50 %.1f ms, p90 %.1f ms, p99 %.1f ms, max %.1f ms\n",
    summary.requests, errors, summary.requests / (summary.duration / 1e6),
    latency:percentile(50) / 1000, latency:percentile(90) / 1000, latency:percentile(99) / 1000, latency.max / 1000))
end
LUA
echo "cached (medium of a photo, served from its EA directory), ${secs}s, 2 threads, 8 connections:"
wrk -t2 -c8 -d"${secs}s" -s "$out/report.lua" "${url}thumb?path=orientation-6.jpg&size=medium" | tail -1
cat "$out/uncached.lua" "$out/report.lua" > "$out/uncached-report.lua"
echo "uncached (a new box every request, converted on the spot), ${secs}s, 2 threads, 4 connections:"
wrk -t2 -c4 -d"${secs}s" --timeout 30s -s "$out/uncached-report.lua" "$url" | tail -1
