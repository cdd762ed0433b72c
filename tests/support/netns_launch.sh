#!/bin/sh
# Runs one test process (one gtest case under ctest) in private network and
# /dev/shm namespaces, so every daemon a test starts can use the default port
# and readiness semaphore without meeting another test's daemon. Where the
# host does not allow namespaces, tests that start daemons ("Daemon" in the
# suite name) take a host-wide lock instead and run one at a time.
if [ -z "$VXTEST_NETNS" ]; then
  for flags in -rnm -nm; do
    if unshare $flags sh -c 'ip link set lo up && mount -t tmpfs -o mode=1777 tmpfs /dev/shm' \
        >/dev/null 2>&1; then
      exec unshare $flags sh -c \
        'ip link set lo up && mount -t tmpfs -o mode=1777 tmpfs /dev/shm && VXTEST_NETNS=1 exec "$@"' \
        vxtest "$@"
    fi
  done
  case "$*" in
    *--gtest_filter=*Daemon*)
      if command -v flock >/dev/null 2>&1; then
        exec flock "${TMPDIR:-/tmp}/vxcli-daemon-tests.lock" "$@"
      fi
      ;;
  esac
fi
exec "$@"
