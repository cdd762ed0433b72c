#!/bin/sh
# The main job on the virtual analyzer: what a user does first.
set -eu
BIN=${1:-build/bin}
export VXSIM_DIR="${VXSIM_DIR:-$(mktemp -d /tmp/vxcli-demo-XXXXXX)}"
run() { echo "\$ vxcli $*"; "$BIN/vxcli" "$@" || true; echo; }
run --version
run help
