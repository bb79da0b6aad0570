#!/usr/bin/env bash
# SPDX-License-Identifier: GPL-3.0-or-later
# Installs the Debian package on a fresh Debian 12 made with debootstrap, the way a
# user would: `dpkg -i` (which stops at the missing libraries), then `apt-get -f
# install` to bring in what its Depends name, then `trovan --version`. Needs root and
# the Debian mirror; takes a few minutes, so it is not part of the test suite.
#
#   scripts/check-deb.sh [PACKAGE.deb]
#
# Without a package it builds one from build/release (Release) with cpack first.
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
mirror=${DEBIAN_MIRROR:-http://deb.debian.org/debian}

fail() {
  echo "check-deb: $*" >&2
  exit 1
}
[[ $(id -u) -eq 0 ]] || fail "hace falta root (debootstrap y chroot)"
# Tools for this check only; the test suite does not need them.
for tool in debootstrap lintian; do
  command -v "$tool" >/dev/null ||
    DEBIAN_FRONTEND=noninteractive apt-get install -y -qq --no-install-recommends "$tool" >/dev/null
done

deb=${1:-}
if [[ -z $deb ]]; then
  build=$root/build/release
  if [[ ! -f $build/build.ninja ]]; then
    "$root/scripts/install-deps.sh"
    cmake -S "$root" -B "$build" -G Ninja -DCMAKE_BUILD_TYPE=Release \
      -DTROVAN_TESTS=OFF -DTROVAN_BENCH=OFF >/dev/null
  fi
  ninja -C "$build" >/dev/null
  (cd "$build" && cpack -G DEB >/dev/null)
  deb=$(ls -t "$build"/trovan_*.deb | head -n 1)
fi
[[ -f $deb ]] || fail "no existe el paquete $deb"

# Debian's own package checker: errors fail, the rest is shown.
lintian --fail-on error "$deb" 2>/dev/null || fail "lintian encuentra errores en $deb"

target=$(mktemp -d /var/tmp/trovan-bookworm-XXXXXX)
cleanup() {
  umount "$target/proc" 2>/dev/null || true
  rm -rf --one-file-system "$target"
}
trap cleanup EXIT

echo "check-deb: debootstrap bookworm en $target" >&2
debootstrap --variant=minbase bookworm "$target" "$mirror" >"$target.log" 2>&1 ||
  fail "debootstrap falló: $(tail -n 5 "$target.log")"
rm -f "$target.log"
mount -t proc proc "$target/proc"
cp "$deb" "$target/tmp/trovan.deb"
in_chroot() { chroot "$target" /usr/bin/env -i PATH=/usr/sbin:/usr/bin:/sbin:/bin \
  DEBIAN_FRONTEND=noninteractive LC_ALL=C.UTF-8 "$@"; }

# A fresh system lacks FFmpeg, cubeb, TagLib and ICU: dpkg must refuse to configure.
if in_chroot dpkg -i /tmp/trovan.deb >"$target/tmp/dpkg.log" 2>&1; then
  fail "dpkg -i no echó nada en falta en un sistema vacío"
fi
grep -q "dependency problems" "$target/tmp/dpkg.log" || fail "dpkg -i falló por otra razón:
$(cat "$target/tmp/dpkg.log")"
in_chroot apt-get update -qq >"$target/tmp/apt.log" 2>&1 || fail "apt-get update: $(cat "$target/tmp/apt.log")"
in_chroot apt-get -f install -y --no-install-recommends >"$target/tmp/apt.log" 2>&1 ||
  fail "apt-get -f install: $(tail -n 20 "$target/tmp/apt.log")"
pulled=$(grep -c '^Setting up ' "$target/tmp/apt.log" || true)
status=$(in_chroot dpkg-query -W -f='${Status}' trovan)
[[ $status == "install ok installed" ]] || fail "trovan quedó en estado: $status"
version=$(in_chroot trovan --version)
[[ $version =~ ^trovan\ [0-9]+\.[0-9]+\.[0-9]+$ ]] || fail "trovan --version dice: $version"
# The modules' libraries came with the Depends too: nothing they need is missing.
missing=$(in_chroot sh -c 'ldd /usr/bin/trovan /usr/lib/*/trovan/*.so' | grep "not found" || true)
[[ -z $missing ]] || fail "bibliotecas que faltan: $missing"
echo "check-deb: correcto: $(basename "$deb") instalado en Debian $(cat "$target/etc/debian_version")" \
  "con $pulled paquetes traídos por apt-get -f install; $version"
