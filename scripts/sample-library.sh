#!/usr/bin/env bash
# SPDX-License-Identifier: GPL-3.0-or-later
# Writes a small tagged music library into the folder given (once: an existing,
# complete library is left alone). Short generated tones in several formats, a few
# artists and albums, some with embedded covers, one album on two discs.
set -euo pipefail
out=${1:?usage: sample-library.sh FOLDER}
[[ -f "$out/.complete" ]] && exit 0
command -v ffmpeg >/dev/null || { echo "sample-library: ffmpeg is missing" >&2; exit 1; }
echo "Generando la biblioteca de ejemplo…" >&2
rm -rf "$out.tmp"
mkdir -p "$out.tmp/.covers"
tmp="$out.tmp"

cover() { # name colour-filter
  ffmpeg -v error -y -f lavfi -i "$2" -frames:v 1 "$tmp/.covers/$1.jpg"
}
cover sunset "gradients=s=128x128:c0=0xff7a59:c1=0x3b1f5c:x0=0:y0=0:x1=128:y1=128"
cover sea "gradients=s=128x128:c0=0x1d6fa5:c1=0x9ee6d8:x0=0:y0=128:x1=128:y1=0"
cover forest "gradients=s=128x128:c0=0x1f4d2b:c1=0xe0d27a:x0=64:y0=0:x1=64:y1=128"

# The tracks are encoded side by side, one per core, with a count of those done.
total=12 launched=0 done_count=0 jobs=$(nproc 2>/dev/null || echo 2)
tty=0
[[ -t 2 ]] && tty=1
finished() {
  done_count=$((done_count + 1))
  if [[ $tty == 1 ]]; then
    printf '\r  %d/%d canciones' "$done_count" "$total" >&2
    [[ $done_count == "$total" ]] && printf '\n' >&2
  else
    printf '  %d/%d canciones\n' "$done_count" "$total" >&2
  fi
  return 0
}
reap() { # wait for one encoder; a failed one stops the whole generation
  wait -n || { echo "sample-library: ffmpeg falló" >&2; exit 1; }
  finished
}
track() {
  while ((launched - done_count >= jobs)); do reap; done
  launched=$((launched + 1))
  encode "$@" &
}

# encode FILE SECONDS HZ COVER(or -) key=value...
encode() {
  local file=$1 seconds=$2 hz=$3 pic=$4
  shift 4
  local meta=()
  for kv in "$@"; do meta+=(-metadata "$kv"); done
  mkdir -p "$(dirname "$tmp/$file")"
  local src=(-f lavfi -i "aevalsrc=0.25*sin(2*PI*$hz*t)*(0.6+0.4*sin(2*PI*0.5*t))+0.1*sin(2*PI*$hz*1.5*t):s=44100:d=$seconds")
  case "$file" in
    *.mp3|*.flac|*.m4a)
      if [[ $pic != - ]]; then
        local codec=()
        case "$file" in
          *.mp3) codec=(-c:a libmp3lame -b:a 160k -id3v2_version 3) ;;
          *.flac) codec=(-c:a flac) ;;
          *.m4a) codec=(-c:a aac -b:a 160k) ;;
        esac
        ffmpeg -v error -y "${src[@]}" -i "$tmp/.covers/$pic.jpg" -map 0:a -map 1:v -c:v copy \
          -disposition:v attached_pic "${codec[@]}" "${meta[@]}" "$tmp/$file"
        return
      fi ;;
  esac
  ffmpeg -v error -y "${src[@]}" "${meta[@]}" "$tmp/$file"
}

a="Aurora Boreal"
track "$a/Luz de invierno/01 Amanecer.flac" 34 330 sunset artist="$a" album="Luz de invierno" date=2019 track=1 title="Amanecer"
track "$a/Luz de invierno/02 Escarcha.flac" 28 392 sunset artist="$a" album="Luz de invierno" date=2019 track=2 title="Escarcha"
track "$a/Luz de invierno/03 Norte.flac" 41 262 sunset artist="$a" album="Luz de invierno" date=2019 track=3 title="Norte"
b="Los Faros"
track "$b/Mareas/1-01 Puerto.mp3" 31 294 sea artist="$b" album="Mareas" date=2021 track=1 disc=1/2 title="Puerto"
track "$b/Mareas/1-02 Niebla.mp3" 26 349 sea artist="$b" album="Mareas" date=2021 track=2 disc=1/2 title="Niebla"
track "$b/Mareas/2-01 Altamar.mp3" 38 220 sea artist="$b" album="Mareas" date=2021 track=1 disc=2/2 title="Altamar"
track "$b/Mareas/2-02 Regreso.mp3" 29 247 sea artist="$b" album="Mareas" date=2021 track=2 disc=2/2 title="Regreso"
track "$b/Sencillos/Faro.ogg" 24 440 - artist="$b" album="Sencillos" date=2023 tracknumber=1 title="Faro"
c="Bosque Verde"
track "$c/Raíces/01 Semilla.m4a" 33 196 forest artist="$c" album="Raíces" date=2017 track=1 title="Semilla"
track "$c/Raíces/02 Tronco.m4a" 27 233 forest artist="$c" album="Raíces" date=2017 track=2 title="Tronco"
d="Ñandú"
track "$d/Pampa/01 Viento.opus" 30 277 - artist="$d" album="Pampa" date=2015 track=1 title="Viento" \
  lyrics="El viento corre por la pampa
y se lleva la voz

Canta, canta, ñandú"
track "$d/Pampa/02 Horizonte.wav" 22 311 - artist="$d" album="Pampa" date=2015 track=2 title="Horizonte"
cp "$tmp/.covers/forest.jpg" "$tmp/$d/Pampa/cover.jpg"

while ((done_count < launched)); do reap; done
rm -rf "$tmp/.covers"
touch "$tmp/.complete"
rm -rf "$out"
mv "$tmp" "$out"
