#!/bin/bash
# Builds the Debian packages from a copy of the sources, so that the working tree stays clean.
#
#   build_deb.sh OUT_DIR       OUT_DIR receives the packages; lintian says what it thinks of them
#
# DEB_BUILD_OPTIONS is honoured (nocheck, noopt, parallel=N). Where ccache is, it serves the build.
set -euo pipefail
cd "$(dirname "${BASH_SOURCE[0]}")/.."

out=${1:?usage: build_deb.sh OUT_DIR}
mkdir -p "$out"
out=$(realpath "$out")
version=$(dpkg-parsechangelog -S Version)
copy=$out/libpki-$version

# Files of the working tree, with git those that belong to it.
sources() {
  if git rev-parse --is-inside-work-tree >/dev/null 2>&1; then
    git ls-files -z --cached --others --exclude-standard |
      while IFS= read -r -d '' file; do
        if [ -e "$file" ]; then
          printf '%s\0' "$file"
        fi
      done
  else
    find . -path ./build -prune -o -type f -print0
  fi
}

rm -rf --one-file-system "$copy"
rm -f "$out"/*.deb "$out"/*.changes "$out"/*.buildinfo
mkdir "$copy"
sources | tar -c --null -T - | tar -x -C "$copy"

# debhelper gives the build a home of its own, which would have an empty cache.
if command -v ccache >/dev/null; then
  CCACHE_DIR=${CCACHE_DIR:-$(ccache -k cache_dir)}
  export CCACHE_DIR
fi
(cd "$copy" && dpkg-buildpackage --build=binary --no-sign)
rm -rf --one-file-system "$copy"

if command -v lintian >/dev/null; then
  (cd "$out" && lintian --allow-root --fail-on error --tag-display-limit 0 ./*.changes)
fi
ls "$out"/*.deb
