#!/bin/sh
# Static analysis of src/, vxsim/ and include/: clang-tidy with the checked-in
# .clang-tidy over the compile commands of a configured build, then cppcheck.
#   scripts/lint.sh BUILD_DIR [JOBS]
# Fails on any finding.
set -u
cd "$(dirname "$0")/.."
build=${1:-build}
jobs=${2:-$(nproc)}
root=$(pwd)
status=0

tidy=$(command -v run-clang-tidy-14 || command -v run-clang-tidy || true)
if [ ! -f "$build/compile_commands.json" ] || [ -z "$tidy" ]; then
  echo "lint: need run-clang-tidy and $build/compile_commands.json" >&2
  exit 1
fi
# Headers under include/ and src/ are checked through the files including them.
log="$build/clang-tidy.log"
if "$tidy" -clang-tidy-binary "$(command -v clang-tidy-14 || command -v clang-tidy)" \
    -p "$build" -j "$jobs" -quiet "^$root/(src|vxsim)/" >"$log" 2>&1; then
  echo "clang-tidy: clean"
else
  grep -E "(warning|error): " "$log" | sort -u >&2
  echo "clang-tidy: findings above (full output in $log)" >&2
  status=1
fi

if cppcheck -j "$jobs" --std=c++20 --language=c++ -I src -I include -I vxsim \
    --enable=warning,performance,portability --inline-suppr --quiet --error-exitcode=1 \
    --suppressions-list=scripts/cppcheck.supp \
    --template='{file}:{line}: {severity}:{id}: {message}' src vxsim include; then
  echo "cppcheck: clean"
else
  echo "cppcheck: findings above" >&2
  status=1
fi
exit $status
