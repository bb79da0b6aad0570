#!/usr/bin/env bash
# Installs the Debian packages Trovan needs: with no argument what building and
# running it take; with --test also the tools of the tests, benchmarks and fuzzers.
# Does nothing when all of them are already present, so it is cheap to run before
# every build.
set -euo pipefail

run_packages=(
  # build
  build-essential cmake ninja-build pkg-config
  # libraries
  libicu-dev libsqlite3-dev libtag1-dev
  libavformat-dev libavcodec-dev libavutil-dev libswresample-dev libswscale-dev
  libcubeb-dev nlohmann-json3-dev libasio-dev libsdbus-c++-dev libsystemd-dev
  # the generated sample library
  ffmpeg
)
test_packages=(
  libgtest-dev libgmock-dev libbenchmark-dev clang libclang-rt-14-dev
  tmux pulseaudio pulseaudio-utils dbus playerctl python3-numpy procps man-db
  vim-tiny  # vi: the real editor of the tag-editing terminal tests
  bindfs  # a user-space (FUSE) mount: folders there are polled, not watched
)

packages=("${run_packages[@]}")
case "${1:-}" in
  "") ;;
  --test) packages+=("${test_packages[@]}") ;;
  *) echo "Uso: install-deps.sh [--test]" >&2; exit 2 ;;
esac

missing=()
for p in "${packages[@]}"; do
  status=$(dpkg-query -W -f='${Status}' "$p" 2>/dev/null || true)
  [[ "$status" == "install ok installed" ]] || missing+=("$p")
done
[[ ${#missing[@]} -eq 0 ]] && exit 0

echo "Instalando paquetes: ${missing[*]}" >&2
sudo=()
if [[ $(id -u) -ne 0 ]]; then
  command -v sudo >/dev/null || { echo "Hace falta root o sudo para instalar: ${missing[*]}" >&2; exit 1; }
  sudo=(sudo)
fi
export DEBIAN_FRONTEND=noninteractive
"${sudo[@]}" apt-get update -qq
"${sudo[@]}" apt-get install -y -qq --no-install-recommends "${missing[@]}" >/dev/null
