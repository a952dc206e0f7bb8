#!/usr/bin/env bash
# Installs the Debian 12 packages Tolvane needs to build, run and test, when any is missing.
# Quiet when everything is present; works as root or through sudo.
set -euo pipefail

build_pkgs=(
  build-essential cmake pkg-config
  qt6-base-dev qt6-base-dev-tools qt6-multimedia-dev qt6-qpa-plugins qcoro-qt6-dev libgl-dev
  libx11-dev libxi-dev libxtst-dev libevdev-dev libudev-dev libwayland-dev libxkbcommon-dev
  libsoxr-dev libsndfile1-dev libpulse-dev libarchive-dev
  libpocketsphinx-dev pocketsphinx-en-us
  fonts-dejavu-core fonts-inter
)
# The icons, manual page and Debian package (also checked by the suite).
package_pkgs=(dpkg-dev help2man librsvg2-bin appstream)
test_pkgs=(
  xvfb xdotool x11-xkb-utils x11-utils
  sway xwayland x11-xserver-utils foot wl-clipboard
  pulseaudio pulseaudio-utils sox espeak-ng festival festvox-us-slt-hts dbus-daemon
  "${package_pkgs[@]}"
)

# Only scripts/coverage.sh needs it.
coverage_pkgs=(gcovr)
# Only scripts/fuzz.sh needs them: clang and its libFuzzer runtime.
fuzz_pkgs=(clang libclang-rt-14-dev)

want=("${build_pkgs[@]}")
for arg in "$@"; do
  case "$arg" in
    --test) want+=("${test_pkgs[@]}") ;;
    --coverage) want+=("${coverage_pkgs[@]}") ;;
    --fuzz) want+=("${fuzz_pkgs[@]}") ;;
    --package) want+=("${package_pkgs[@]}" lintian) ;;
    *) echo "setup: unknown option $arg (use --test, --coverage, --fuzz, --package)" >&2; exit 2 ;;
  esac
done

missing=()
for p in "${want[@]}"; do
  if ! dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q "install ok installed"; then
    missing+=("$p")
  fi
done
[ ${#missing[@]} -eq 0 ] && exit 0

as_root=()
if [ "$(id -u)" -ne 0 ]; then
  command -v sudo >/dev/null || { echo "setup: need root or sudo to install: ${missing[*]}" >&2; exit 1; }
  as_root=(sudo)
fi
echo "setup: installing ${missing[*]}"
export DEBIAN_FRONTEND=noninteractive
"${as_root[@]}" apt-get update -qq
"${as_root[@]}" apt-get install -y -qq --no-install-recommends "${missing[@]}" >/dev/null
