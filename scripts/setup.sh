#!/usr/bin/env bash
# Installs the Debian packages Kestrel builds, tests and runs with (idempotent), then configures
# and builds the tree in ${BUILD_DIR:-build}. With --packages it only installs.
set -euo pipefail
cd "$(dirname "$0")/.."

PACKAGES=(
  build-essential cmake ninja-build ccache pkg-config
  qtbase5-dev libqt5sql5-sqlite libqt5sql5-mysql libsqlite3-dev
  libdcmtk-dev dcmtk libnifti2-dev libopenjp2-7-dev libopenjph-dev
  mariadb-server mariadb-client libmariadb-dev
  libomp-dev
  python3 python3-numpy python3-scipy python3-pydicom dcm2niix fonts-dejavu-core
  libgdcm-tools openssl
  xvfb xauth
  locales
)

missing=()
for p in "${PACKAGES[@]}"; do
  dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q "install ok installed" || missing+=("$p")
done
if [ ${#missing[@]} -gt 0 ]; then
  echo "== Installing: ${missing[*]}"
  SUDO=""; [ "$(id -u)" -ne 0 ] && SUDO=sudo
  $SUDO apt-get update -qq
  DEBIAN_FRONTEND=noninteractive $SUDO apt-get install -y -qq --no-install-recommends "${missing[@]}" >/dev/null
fi

# A German desktop locale, so that the tests can show that numbers in text keep their decimal point.
if ! locale -a 2>/dev/null | grep -qi '^de_DE\.utf-\?8$'; then
  SUDO=""; [ "$(id -u)" -ne 0 ] && SUDO=sudo
  grep -q '^de_DE.UTF-8 UTF-8' /etc/locale.gen 2>/dev/null || echo 'de_DE.UTF-8 UTF-8' | $SUDO tee -a /etc/locale.gen >/dev/null
  $SUDO locale-gen >/dev/null
fi

[ "${1:-}" = "--packages" ] && exit 0

BUILD_DIR=${BUILD_DIR:-build}
BUILD_TYPE=${BUILD_TYPE:-RelWithDebInfo}
CMAKE_ARGS=(-S . -B "$BUILD_DIR" -G Ninja -DCMAKE_BUILD_TYPE="$BUILD_TYPE")
[ -n "${KESTREL_WERROR:-}" ] && CMAKE_ARGS+=(-DKESTREL_WERROR=ON)
[ -n "${KESTREL_SANITIZE:-}" ] && CMAKE_ARGS+=(-DKESTREL_SANITIZE=ON)
export CCACHE_BASEDIR=${CCACHE_BASEDIR:-$PWD}
echo "== Configuring and building in $BUILD_DIR"
cmake "${CMAKE_ARGS[@]}" >/dev/null
cmake --build "$BUILD_DIR" -j"$(nproc)"
