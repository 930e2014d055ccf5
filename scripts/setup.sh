#!/usr/bin/env bash
# Installs the Debian packages the build, the tests, the benchmarks and the
# fuzz targets need. Quick and silent when everything is there already; runs
# apt-get update before installing anything. Needs root (or sudo) only when a
# package is missing.
set -euo pipefail

packages=(
  g++ make cmake pkg-config python3
  libgtest-dev libgmock-dev libbenchmark-dev
  clang libclang-rt-14-dev
  libboost-dev libboost-filesystem-dev libboost-system-dev libboost-thread-dev
  libarchive-dev media-types libetpan-dev libgmime-3.0-dev libvmime-dev
  dovecot-imapd dovecot-dev
)

missing=()
for package in "${packages[@]}"; do
  status=$(dpkg-query -W -f='${Status}' "$package" 2>/dev/null || true)
  [[ "$status" == "install ok installed" ]] || missing+=("$package")
done
[[ ${#missing[@]} -eq 0 ]] && exit 0

echo "setup: installing ${missing[*]}"
as_root=()
[[ $(id -u) -eq 0 ]] || as_root=(sudo)
export DEBIAN_FRONTEND=noninteractive
"${as_root[@]}" apt-get update -q
# The packages' own service start-up is not wanted: tests start their own
# Dovecot. policy-rc.d keeps apt from starting the system one where it can.
"${as_root[@]}" apt-get install -y -q --no-install-recommends "${missing[@]}"
