#!/usr/bin/env bash
# Sets up a fresh Debian machine (run as root to install the packages), builds align, installs
# it into ./install with its help texts, and shows the start-up help found through QOR_HOME.
set -euo pipefail
top="$(cd "$(dirname "$0")/.." && pwd)"
build="$(bash "$top/scripts/setup.sh" | tee /dev/stderr | tail -n 1)"
cmake --install "$build" --prefix "$top/install"
export QOR_HOME="$top/install"
echo
echo "QOR_HOME=$QOR_HOME"
echo "\$ align -h"
"$top/install/bin/align" -h
