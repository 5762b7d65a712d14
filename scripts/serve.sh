#!/usr/bin/env bash
# Starts or stops lighttpd serving the gallery page and kovathumb-cgi, on
# 127.0.0.1 only.
#
#   scripts/serve.sh start [ROOT [PORT]]   ROOT: photos to serve (build/samples)
#                                          PORT: default 8080; 0 picks a free one
#   scripts/serve.sh stop
#
# State (configuration, pid, error log) lives in $SERVE_DIR (build/lighttpd).
# Prints the gallery's address on start.
#
# lighttpd, and so kovathumb-cgi, runs as the user who starts this script:
# on the appliance that is root, because the CGI stores root-owned
# thumbnails into the EA directories of folders that users own. That is safe
# because the CGI opens every request's path beneath the root without
# following any link and reads only the file it checked (the library follows
# no link inside EA directories either); see docs/RELIABILITY.md.
set -euo pipefail
cd "$(dirname "$0")/.."
top=$PWD
state=$(realpath -m "${SERVE_DIR:-$top/build/lighttpd}")
cgi=${KOVATHUMB_CGI:-$top/build/tools/kovathumb-cgi}

free_port() {
  for _ in $(seq 1 50); do
    p=$(( 20000 + RANDOM % 40000 ))
    if ! (exec 3<>/dev/tcp/127.0.0.1/$p) 2>/dev/null; then echo "$p"; return; fi
  done
  return 1
}

stop() {
  if [ -f "$state/lighttpd.pid" ]; then
    pid=$(cat "$state/lighttpd.pid")
    kill "$pid" 2>/dev/null || true
    for _ in $(seq 1 50); do kill -0 "$pid" 2>/dev/null || break; sleep 0.1; done
    rm -f "$state/lighttpd.pid"
  fi
}

case "${1:-}" in
  start)
    root=$(realpath "${2:-build/samples}")
    port=${3:-8080}
    [ "$port" = 0 ] && port=$(free_port)
    [ -x "$cgi" ] || { echo "no $cgi: build first" >&2; exit 1; }
    stop
    mkdir -p "$state"
    cat > "$state/lighttpd.conf" <<CONF
server.modules = ("mod_access", "mod_alias", "mod_cgi", "mod_setenv")
server.bind = "127.0.0.1"
server.port = $port
server.document-root = "$top/web"
server.pid-file = "$state/lighttpd.pid"
server.errorlog = "$state/error.log"
server.upload-dirs = ("$state")
index-file.names = ("index.html")
mimetype.assign = (".html" => "text/html; charset=utf-8", ".js" => "text/javascript",
                   ".css" => "text/css", ".svg" => "image/svg+xml")
alias.url = ("/thumb" => "$cgi")
\$HTTP["url"] =~ "^/thumb" { cgi.assign = ("" => "") }
setenv.add-environment = ("KOVATHUMB_ROOT" => "$root")
CONF
    lighttpd -t -f "$state/lighttpd.conf" >/dev/null
    lighttpd -f "$state/lighttpd.conf"
    for _ in $(seq 1 50); do (exec 3<>/dev/tcp/127.0.0.1/$port) 2>/dev/null && break; sleep 0.1; done
    echo "kovathumb-cgi runs as $(id -un): it stores thumbnails as that user (root on the appliance); it follows no link in the tree, so that is safe" >&2
    echo "http://127.0.0.1:$port/"
    ;;
  stop) stop ;;
  *) echo "usage: $0 start [ROOT [PORT]] | stop" >&2; exit 2 ;;
esac
