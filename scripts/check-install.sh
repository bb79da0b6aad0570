#!/usr/bin/env bash
# SPDX-License-Identifier: GPL-3.0-or-later
# Installs a build into an empty prefix and runs the installed program the way a user
# would: from another folder, on a fresh data folder, with the build tree out of the
# way. It must scan, play a FLAC through its own modules from the prefix, and draw the
# cover. Also checks that nothing landed outside the prefix, that no binary carries a
# run path, and that the manual page renders cleanly.
#
#   scripts/check-install.sh [--keep-build] [BUILD_DIR]
#
# BUILD_DIR defaults to build/release (configured and built when missing). Without
# --keep-build the build folder is moved aside while the installed copy runs, and put
# back afterwards; with it (as the test suite does) the build stays where it is and the
# loaded modules are still required to come from the prefix.
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)

keep=false
if [[ ${1:-} == --keep-build ]]; then
  keep=true
  shift
fi
build=$(realpath -m "${1:-$root/build/release}")

fail() {
  echo "check-install: $*" >&2
  exit 1
}
for tool in cmake tmux ffmpeg readelf man; do
  if ! command -v "$tool" >/dev/null; then
    echo "check-install: falta la herramienta $tool" >&2
    exit 77 # the test suite counts this as skipped
  fi
done

if [[ ! -f $build/build.ninja ]]; then
  "$root/scripts/install-deps.sh"
  cmake -S "$root" -B "$build" -G Ninja -DCMAKE_BUILD_TYPE=Release \
    -DTROVAN_TESTS=OFF -DTROVAN_BENCH=OFF >/dev/null
fi
if [[ $keep == false ]]; then
  ninja -C "$build" trovan trovan_ffmpeg trovan_cubeb trovan_docs >/dev/null
fi

work=$(mktemp -d /tmp/trovan-install-XXXXXX)
away=
socket=$work/tmux.sock
cleanup() {
  tmux -S "$socket" kill-server 2>/dev/null || true
  if [[ -n $away && -d $away ]]; then mv "$away" "$build"; fi
  rm -rf "$work"
}
trap cleanup EXIT

# Install, and check what went where.
prefix=$work/prefix
cmake --install "$build" --prefix "$prefix" >"$work/install.log"
while read -r file; do
  [[ $file == "$prefix"/* ]] || fail "instalado fuera del prefijo: $file"
done <"$build/install_manifest.txt"
modules=$(dirname "$(find "$prefix/lib" -name trovan-ffmpeg.so -print -quit)")
[[ $modules == "$prefix"/lib/*trovan ]] || fail "no hay módulos en $prefix/lib"
expected="bin/trovan
${modules#"$prefix"/}/trovan-cubeb.so
${modules#"$prefix"/}/trovan-ffmpeg.so
${modules#"$prefix"/}/trovan-mpris.so
share/applications/trovan.desktop
share/doc/trovan/changelog.gz
share/doc/trovan/copyright
share/man/man1/trovan.1.gz"
installed=$(cd "$prefix" && find . -type f -printf '%P\n' | LC_ALL=C sort)
[[ $installed == "$expected" ]] || fail "archivos instalados inesperados:
$installed"
for elf in "$prefix/bin/trovan" "$modules"/*.so; do
  if readelf -d "$elf" | grep -qE 'R(UN)?PATH'; then fail "$elf lleva una ruta de búsqueda"; fi
done
warnings=$(LC_ALL=C.UTF-8 MANWIDTH=80 man --warnings -l "$prefix/share/man/man1/trovan.1.gz" 2>&1 >/dev/null)
[[ -z $warnings ]] || fail "la página de manual da avisos: $warnings"

if [[ $keep == false ]]; then
  away=$build.away-$$
  mv "$build" "$away"
fi

# One FLAC with an embedded cover, in a folder the program has never seen.
music=$work/music
mkdir -p "$music" "$work/elsewhere" "$work/home"
ffmpeg -v error -f lavfi -i "gradients=s=64x64:c0=0xff7a59:c1=0x3b1f5c" -frames:v 1 "$work/cover.jpg"
ffmpeg -v error -f lavfi -i "sine=frequency=330:sample_rate=44100:duration=20" -i "$work/cover.jpg" \
  -map 0:a -map 1:v -c:a flac -c:v copy -disposition:v attached_pic \
  -metadata artist="Aurora" -metadata album="Luz" -metadata title="Amanecer" -metadata track=1 \
  "$music/amanecer.flac"

version=$(cd "$work/elsewhere" && "$prefix/bin/trovan" --version)
[[ $version =~ ^trovan\ [0-9]+\.[0-9]+\.[0-9]+$ ]] || fail "--version dice: $version"

tmux -S "$socket" -f /dev/null new-session -d -s t -x 100 -y 40 -c "$work/elsewhere" \
  -e COLORTERM=truecolor -e TROVAN_HOME="$work/home" \
  "exec '$prefix/bin/trovan' '$music'"
screen() { tmux -S "$socket" capture-pane -p -t t; }
wait_for() { # text seconds
  local deadline=$((SECONDS + $2))
  until screen | grep -qF -- "$1"; do
    ((SECONDS < deadline)) || fail "no aparece «$1» en la pantalla:
$(screen)"
    sleep 0.2
  done
}
pid=$(tmux -S "$socket" display -p -t t '#{pane_pid}')

wait_for "Biblioteca al día: 1 archivo ·" 30
tmux -S "$socket" send-keys -t t Enter Down Enter
wait_for "FLAC · 44.1 kHz · 16 bit" 20
wait_for " 0:02 ━" 20

# The covers: two blocks of 10 × 5 half-block pixels, in the library pane and the player.
pixels() { screen | grep -o '▀' | wc -l; }
deadline=$((SECONDS + 10))
until (($(pixels) >= 100)); do
  ((SECONDS < deadline)) || fail "no se ven las carátulas:
$(screen)"
  sleep 0.2
done
shown=$(pixels)

# Both modules are mapped, and from the prefix only.
maps=$(grep -oE '/[^ ]*trovan-(ffmpeg|cubeb)\.so' "/proc/$pid/maps" | sort -u)
for module in trovan-ffmpeg.so trovan-cubeb.so; do
  grep -qx "$modules/$module" <<<"$maps" || fail "$module no se cargó del prefijo:
$maps"
done
[[ $(wc -l <<<"$maps") -eq 2 ]] || fail "módulos cargados de otro sitio:
$maps"

tmux -S "$socket" send-keys -t t q
for _ in $(seq 100); do
  kill -0 "$pid" 2>/dev/null || break
  sleep 0.1
done
! kill -0 "$pid" 2>/dev/null || fail "trovan no terminó con q"
[[ -f $work/home/library.sqlite && -f $work/home/config.json ]] || fail "faltan los datos en TROVAN_HOME"
echo "check-install: correcto ($version, módulos de $modules, $shown píxeles de carátula)"
