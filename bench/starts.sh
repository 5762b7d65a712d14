#!/usr/bin/env bash
# What the process starts of the per-photo tool path cost, which the
# in-process pipeline removed: djpeg, cjpeg and convert started on a tiny
# image (CPU of user and system per start, from a loop of N), and a sandbox
# child around a start (kovathumb_micro's BM_ToolStart). Prints a markdown
# table.
#   bench/starts.sh [BUILD_DIR] [N]
set -euo pipefail
cd "$(dirname "$0")/.."
B=$(cd "${1:-build-bench}" && pwd)
N=${2:-300}
d=$(mktemp -d /tmp/kovathumb-starts.XXXXXX)
trap 'rm -rf "$d"' EXIT
/usr/bin/convert -size 16x16 xc:red "$d/t.jpg"
/usr/bin/convert -size 16x16 xc:red "$d/t.ppm"
per() {  # per LABEL CMD...: CPU ms per start over N starts
  local t0 t1
  t0=$(awk '{ print $14 + $15 + $16 + $17 }' /proc/$$/stat)
  for _ in $(seq "$N"); do "${@:2}" >/dev/null 2>&1; done
  t1=$(awk '{ print $14 + $15 + $16 + $17 }' /proc/$$/stat)
  printf '| %s | %.2f |\n' "$1" "$(awk -v a="$t0" -v b="$t1" -v n="$N" -v hz="$(getconf CLK_TCK)" \
    'BEGIN { print (b - a) * 1000 / hz / n }')"
}
echo "| start | CPU ms per start |"
echo "|---|---:|"
per "djpeg -scale 1/8, 16 x 16 JPEG" djpeg -scale 1/8 -outfile "$d/o.ppm" "$d/t.jpg"
per "cjpeg -quality 85, 16 x 16 PPM" cjpeg -quality 85 -outfile "$d/o.jpg" "$d/t.ppm"
per "convert, 16 x 16 JPEG to JPEG (ImageMagick)" /usr/bin/convert "$d/t.jpg" -strip "$d/o2.jpg"
per "/bin/true (fork and exec alone)" /bin/true
"$B/bench/kovathumb_micro" --benchmark_filter=ToolStart 2>/dev/null |
  awk '/BM_ToolStart\/0/ { for (i = 1; i <= NF; ++i) if ($i ~ /child_cpu_ms=/) { sub("child_cpu_ms=", "", $i); printf "| spawn of /bin/true from our process | %.2f |\n", $i } }
       /BM_ToolStart\/1/ { for (i = 1; i <= NF; ++i) if ($i ~ /child_cpu_ms=/) { sub("child_cpu_ms=", "", $i); printf "| sandbox::RunTool of /bin/true (the sandbox child around every tool) | %.2f |\n", $i } }'
echo
echo "Machine: $(nproc) cores, $(sed -n 's/^model name\s*: //p' /proc/cpuinfo | head -1); load average $(cut -d' ' -f1-3 /proc/loadavg)."
