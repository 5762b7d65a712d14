#!/usr/bin/env bash
# Installs, builds, makes the sample photos and shows what the library
# reads from each of them.
set -euo pipefail
cd "$(dirname "$0")/.."
scripts/install-deps.sh
scripts/build.sh
samples=$(scripts/make-samples.sh build/samples)
build/tools/kovathumb info --size big "$samples"/*
