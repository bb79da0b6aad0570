#!/usr/bin/env bash
# SPDX-License-Identifier: GPL-3.0-or-later
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
  libcubeb-dev nlohmann-json3-dev libasio-dev libsdbus-c++-dev libsystemd-dev zlib1g-dev
  libebur128-dev  # loudness measurement (:analyze)
  # the generated sample library
  ffmpeg
)
test_packages=(
  libgtest-dev libgmock-dev libbenchmark-dev clang libclang-rt-14-dev
  tmux pulseaudio pulseaudio-utils dbus playerctl python3-numpy procps man-db
  vim-tiny  # vi: the real editor of the tag-editing terminal tests
  xterm xvfb imagemagick xdotool fonts-dejavu-core  # sixel covers checked on a real screen
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

echo "Faltan ${#missing[@]} paquetes de Debian: ${missing[*]}" >&2
sudo=()
if [[ $(id -u) -ne 0 ]]; then
  command -v sudo >/dev/null || { echo "Hace falta root o sudo para instalar: ${missing[*]}" >&2; exit 1; }
  sudo=(sudo)
fi
export DEBIAN_FRONTEND=noninteractive
echo "Actualizando la lista de paquetes…" >&2
"${sudo[@]}" apt-get update -qq
# apt-get's chatter goes to a log shown only on failure; what is seen is a count of the
# packages fetched and set up (one line that counts on a terminal, a line every 25
# elsewhere).
log=$(mktemp "${TMPDIR:-/tmp}/trovan-apt-XXXXXX")
trap 'rm -f "$log"' EXIT
progress() { # stage
  local n=0 tty=0
  [[ -t 2 ]] && tty=1
  while IFS= read -r line; do
    printf '%s\n' "$line" >>"$log"
    case $line in
      Get:* | Setting\ up*) ;;
      *) continue ;;
    esac
    n=$((n + 1))
    if [[ $tty == 1 ]]; then
      printf '\r  %s: %d' "$1" "$n" >&2
    elif ((n % 25 == 0)); then
      printf '  %s: %d\n' "$1" "$n" >&2
    fi
  done
  if [[ $tty == 1 ]]; then
    ((n > 0)) && printf '\n' >&2
  elif ((n % 25 != 0)); then
    printf '  %s: %d\n' "$1" "$n" >&2
  fi
  return 0
}
echo "Descargando los paquetes y sus dependencias…" >&2
if ! "${sudo[@]}" apt-get install -y -d --no-install-recommends "${missing[@]}" 2>&1 |
  progress "descargados"; then
  cat "$log" >&2
  exit 1
fi
echo "Instalando…" >&2
if ! "${sudo[@]}" apt-get install -y --no-install-recommends -o Dpkg::Use-Pty=0 "${missing[@]}" 2>&1 |
  progress "instalados"; then
  cat "$log" >&2
  exit 1
fi
echo "Paquetes instalados." >&2
