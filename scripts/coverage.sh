#!/bin/sh
# Line and branch coverage of src/ by the test suite, as one figure each:
# a Debug build with gcc --coverage (preset "coverage"), the whole ctest run
# (the stress runs included: they exercise crash and damage paths no unit
# test reaches), then gcovr over src/ only.
#   scripts/coverage.sh [ctest arguments...]   e.g. -R '^Mirak' to look at one part
# The counters of forked test processes are merged by gcov without locking,
# so a branch count can come out negative: gcovr is told to skip those parse
# errors instead of failing.
set -eu
cd "$(dirname "$0")/.."
scripts/setup.sh --coverage
cmake --preset coverage >/dev/null
cmake --build --preset coverage
find build/coverage -name '*.gcda' -delete
# Notes of a source file that was moved or deleted since the last build would
# make gcovr stop: drop them (the object's path under <target>.dir/ is the
# source's path in the tree).
find build/coverage/CMakeFiles -path '*.dir/*' -name '*.gcno' | while read -r n; do
  src=$(printf '%s\n' "${n%.gcno}" | sed 's|^build/coverage/CMakeFiles/[^/]*\.dir/||')
  [ -e "$src" ] || rm -f "$n" "${n%.gcno}.o"
done
(cd build/coverage && ctest -j2 --timeout 600 "$@") || echo "coverage: some tests failed; the figures below are of what ran" >&2
gcovr --root . --filter 'src/' --object-directory build/coverage \
      --gcov-ignore-parse-errors \
      --print-summary --txt build/coverage/coverage.txt build/coverage
