#!/usr/bin/env bash
# SPDX-License-Identifier: GPL-3.0-or-later
# Sixel covers on a real screen: the program in xterm (-ti vt340) under Xvfb, driven with
# xdotool and photographed with ImageMagick. The player's cover must match its picture
# scaled to the cover's cells, and after scrolling, the help box and a resize, nothing
# but the covers may differ from a run of the same steps with half-block covers.
# Usage: xterm-covers.sh TROVAN_BINARY. Exit 77 (skipped) when a tool is missing.
set -euo pipefail

binary=$1
for tool in Xvfb xterm xdotool import convert compare ffmpeg fc-list; do
  command -v "$tool" >/dev/null || { echo "falta $tool: prueba omitida"; exit 77; }
done

work=$(mktemp -d "${TMPDIR:-/tmp}/trovan-xterm-XXXXXX")
pids=()
cleanup() {
  for p in "${pids[@]}"; do kill "$p" 2>/dev/null || true; done
  [[ -n "${TROVAN_KEEP_SHOTS:-}" ]] || rm -rf "$work"
}
trap cleanup EXIT

# A display of our own.
display=$(( 90 + $$ % 500 ))
Xvfb ":$display" -screen 0 1024x768x24 -nolisten tcp >"$work/xvfb.log" 2>&1 &
pids+=($!)
for _ in $(seq 50); do [[ -e /tmp/.X11-unix/X$display ]] && break; sleep 0.1; done
export DISPLAY=":$display"

# One artist, twelve albums of one track, all with the same test picture beside them.
ffmpeg -v error -y -f lavfi -i testsrc=s=160x120 -frames:v 1 "$work/cover.png"
for n in $(seq -w 1 12); do
  mkdir -p "$work/music/A$n"
  ffmpeg -v error -y -f lavfi -i sine=d=20 -metadata artist=Alfa -metadata album="Disco $n" \
    -metadata title="Pista $n" "$work/music/A$n/01.flac"
  cp "$work/cover.png" "$work/music/A$n/cover.png"
done

# Runs the steps with covers in `mode`; leaves shots in $work/MODE-*.png and the cell
# size in $cw × $ch.
run() {
  local mode=$1 home="$work/home-$1"
  # A UTF-8 terminal, as every user has one: without a locale xterm would show the
  # block characters as Latin-1.
  mkdir -p "$home"
  echo "{\"coverMode\": \"$mode\"}" >"$home/config.json"
  LC_ALL=C.UTF-8 COLORTERM=truecolor TROVAN_HOME="$home" xterm -ti vt340 -fa "DejaVu Sans Mono" -fs 9 \
    -b 0 -bw 0 -geometry 100x40+0+0 \
    -e "$binary" "$work/music" 2>>"$work/xterm.log" &
  local xterm=$!
  pids+=("$xterm")
  local win=""
  for _ in $(seq 50); do
    win=$(xdotool search --pid "$xterm" 2>/dev/null | head -n 1 || true)
    [[ -n "$win" ]] && break
    sleep 0.1
  done
  [[ -n "$win" ]] || { echo "xterm no abrió"; exit 1; }
  sleep 4 # the scan and the covers
  xdotool windowfocus "$win" 2>/dev/null || true
  eval "$(xdotool getwindowgeometry --shell "$win")"
  cw=$((WIDTH / 100)) ch=$((HEIGHT / 40))
  key() { xdotool key --delay 40 "$@" 2>/dev/null; sleep 0.3; }
  key Tab
  for _ in $(seq 12); do key Down; done
  key Return
  sleep 1.5
  import -window root "$work/$mode-playing.png"
  key question
  sleep 0.5
  key Escape
  for _ in $(seq 6); do key Up; done
  xdotool windowsize --usehints "$win" 90 36 2>/dev/null
  sleep 1.5
  import -window root "$work/$mode-after.png"
  key q
  sleep 0.5
  kill "$xterm" 2>/dev/null || true
  wait "$xterm" 2>/dev/null || true
}

run auto
run bloques

# The player's cover (10 × 5 cells from column 2, row 35 of 40) against its picture
# scaled to fill those cells.
w=$((10 * cw)) h=$((5 * ch))
convert "$work/auto-playing.png" -crop "${w}x${h}+$((2 * cw))+$((35 * ch))" +repage \
  "$work/cover-shown.png"
convert "$work/cover.png" -resize "${w}x${h}^" -gravity center -extent "${w}x${h}" \
  "$work/cover-expected.png"
ncc=$(compare -metric NCC "$work/cover-shown.png" "$work/cover-expected.png" null: 2>&1 || true)
echo "correlación de la carátula: $ncc"
awk -v v="$ncc" 'BEGIN { exit !(v >= 0.9) }' || { echo "la carátula no se parece a su imagen"; exit 1; }

# Album covers were drawn as images: the cover column is not blank in the sixel run.
column=$(convert "$work/auto-playing.png" -crop "$((10 * cw))x$((30 * ch))+$((36 * cw))+$((4 * ch))" \
  +repage -colorspace gray -format '%[fx:standard_deviation]' info:)
awk -v v="$column" 'BEGIN { exit !(v > 0.05) }' || { echo "sin carátulas en la lista"; exit 1; }

# After the steps, at 90 × 36: everything but the covers (the cover column of the list,
# the player's cover), the header (its messages expire) and the progress row (time
# moves) is the same as in the half-block run.
W=90 H=36
m=$((H - 6)) A=$((30 * W / 100))
mask=(-fill black
  -draw "rectangle 0,0 $((W * cw)),$((2 * ch - 1))"
  -draw "rectangle $(((A + 6) * cw)),$((4 * ch)) $(((A + 16) * cw - 1)),$(((m) * ch - 1))"
  -draw "rectangle $((2 * cw)),$(((m + 1) * ch)) $((12 * cw - 1)),$((H * ch - 1))"
  -draw "rectangle 0,$(((H - 1) * ch)) $((W * cw)),$((H * ch - 1))")
for mode in auto bloques; do
  convert "$work/$mode-after.png" -crop "$((W * cw))x$((H * ch))+0+0" +repage "${mask[@]}" \
    "$work/$mode-masked.png"
done
diff=$(compare -metric AE "$work/auto-masked.png" "$work/bloques-masked.png" null: 2>&1 || true)
echo "píxeles distintos fuera de las carátulas: $diff"
if [[ "$diff" != 0 ]]; then
  cp "$work"/*-after.png "${TMPDIR:-/tmp}/" 2>/dev/null || true
  echo "quedan restos de imágenes"
  exit 1
fi
