#!/bin/sh
# The main job on the virtual analyzer: what a user does first.
set -u
BIN=${1:-build/bin}
# Private virtual hardware for the demo, removed afterwards.
VXSIM_DIR=$(mktemp -d /tmp/vxcli-demo-XXXXXX)
export VXSIM_DIR
trap '"$BIN/vxsim" shutdown >/dev/null 2>&1; rm -rf "$VXSIM_DIR"' EXIT
run() { echo "\$ vxcli $*"; "$BIN/vxcli" "$@"; echo; }
run --version
run help
run channel enumerate
run channel info --channel=10356/0 --format=json
echo "\$ vxcli message recv --channel=10357/0 --count=3 --format=jsonl &"
"$BIN/vxcli" message recv --channel=10357/0 --count=3 --format=jsonl &
RECV=$!
sleep 0.5
run message send --channel=10356/0 --id=0x123 --data=11223344 --count=3 --cycle=100
wait $RECV
