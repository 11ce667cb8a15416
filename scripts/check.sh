#!/bin/sh
# The whole check, as CI runs it, in three builds:
#   default  RelWithDebInfo: the test suite, the reliability harness's short
#            runs (stress.*) and the peer benchmark's quick smoke run; then
#            check-install.sh on that build: install, examples against the
#            installed package, the guide's code blocks, the Debian package
#   asan     Debug with AddressSanitizer and UndefinedBehaviorSanitizer: the
#            same test suite and short stress runs
#   fuzz     clang: every libFuzzer target for a few seconds from its seeds
# Stops at the first stage that fails.
set -eu
cd "$(dirname "$0")/.."
scripts/setup.sh --peers --fuzz
stage() { echo "== check: $*"; }
stage default
cmake --preset default -DFLOWTABLES_PEERS=ON
cmake --build --preset default
ctest --preset default
stage install
scripts/check-install.sh build/default
stage asan
cmake --preset asan
cmake --build --preset asan
ctest --preset asan
stage fuzz
cmake --preset fuzz
cmake --build --preset fuzz
ctest --preset fuzz
echo "== check: all stages passed"
