#!/bin/sh
# Installs the Debian packages the build and the tests need, skipping what is
# already present so that a warm machine pays nothing.
set -eu
PKGS="cmake ninja-build g++ make pkg-config git libgtest-dev libgmock-dev libbenchmark-dev \
libyaml-dev zlib1g-dev libssl-dev python3 python3-can python3-canmatrix clang libclang-rt-14-dev clang-tidy cppcheck \
iproute2 util-linux"
missing=""
for p in $PKGS; do
  if ! dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q "install ok installed"; then
    missing="$missing $p"
  fi
done
[ -z "$missing" ] && exit 0
if [ "$(id -u)" -ne 0 ]; then
  if command -v sudo >/dev/null 2>&1; then SUDO=sudo; else
    echo "missing packages:$missing (run as root to install them)" >&2; exit 1
  fi
else SUDO=""; fi
echo "installing:$missing"
export DEBIAN_FRONTEND=noninteractive
$SUDO apt-get update -qq
# shellcheck disable=SC2086
$SUDO apt-get install -y -qq --no-install-recommends $missing
