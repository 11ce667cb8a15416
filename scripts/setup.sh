#!/bin/sh
# Installs the Debian 12 packages the build needs, if any is missing.
#   --peers  also the systems the peer benchmark measures us against (LMDB,
#            Boost.Interprocess, abseil, DPDK) and gnuplot for its plots
#   --fuzz   also clang and its runtime libraries (libFuzzer, sanitizers)
#   --coverage  also gcovr, which reads the counters of a --coverage build
set -eu
pkgs="g++ cmake make pkg-config libfmt-dev libgtest-dev libgmock-dev libbenchmark-dev"
for arg in "$@"; do
  case "$arg" in
    --peers) pkgs="$pkgs liblmdb-dev libboost-dev libabsl-dev libdpdk-dev gnuplot-nox" ;;
    --fuzz) pkgs="$pkgs clang libclang-rt-14-dev" ;;
    --coverage) pkgs="$pkgs gcovr" ;;
    *) echo "setup: unknown option $arg (expecting --peers, --fuzz or --coverage)" >&2; exit 2 ;;
  esac
done
missing=""
for p in $pkgs; do
  dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q "install ok installed" || missing="$missing $p"
done
if [ -n "$missing" ]; then
  echo "setup: installing$missing"
  if [ "$(id -u)" -eq 0 ]; then SUDO=""; else SUDO="sudo"; fi
  $SUDO apt-get update -qq
  DEBIAN_FRONTEND=noninteractive $SUDO apt-get install -y -qq $missing
fi
