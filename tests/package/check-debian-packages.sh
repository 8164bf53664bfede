#!/usr/bin/env bash
# Unpacks the Debian packages into a fresh folder with dpkg -x (no installation), then runs
# zavlo-auth capabilities and the GObject layer's Python test from that folder alone.
#   tests/package/check-debian-packages.sh PACKAGES_FOLDER OPERATOR
# OPERATOR is the tests' local operator (build/release/tests/zavlo-test-operator).
set -euo pipefail
packages=$1
operator=$2
here="$(cd "$(dirname "$0")" && pwd)"
root=$(mktemp -d)
trap 'rm -rf "$root"' EXIT
shopt -s nullglob
debs=("$packages"/*.deb)
if ((${#debs[@]} == 0)); then
  echo "skipped: no .deb in $packages (scripts/package builds them)"
  exit 77
fi
for deb in "${debs[@]}"; do
  case "$deb" in *-dbgsym_*) continue ;; esac
  dpkg -x "$deb" "$root"
done
multiarch=$(dpkg-architecture -qDEB_HOST_MULTIARCH)
libraries="$root/usr/lib/$multiarch"
for expected in "$root/usr/bin/zavlo-auth" "$libraries/libzavlo-auth.so.0" "$libraries/libzavlo-auth-glib.so.0" \
                "$libraries/girepository-1.0/ZavloAuth-0.typelib" "$root/usr/share/man/man1/zavlo-auth.1.gz"; do
  [[ -e "$expected" ]] || { echo "missing from the packages: ${expected#"$root"}"; exit 1; }
done
LD_LIBRARY_PATH="$libraries" "$root/usr/bin/zavlo-auth" capabilities | tee "$root/capabilities"
grep -q '"status":"SUCCESS"' "$root/capabilities"
# The typelib names libzavlo-auth-glib.so.0, found here through LD_LIBRARY_PATH only.
GI_TYPELIB_PATH="$libraries/girepository-1.0" LD_LIBRARY_PATH="$libraries" ZAVLO_TEST_OPERATOR="$operator" \
  PYTHONDONTWRITEBYTECODE=1 /usr/bin/python3 "$here/../glib/ZavloGLibClientTest.py"
echo "the unpacked packages work"
