#!/usr/bin/env bash
# Installs the dependencies, builds, and runs the whole test suite.
set -euo pipefail
cd "$(dirname "$0")/.."
scripts/install-deps.sh
scripts/build.sh
cd "${BUILD_DIR:-build}"
ctest --output-on-failure -j"$(nproc)"
