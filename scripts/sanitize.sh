#!/usr/bin/env bash
# Builds everything with AddressSanitizer and UndefinedBehaviorSanitizer and
# runs the whole test suite on it. Any report fails the run.
set -euo pipefail
cd "$(dirname "$0")/.."
top=$PWD
BUILD_DIR=build-asan BUILD_TYPE=RelWithDebInfo scripts/build.sh -DKOVATHUMB_BUILD_BENCH=OFF \
  "-DCMAKE_CXX_FLAGS=-fsanitize=address,undefined -fno-sanitize-recover=undefined -fno-omit-frame-pointer" \
  "-DCMAKE_EXE_LINKER_FLAGS=-fsanitize=address,undefined" "-DCMAKE_SHARED_LINKER_FLAGS=-fsanitize=address,undefined" \
  "-DCMAKE_MODULE_LINKER_FLAGS=-fsanitize=address,undefined"
export ASAN_OPTIONS=detect_leaks=1:abort_on_error=0:halt_on_error=1
export UBSAN_OPTIONS=print_stacktrace=1:halt_on_error=1
export LSAN_OPTIONS=suppressions=$top/scripts/lsan.supp:print_suppressions=0
cd build-asan
# A consumer program built without the sanitizers cannot load a sanitized
# library: the install tests belong to the plain build.
ctest --output-on-failure -j"$(nproc)" -E '^(InstallIntoPrefix|FindPackage-.*)$'
