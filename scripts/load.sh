#!/usr/bin/env bash
# A bounded load run on 127.0.0.1, in one lighttpd: a stored thumbnail from
# kovathumb-fcgi, from kovathumb-cgi and, for scale, the same file served
# statically, and 200 stored thumbnails in turn (a gallery) both ways; then
# thumbnails made on every request by both endpoints.
# Prints the figures side by side: rate, latency, and the server's CPU time
# per request (lighttpd and everything under it), which the other loads on
# a shared machine disturb least; then the load average and the FastCGI
# workers' resident memory.
#   scripts/load.sh [SECONDS]   (per run, at most 30; default 10)
set -euo pipefail
cd "$(dirname "$0")/.."
secs=${1:-10}
[ "$secs" -gt 30 ] && secs=30
command -v wrk >/dev/null || { echo "wrk is not installed (scripts/install-deps.sh)"; exit 1; }
out=build/load
rm -rf "$out"
samples=$(MAKE_DNG="$PWD/build/tests/kovathumb_make_dng" scripts/make-samples.sh "$out/samples")
build/tools/kovathumb index --no-progress "$samples" >/dev/null
photo=photo.jpg
stored=$(cd "$samples" && find . -path "*/$photo/*_M.jpg" | head -1)
[ -n "$stored" ] || { echo "no stored medium thumbnail of $photo"; exit 1; }
# A gallery: 200 photos with their thumbnails stored (copies of the one
# above, its stored files along), asked for in turn.
ea=$(dirname "$stored")
mkdir -p "$samples/gallery/$(dirname "$ea")"
for i in $(seq 1 200); do
  cp -p "$samples/$photo" "$samples/gallery/p$i.jpg"
  cp -a "$samples/$ea" "$samples/gallery/$(dirname "$ea")/p$i.jpg"
done
cat > "$out/gallery.lua" <<'LUA'
counter = 0
request = function()
  counter = counter + 1
  return wrk.format("GET", (string.gsub(wrk.path, "@", tostring(counter % 200 + 1))))
end
LUA
export SERVE_DIR=$out/server SERVE_LOAD=1 KOVATHUMB_FCGI_WORKERS=${KOVATHUMB_FCGI_WORKERS:-4}
url=$(scripts/serve.sh start "$samples" 0)
trap 'scripts/serve.sh stop' EXIT

cat > "$out/report.lua" <<'LUA'
done = function(summary, latency, requests)
  local errors = summary.errors.status + summary.errors.connect + summary.errors.read + summary.errors.write + summary.errors.timeout
  io.write(string.format("%.0f\t%.2f\t%.2f\t%.2f\t%d\t%d\n", summary.requests / (summary.duration / 1e6),
    latency:percentile(50) / 1000, latency:percentile(99) / 1000, latency.max / 1000, summary.requests, errors))
end
LUA
# Every request a box not made before: a conversion each time.
cat > "$out/uncached.lua" <<'LUA'
counter = 0
request = function()
  counter = counter + 1
  local w = 100 + (counter % 500)
  return wrk.format("GET", wrk.path .. "&w=" .. w .. "&h=" .. (w + 7))
end
LUA
cat "$out/uncached.lua" "$out/report.lua" > "$out/uncached-report.lua"
cat "$out/gallery.lua" "$out/report.lua" > "$out/gallery-report.lua"

# CPU clock ticks of the server: lighttpd and every process under it, with
# the children each has reaped (the CGI processes, the tools).
server_ticks() {
  local pids=() next=("$(cat "$SERVE_DIR/lighttpd.pid")") total=0 p
  while [ ${#next[@]} -gt 0 ]; do
    pids+=("${next[@]}")
    mapfile -t next < <(for p in "${next[@]}"; do pgrep -P "$p"; done)
  done
  for p in "${pids[@]}"; do
    total=$((total + $(awk '{print $14+$15+$16+$17}' "/proc/$p/stat" 2>/dev/null || echo 0)))
  done
  echo "$total"
}
# run LABEL CONNECTIONS SCRIPT PATH: one wrk run, one row of the table; the
# first run's rate is the one the others are a fraction of.
static_rate=
run() {
  local before row after rate
  before=$(server_ticks)
  row=$(wrk -t2 -c"$2" -d"${secs}s" --timeout 30s -s "$3" "$url${4#/}" | tail -1)
  after=$(server_ticks)
  rate=$(echo "$row" | cut -f1)
  static_rate=${static_rate:-$rate}
  printf '%-40s %8s %8s %8s %8s %9s %6s %8s %8s\n' "$1" $(echo "$row" | cut -f1-6) \
    "$(echo "$before $after $(echo "$row" | cut -f5)" | awk -v hz="$(getconf CLK_TCK)" '{printf "%.2f", 1000*($2-$1)/hz/($3>0?$3:1)}')" \
    "$(awk -v r="$rate" -v s="$static_rate" 'BEGIN {printf "%.3f", (s > 0 ? r / s : 0)}')"
}

echo "machine: $(nproc) CPUs, load average $(cut -d' ' -f1-3 /proc/loadavg) before the runs; ${secs}s a run, 2 wrk threads"
printf '%-40s %8s %8s %8s %8s %9s %6s %8s %8s\n' "" "req/s" "p50 ms" "p99 ms" "max ms" "requests" "failed" "CPU ms" "x static"
query="path=$photo&size=medium&quality=0"
run "stored, static file (8 conn.)" 8 "$out/report.lua" "/static/${stored#./}"
run "stored, kovathumb-fcgi (8 conn.)" 8 "$out/report.lua" "/fcgi-thumb?$query"
run "quality stored, kovathumb-fcgi (8 conn.)" 8 "$out/report.lua" "/fcgi-thumb?path=$photo&size=medium"
run "stored, kovathumb-cgi (8 conn.)" 8 "$out/report.lua" "/cgi-thumb?$query"
run "gallery of 200, static (8 conn.)" 8 "$out/gallery-report.lua" "/static/gallery/$(dirname "${ea#./}")/p@.jpg/$(basename "$stored")"
run "gallery of 200, kovathumb-fcgi (8 conn.)" 8 "$out/gallery-report.lua" "/fcgi-thumb?path=gallery/p@.jpg&size=medium"
run "uncached, kovathumb-fcgi (4 conn.)" 4 "$out/uncached-report.lua" "/fcgi-thumb?path=$photo"
run "uncached, kovathumb-cgi (4 conn.)" 4 "$out/uncached-report.lua" "/cgi-thumb?path=$photo"
echo "load average after: $(cut -d' ' -f1-3 /proc/loadavg)"
supervisor=$(pgrep -P "$(cat "$SERVE_DIR/lighttpd.pid")" -x kovathumb-fcgi | head -1)
echo "kovathumb-fcgi workers' resident memory (KiB): $(ps -o rss= --ppid "$supervisor" | tr -s ' \n' ' ')"
