#!/usr/bin/env bash
# Puts deliberate faults, one at a time, into a scratch copy of the tree,
# rebuilds it and runs the fast suite: every defence must have a test that
# fails without it. Lists the faults that survive and exits 1 if any does.
#
#   scripts/faults.sh [REGEX]   only the faults whose name or file matches
#
# The copy and its build stay in $FAULTS_DIR (build-faults/ by default) and
# are reused: a run rebuilds what each fault touches. The real tree is never
# edited. Not part of CI: a run takes about half a minute a fault.
#
# A fault is three lines, "F file :: name", "- old" and "+ new": `old` must
# occur exactly once in the file, or the run stops, so that a refactor that
# moves a defence is noticed. "\n" in old or new stands for a line break.
set -euo pipefail
top=$(cd "$(dirname "$0")/.." && pwd)
FAULTS_DIR=${FAULTS_DIR:-$top/build-faults}
scratch=$FAULTS_DIR/tree
build=$scratch/build
only=${1:-}
# The fast suite: unit tests and the end-to-end tests that reach defences;
# sweeps, soak tests and the browser are left out, and the FastCGI crash
# test, which a loaded machine fails now and then (a 500 after the kills).
slow='FcgiTest|BadInputTest.EmptyGarbage|BadInputTest.Directories|StressTest|WatchTest|CorpusTest|Gallery|Valgrind|FindPackage|InstallInto|PackageInstall|ExtractTest.CameraDng'
# The copy compiles from another directory: hits in the cache all the same.
export CCACHE_BASEDIR=${CCACHE_BASEDIR:-$top} CCACHE_NOHASHDIR=1
launcher=$(command -v ccache || true)

