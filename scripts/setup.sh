#!/usr/bin/env bash
# Installs every Debian package the build, the tests and the sample job need.
# Safe to run again: apt-get skips what is already there.
set -euo pipefail

packages=(
  build-essential g++ cmake ninja-build pkg-config clang-format clang-tidy-14 cppcheck systemd
  libcups2-dev libcupsimage2-dev cups cups-client cups-ppdc cups-filters
  googletest libgtest-dev libgmock-dev libbenchmark-dev libpng-dev
  ghostscript poppler-utils util-linux strace time clang-14 libclang-rt-14-dev
  libpappl-dev cups-ipp-utils chromium curl nlohmann-json3-dev
  libpam-pwdfile libpam0g-dev libacl1-dev libjpeg-dev iproute2 openssl
)

missing=()
for p in "${packages[@]}"; do
  dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q 'install ok installed' || missing+=("$p")
done

if [ "${#missing[@]}" -gt 0 ]; then
  sudo=""
  [ "$(id -u)" -eq 0 ] || sudo="sudo"
  export DEBIAN_FRONTEND=noninteractive
  $sudo apt-get update
  $sudo apt-get install -y --no-install-recommends "${missing[@]}"
fi
