#!/bin/sh
# Runs one test process (one gtest case under ctest) in private network and
# /dev/shm namespaces, so every daemon a test starts can use the default port
# and readiness semaphore without meeting another test's daemon. Where the
# host does not allow namespaces, tests that start daemons ("Daemon" in the
# suite name) take a host-wide lock instead and run one at a time.
setup='ip link set lo up && mount -t tmpfs -o mode=1777 tmpfs /dev/shm'
if [ -z "$VXTEST_NETNS" ]; then
  # With the privilege to do so, only the network and mounts are private.
  if unshare -nm sh -c "$setup" >/dev/null 2>&1; then
    exec unshare -nm sh -c "$setup"' && VXTEST_NETNS=1 exec "$@"' vxtest "$@"
  fi
  # Otherwise through a user namespace, leaving it again for the test itself so
  # that it keeps its own uid and gid (and does not believe it is root).
  uid=$(id -u) gid=$(id -g)
  if unshare -rnm sh -c "$setup && unshare -U --map-user=$uid --map-group=$gid true" >/dev/null 2>&1; then
    exec unshare -rnm sh -c "$setup"' && VXTEST_NETNS=1 exec unshare -U --map-user='"$uid"' --map-group='"$gid"' "$@"' \
      vxtest "$@"
  fi
  case "$*" in
    *--gtest_filter=*Daemon*)
      if command -v flock >/dev/null 2>&1; then
        exec flock "${TMPDIR:-/tmp}/vxcli-daemon-tests.lock" "$@"
      fi
      ;;
  esac
fi
exec "$@"
