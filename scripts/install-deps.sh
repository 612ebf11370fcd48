#!/usr/bin/env bash
# Installs everything the project needs to build, test and run, from Debian's packages.
# Idempotent: packages already present are left alone; apt-get runs only when something is missing.
set -euo pipefail

PACKAGES=(
  build-essential cmake ninja-build ccache pkg-config
  libboost1.81-dev libboost-json1.81-dev libboost-url1.81-dev libboost-regex1.81-dev
  libboost-system1.81-dev libboost-date-time1.81-dev
  libssl-dev libcurl4-openssl-dev libsqlite3-dev sqlite3 libsodium-dev libfuse3-dev fuse3
  libgtest-dev libgmock-dev googletest libbenchmark-dev
  python3-pytest iproute2 procps time
  dpkg-dev fakeroot file lintian debootstrap man-db
)

missing=()
for p in "${PACKAGES[@]}"; do
  if ! dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q "install ok installed"; then
    missing+=("$p")
  fi
done

if [ "${#missing[@]}" -eq 0 ]; then
  echo "install-deps: all ${#PACKAGES[@]} packages present"
  exit 0
fi

echo "install-deps: installing ${missing[*]}"
SUDO=""
if [ "$(id -u)" -ne 0 ]; then SUDO="sudo"; fi
export DEBIAN_FRONTEND=noninteractive
$SUDO apt-get update -qq
$SUDO apt-get install -y -qq --no-install-recommends "${missing[@]}"