faults() {
  cat <<'EOF'
F src/thumb_info/probe.cpp :: a standard exception from Exiv2's preview readers fails the probe
- } catch (const std::exception&) {\n    return false;
+ } catch (const std::exception&) {\n    throw;
F src/util/safe_fs.cpp :: OpenRegular follows a link
- const int follow = IsPinned(path) ? 0 : O_NOFOLLOW;
+ const int follow = 0;
F src/util/safe_fs.cpp :: OpenRegularAt follows a link
- openat(dir, name.c_str(), O_PATH | O_NOFOLLOW | O_CLOEXEC)
+ openat(dir, name.c_str(), O_PATH | O_CLOEXEC)
F src/util/safe_fs.cpp :: our openers open a FIFO or device
- if (!S_ISREG(st->st_mode)) {
+ if (S_ISDIR(st->st_mode)) {
F src/util/safe_fs.cpp :: OpenDirBeneath (the EA directory) follows links
- kDirFlags = O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC;
+ kDirFlags = O_RDONLY | O_DIRECTORY | O_CLOEXEC;
F src/util/safe_fs.cpp :: a private work directory is removed without emptying it
- EmptyDir(fd_.get());
+
F src/util/safe_fs.cpp :: abandoned work directories are not emptied
- EmptyDir(dir.get());
+
F src/util/safe_fs.cpp :: the sweep clears a user's look-alike work directory
- st.st_uid != geteuid() || (st.st_mode & 077) != 0) continue;
+ false) continue;
F src/convert_cmd/tool_files.cpp :: tool work files are not created exclusively
- O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0600
+ O_WRONLY | O_CREAT | O_TRUNC | O_NOFOLLOW | O_CLOEXEC, 0600
F src/convert_cmd/convert_cmd.cpp :: the converter reads the source by its name, not the file that was probed
- if (input_ >= 0) src = "/proc/"
+ if (false) src = "/proc/"
F src/convert_cmd/tool_files.cpp :: the converter's input may be a FIFO
- (fstat(fd, &st) != 0 || !S_ISREG(st.st_mode))
+ fstat(fd, &st) != 0
F platform/src/filecopy.cpp :: the copy's temporary file is not created exclusively
- O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, st.st_mode & 07777
+ O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, st.st_mode & 07777
F platform/src/ea.cpp :: the platform follows a link to the EA directory
- O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC);
+ O_RDONLY | O_DIRECTORY | O_CLOEXEC);
F platform/src/exec.cpp :: children get no CPU limit
- cur.rlim_cur > cpu.rlim_cur) setrlimit(RLIMIT_CPU, &cpu);
+ cur.rlim_cur > cpu.rlim_cur) {}
F platform/src/exec.cpp :: children get no address-space limit
- cur.rlim_cur > as.rlim_cur) setrlimit(RLIMIT_AS, &as);
+ cur.rlim_cur > as.rlim_cur) {}
F platform/src/exec.cpp :: a child read through a pipe has no alarm of its own
- alarm(wall_seconds);
+ (void)wall_seconds;
F platform/src/exec.cpp :: ImageMagick's width limit is not handed down
- "MAGICK_WIDTH_LIMIT=16KP",
+
F platform/src/exec.cpp :: ImageMagick's memory limit is not handed down
- "MAGICK_MEMORY_LIMIT=256MiB",
+
F platform/src/exec.cpp :: ImageMagick's time limit is not handed down
- "MAGICK_TIME_LIMIT=60",
+
F platform/src/webfile_relay.cpp :: the relay follows a link
- (own ? 0 : O_NOFOLLOW)
+ 0
F src/http/fields.cpp :: If-Modified-Since is asked when If-None-Match does not match
- if (ifNoneMatch != nullptr) return TagMatches(ifNoneMatch, ETag(st));
+ if (ifNoneMatch != nullptr && TagMatches(ifNoneMatch, ETag(st))) return true;
F src/http/fields.cpp :: a date in the future validates
- since <= now &&
+ since == since &&
F src/libkovathumb/store.cpp :: an empty or broken result is stored
- if (!IsStorable(in.get(), st, info_.GetOutputMimeType())) {
+ if (false) {
F src/libkovathumb/store_rules.cpp :: a truncated JPEG is storable
- return jpegOut && JpegEnds(tail);
+ return jpegOut;
F src/libkovathumb/store_rules.cpp :: one box thumbnail too many is kept
- i >= kMaxBoxThumbs
+ i > kMaxBoxThumbs
F src/libkovathumb/store_rules.cpp :: box thumbnails stop a byte short of their bound
- bytes > kMaxBoxThumbBytes
+ bytes >= kMaxBoxThumbBytes
F src/libkovathumb/store_rules.cpp :: the box thumbnail just stored may be removed at once
- if (i > 0 && (i >= kMaxBoxThumbs
+ if ((i >= kMaxBoxThumbs
F src/libkovathumb/store.cpp :: import stores a thumbnail of another type
- if (ready.GetMimeType() != info_.GetOutputMimeType()) {
+ if (false) {
F src/thumb_info/thumb_info.cpp :: .heif sources never reach the HEIF probe
- ext == "heif" || ext == "heic"
+ ext == "heic"
F src/store/fresh.cpp :: a stored file larger than any thumbnail serves
- f.size <= 0 || f.size > MaxThumbBytes() ||
+ f.size <= 0 ||
F src/libkovathumb/destinations.cpp :: before the probe, the first of two fresh turns is taken
- if (!only.empty()) return false;
+ if (!only.empty()) continue;
F src/libkovathumb/destinations.cpp :: before the probe, a HEIF takes the other behaviour's turn
- if (type != "jpeg" && type != "png" && type != "gif" && type != "bmp" && type != "tiff") return false;
+ if (type.empty()) return false;
F src/libkovathumb/destinations.cpp :: a stored PNG found before the probe is sent as a JPEG
- if (served) pinned_->unprobedMime = store::MimeOfExt(n.ext);
+ (void)served;
F src/store/fresh.cpp :: quality mode serves a stored thumbnail larger than the box
- f.image.width <= box.width && f.image.height <= box.height;
+ f.image.width <= box.width * 2 && f.image.height <= box.height * 2;
F src/libkovathumb/quality_pixels.cpp :: quality mode mirrors about the wrong axis (in process)
- if (flop) ax = w1 - 1 - ax;
+ if (flop) ay = h1 - 1 - ay;
F src/libkovathumb/quality_tools.cpp :: quality mode mirrors about the wrong axis (ImageMagick)
- if (in.flop) args.push_back("-flop");
+ if (in.flop) args.push_back("-flip");
F src/libkovathumb/quality_tools.cpp :: quality mode keeps an embedded profile's colours unconverted
- {"-profile", kSrgbProfile, "-colorspace", "sRGB"}
+ {"-colorspace", "sRGB"}
F src/quality/decode_png.cpp :: the PNG decoder allocates a giant's rows before the pixel bound
- if (!WithinPixels(w, h, request.maxPixels, &in->why)) return false;
+ if (false) return false;
F src/quality/decode_png.cpp :: PNG rows are averaged with straight alpha (transparent edges darken)
- out->channels, out->channels == 4, 0, {}};
+ out->channels, false, 0, {}};
F tools/front_end/pin.cpp :: the front ends' walk follows links
- openat(cur, part.c_str(), kDirFlags | O_NOFOLLOW)
+ openat(cur, part.c_str(), kDirFlags)
F tools/front_end/pin.cpp :: the front ends' walk may climb out by ".."
- int next = part == ".." ? Fail(EXDEV) : openat(
+ int next = openat(
F tools/front_end/pin.cpp :: openat2 may cross a link that stays beneath the root
- RESOLVE_BENEATH | RESOLVE_NO_SYMLINKS | RESOLVE_NO_MAGICLINKS
+ RESOLVE_BENEATH | RESOLVE_NO_MAGICLINKS
F tools/front_end/pin.cpp :: openat2 may leave the root
- RESOLVE_BENEATH | RESOLVE_NO_SYMLINKS | RESOLVE_NO_MAGICLINKS
+ RESOLVE_NO_SYMLINKS | RESOLVE_NO_MAGICLINKS
F tools/front_end/pin.cpp :: a request's path may pass through the EA directory
- if (IsEADirName(part)) return EPERM;
+
F tools/front_end/pin.cpp :: a FIFO is pinned as a source
- } else if (!S_ISREG(st.st_mode)) {
+ } else if (S_ISLNK(st.st_mode) || S_ISDIR(st.st_mode)) {
F tools/front_end/pin.cpp :: a path given on the command line may be a link
- S_ISLNK(st.st_mode)) {\n    close(dirfd);\n    return ELOOP;
+ false) {\n    close(dirfd);\n    return ELOOP;
F tools/front_end/tree.cpp :: lists and index do not skip the EA directory
- && !IsEADirName(name)) names.push_back(name);
+ ) names.push_back(name);
F tools/fcgi/responder.cpp :: the hand-over copy starts two bytes late
- off_t offset = 0;
+ off_t offset = 2;
F tools/fcgi/responder.cpp :: a hand-over copy of another length is handed again
- S_ISREG(st.st_mode) && st.st_size == before.st_size;
+ S_ISREG(st.st_mode);
F src/store/ea.cpp :: prune and watch follow a link planted in an EA directory
- kPathFlags = O_PATH | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC;
+ kPathFlags = O_PATH | O_DIRECTORY | O_CLOEXEC;
F src/sandbox/sandbox.cpp :: the sandbox keeps root
- setresuid(a.uid, a.uid, a.uid) != 0) {
+ false) {
F src/sandbox/sandbox.cpp :: the sandbox's filter lets sockets through
- SCMP_SYS(socket), SCMP_SYS(socketpair), SCMP_SYS(connect),
+ SCMP_SYS(socketpair),
F src/sandbox/sandbox.cpp :: the sandbox skips no_new_privs
- if (prctl(PR_SET_NO_NEW_PRIVS, 1, 0, 0, 0) == 0) applied |= kNoNewPrivs;
+ applied |= kNoNewPrivs;
F tools/kovathumb/workers.cpp :: a failed video screenshot leaves its EA directory behind
- store::RemoveIfEmpty(ea.get(), pinned.Base());
+
F src/quality/decode_raw.cpp :: every LibRaw preview reader trusted
- if (thumb_load_raw != nullptr) return false;
+ return true;
F src/sandbox/sandbox.cpp :: a child installs none of the filter it was compiled
- return prctl(PR_SET_SECCOMP, SECCOMP_MODE_FILTER, &program, 0, 0) == 0;
+ return true;
F src/sandbox/sandbox.cpp :: a child that opens nothing may fork
- ok = ok && seccomp_rule_add(ctx, refuse, SCMP_SYS(clone), 1,\n                                SCMP_A0(SCMP_CMP_MASKED_EQ, CLONE_THREAD, 0)) == 0;
+
F src/sandbox/sandbox.cpp :: a child that opens nothing sees the whole file view
- if (spec.opensNothing) {  // nothing in it
+ if (false) {
F tools/front_end/tree.cpp :: watch lists a new folder before its watch is added
- if (enter) enter(folder);\n    const std::vector<Entry> entries = ReadEntries(folder.fd);
+ const std::vector<Entry> entries = ReadEntries(folder.fd);\n    if (enter) enter(folder);
EOF
}

# Applies fault number $1 of the list to the scratch copy; "list" lists
# them, "check" checks that each pattern matches once.
read -r -d '' APPLY <<'PY' || true
import sys
n, root = sys.argv[1], sys.argv[2]
rows, cur = [], None
for line in sys.stdin.read().splitlines():
    tag, rest = (line + " ")[:2], line[2:]
    if tag == "F ":
        cur = dict(zip(("file", "name"), rest.split(" :: ", 1)))
        rows.append(cur)
    elif tag in ("- ", "+ "):
        cur["old" if tag == "- " else "new"] = rest.replace("\\n", "\n")
    else:
        sys.exit("faults.sh: bad line: " + line)
def count(r):
    return open(root + "/" + r["file"]).read().count(r["old"])
if n == "list":
    for i, r in enumerate(rows, 1):
        print(i, r["file"], "::", r["name"])
elif n == "check":
    bad = ["%s: %r occurs %d times (%s)" % (r["file"], r["old"], count(r), r["name"]) for r in rows if count(r) != 1]
    sys.exit("\n".join("faults.sh: " + b for b in bad) if bad else 0)
else:
    r = rows[int(n) - 1]
    if count(r) != 1:
        sys.exit("faults.sh: %s: %r occurs %d times (%s)" % (r["file"], r["old"], count(r), r["name"]))
    path = root + "/" + r["file"]
    text = open(path).read()
    open(path, "w").write(text.replace(r["old"], r["new"]))
PY
apply() { faults | python3 -c "$APPLY" "$1" "$scratch"; }

# All of it read before it runs: the script may be edited meanwhile.
main() {
  mkdir -p "$scratch"
  # The copy: the tree's files as they stand, committed or not.
  (cd "$top" && git ls-files -co --exclude-standard -z) | while IFS= read -r -d '' f; do
    if ! cmp -s "$top/$f" "$scratch/$f" 2>/dev/null; then
      mkdir -p "$scratch/$(dirname "$f")"
      cp "$top/$f" "$scratch/$f"  # a new time: built again
    fi
  done
  [ -f "$build/CMakeCache.txt" ] ||
    cmake -S "$scratch" -B "$build" -DCMAKE_BUILD_TYPE=RelWithDebInfo ${launcher:+-DCMAKE_CXX_COMPILER_LAUNCHER=$launcher} >/dev/null

  run_suite() {
    cmake --build "$build" -j2 >"$FAULTS_DIR/build.log" 2>&1 || return 2
    (cd "$build" && ctest -j3 --stop-on-failure --output-on-failure -E "$slow" -LE package >"$FAULTS_DIR/test.log" 2>&1) || return 1
  }

  list=$(apply list)
  # Every pattern must still match, before anything is built.
  apply check
  echo "faults.sh: the suite without faults"
  run_suite </dev/null || { echo "faults.sh: the suite fails without any fault (see $FAULTS_DIR/*.log)"; exit 2; }

  survived=() broken=() tried=0
  while read -r n file sep name; do
    line="$file $sep $name"
    if [ -n "$only" ] && ! grep -qE -- "$only" <<<"$line"; then continue; fi
    tried=$((tried + 1))
    saved=$(mktemp)
    cp -p "$scratch/$file" "$saved"
    if ! apply "$n"; then
      broken+=("$line (pattern)")
      rm -f "$saved"
      continue
    fi
    status=0
    run_suite </dev/null || status=$?
    # Back as it was, with a new time so that it is built again.
    cp "$saved" "$scratch/$file"
    rm -f "$saved"
    case $status in
      0) survived+=("$line"); echo "SURVIVED  $line" ;;
      1) cp "$FAULTS_DIR/test.log" "$FAULTS_DIR/fault-$n.log"
       echo "caught    $line (by $(sed -n '/tests FAILED:/,${s/^[[:space:]]*[0-9]* - //p}' "$FAULTS_DIR/test.log" | sed 's/ (.*//' | paste -sd' '))" ;;
      *) broken+=("$line (does not build)"); echo "BROKEN    $line" ;;
    esac
  done <<<"$list"

  echo "faults.sh: $tried faults, ${#survived[@]} survived, ${#broken[@]} broken"
  for s in "${survived[@]}" "${broken[@]}"; do echo "  $s"; done
  [ ${#survived[@]} -eq 0 ] && [ ${#broken[@]} -eq 0 ]
}
main "$@"; exit $?
