#!/bin/sh
# Installs the Debian 12 packages the build needs, if any is missing.
# With --peers, also the systems the peer benchmark measures us against
# (LMDB, Boost.Interprocess, abseil, DPDK) and gnuplot for its plots.
set -eu
pkgs="g++ cmake make pkg-config libfmt-dev libgtest-dev libgmock-dev libbenchmark-dev"
if [ "${1:-}" = "--peers" ]; then
  pkgs="$pkgs liblmdb-dev libboost-dev libabsl-dev libdpdk-dev gnuplot-nox"
fi
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
