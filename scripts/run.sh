#!/usr/bin/env bash
# Installs what is missing, builds, and runs the agent in the foreground.
set -euo pipefail
cd "$(dirname "$0")/.."
./scripts/deps.sh
./scripts/build.sh build
exec ./build/varlo nodaemon
