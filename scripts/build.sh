#!/usr/bin/env bash
# Configures and builds into ./build (or $BUILD_DIR); everything, or only
# the targets in $BUILD_TARGETS.
set -euo pipefail
cd "$(dirname "$0")/.."
BUILD_DIR=${BUILD_DIR:-build}
cmake -S . -B "$BUILD_DIR" -DCMAKE_BUILD_TYPE=${BUILD_TYPE:-RelWithDebInfo} "$@" >/dev/null
# shellcheck disable=SC2086
cmake --build "$BUILD_DIR" -j"$(nproc)" ${BUILD_TARGETS:+--target $BUILD_TARGETS}
