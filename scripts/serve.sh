#!/usr/bin/env bash
# Starts or stops lighttpd serving the gallery page and the thumbnail
# endpoint at /thumb, on 127.0.0.1 only.
#
#   scripts/serve.sh start [ROOT [PORT]]   ROOT: photos to serve (build/samples)
#                                          PORT: default 8080; 0 picks a free one
#   scripts/serve.sh stop
#
# KOVATHUMB_ENDPOINT picks the endpoint: fcgi (default; kovathumb-fcgi, which
# lighttpd starts with KOVATHUMB_FCGI_WORKERS workers, 4 by default) or cgi
# (kovathumb-cgi, a process per request). SERVE_LOAD=1 also serves, for
# scripts/load.sh, both endpoints at /cgi-thumb and /fcgi-thumb and the root
# statically at /static.
#
# State (configuration, pid, error log, the FastCGI socket and the copies
# it hands over) lives in $SERVE_DIR (build/lighttpd). Prints the gallery's
# address on start.
#
# lighttpd, and so the endpoint, runs as the user who starts this script:
# on the appliance that is root, because the endpoint stores root-owned
# thumbnails into the EA directories of folders that users own. That is safe
# because it opens every request's path beneath the root without
# following any link and reads only the file it checked (the library follows
# no link inside EA directories either); see docs/RELIABILITY.md.
set -euo pipefail
cd "$(dirname "$0")/.."
top=$PWD
state=$(realpath -m "${SERVE_DIR:-$top/build/lighttpd}")
cgi=${KOVATHUMB_CGI:-$top/build/tools/kovathumb-cgi}
fcgi=${KOVATHUMB_FCGI:-$top/build/tools/kovathumb-fcgi}
endpoint=${KOVATHUMB_ENDPOINT:-fcgi}

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
    case "$endpoint" in cgi) bin=$cgi ;; fcgi) bin=$fcgi ;; *) echo "KOVATHUMB_ENDPOINT: cgi or fcgi" >&2; exit 2 ;; esac
    [ -x "$bin" ] || { echo "no $bin: build first" >&2; exit 1; }
    stop
    # The FastCGI copies handed over with X-Sendfile: ours alone.
    mkdir -p "$state"
    rm -rf "$state/sendfile"
    mkdir -m 0700 "$state/sendfile"
    # One FastCGI responder (its own supervisor of workers) per URL prefix.
    # The library forks a bounded child on every request: with every symbol
    # bound once at start (LD_BIND_NOW), no child binds them again.
    fastcgi() {
      printf '"%s" => (( "bin-path" => "%s", "socket" => "%s", "max-procs" => 1, "check-local" => "disable",
        "bin-environment" => ("KOVATHUMB_ROOT" => "%s", "KOVATHUMB_SENDFILE_DIR" => "%s", "KOVATHUMB_FCGI_WORKERS" => "%s", "LD_BIND_NOW" => "1"),
        "x-sendfile" => "enable", "x-sendfile-docroot" => ("%s") ))' \
        "$1" "$fcgi" "$state/fcgi$2.sock" "$root" "$state/sendfile" "${KOVATHUMB_FCGI_WORKERS:-4}" "$state/sendfile"
    }
    if [ "$endpoint" = fcgi ]; then
      endpoints="fastcgi.server = ($(fastcgi /thumb ""))"
    else
      endpoints="alias.url = (\"/thumb\" => \"$cgi\")
\$HTTP[\"url\"] =~ \"^/thumb\" { cgi.assign = (\"\" => \"\") }"
    fi
    if [ "${SERVE_LOAD:-0}" = 1 ]; then
      endpoints="fastcgi.server = ($(fastcgi /fcgi-thumb -load))
alias.url = (\"/cgi-thumb\" => \"$cgi\", \"/static/\" => \"$root/\")
\$HTTP[\"url\"] =~ \"^/cgi-thumb\" { cgi.assign = (\"\" => \"\") }"
    fi
    cat > "$state/lighttpd.conf" <<CONF
server.modules = ("mod_access", "mod_alias", "mod_cgi", "mod_fastcgi", "mod_setenv")
server.bind = "127.0.0.1"
server.port = $port
server.document-root = "$top/web"
server.pid-file = "$state/lighttpd.pid"
server.errorlog = "$state/error.log"
server.upload-dirs = ("$state")
index-file.names = ("index.html")
mimetype.assign = (".html" => "text/html; charset=utf-8", ".js" => "text/javascript",
                   ".css" => "text/css", ".svg" => "image/svg+xml", ".jpg" => "image/jpeg")
$endpoints
setenv.add-environment = ("KOVATHUMB_ROOT" => "$root")
CONF
    lighttpd -t -f "$state/lighttpd.conf" >/dev/null
    lighttpd -f "$state/lighttpd.conf"
    for _ in $(seq 1 50); do (exec 3<>/dev/tcp/127.0.0.1/$port) 2>/dev/null && break; sleep 0.1; done
    echo "kovathumb-$endpoint runs as $(id -un): it stores thumbnails as that user (root on the appliance); it follows no link in the tree, so that is safe" >&2
    echo "http://127.0.0.1:$port/"
    ;;
  stop) stop ;;
  *) echo "usage: $0 start [ROOT [PORT]] | stop" >&2; exit 2 ;;
esac
