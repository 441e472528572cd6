# Shared by the set-up scripts: installs what is missing (Debian 12, as root) and builds.
set -euo pipefail

ROOT="$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)"
BUILD_DIR="${TAVRO_BUILD_DIR:-$ROOT/build}"

PACKAGES=(g++ cmake ninja-build ccache libgtest-dev libgmock-dev libbenchmark-dev clang libclang-rt-14-dev
  libboost-dev nlohmann-json3-dev chromium nodejs pkg-config libsystemd-dev dbus-daemon)
# Debian's npm only where no npm came with node (a Node.js build of its own brings one).
command -v npm >/dev/null 2>&1 || PACKAGES+=(npm)

install_missing() {
  local missing=()
  for p in "${PACKAGES[@]}"; do
    dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q "install ok installed" || missing+=("$p")
  done
  if ((${#missing[@]})); then
    echo "Installing: ${missing[*]}"
    if [ "$(id -u)" -ne 0 ]; then
      echo "error: missing packages (${missing[*]}); run as root or install them first" >&2
      exit 1
    fi
    apt-get update -qq
    DEBIAN_FRONTEND=noninteractive apt-get install -y -qq --no-install-recommends "${missing[@]}"
  fi
}

build() {
  cmake -S "$ROOT" -B "$BUILD_DIR" -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo -DTAVRO_WERROR=ON \
    "$@" >/dev/null
  # Two cores: more jobs only thrash.
  ninja -C "$BUILD_DIR" -j "$(nproc)"
}
