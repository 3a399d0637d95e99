#!/bin/bash
# tree_test.sh BUILD_DIR: what `cmake --install` puts down, below another prefix than the configured
# one, and that hosts build with it and run. CC, CFLAGS and CMAKE_GENERATOR are theirs.
set -euo pipefail
build=${1:?usage: tree_test.sh BUILD_DIR}
work=$(mktemp -d)
trap 'rm -rf --one-file-system "$work"' EXIT
prefix=$work/prefix

cmake --install "$build" --prefix "$prefix" >"$work/log" 2>&1 || { cat "$work/log" >&2; exit 1; }

failed=0
# expect PATTERN...: each is there, and no dangling link.
expect() {
  local found
  for pattern; do
    found=$(compgen -G "$prefix/$pattern" | head -n 1 || true)
    if [[ -z $found || ! -e $found ]]; then
      echo "not installed: $pattern" >&2
      failed=1
    fi
  done
}
lib=$(cd "$prefix" && dirname "$(find . -name libpki.so)")
lib=${lib#./}
expect "$lib/libpki.so" "$lib/libpki.so.0" "$lib/libpki.so.0.*" \
  "$lib/libboard.so" "$lib/libboard.so.0" "$lib/libboard.so.0.*" \
  "$lib/pkgconfig/libpki.pc" "$lib/cmake/libpki/libpki-config.cmake" \
  "$lib/cmake/libpki/libpki-config-version.cmake" "$lib/cmake/libpki/libpki-targets.cmake" \
  include/libpki/libpki.h include/libpki/error_list.inc include/board/board.h \
  bin/pkictl bin/pkilab share/man/man3/libpki.3 share/man/man3/ca_info.3 \
  share/man/man1/pkictl-verify.1 \
  share/bash-completion/completions/pkictl share/bash-completion/completions/pkilab \
  share/doc/libpki/README.md share/doc/libpki/docs/security.md \
  share/doc/libpki/examples/{tls_client,marshal_record,host,office,device,judge,servers}.c

# Links in documents lead to what is installed, and what is for the sources only is not there.
"$(dirname "$0")/installed_links.py" "$prefix/share/doc/libpki" || failed=1
if compgen -G "$prefix/share/doc/libpki/docs/testing.md" ||
  grep -nE 'make demo|build/release' "$prefix/share/doc/libpki/README.md"; then
  echo "installed: what is of use in the sources only" >&2
  failed=1
fi

# Nothing installed looks for libraries where it was built, and the tools start.
if readelf -d "$prefix/bin/pkictl" "$prefix/$lib/libpki.so.0" | grep -E 'RPATH|RUNPATH' >&2; then
  failed=1
fi
LD_LIBRARY_PATH=$prefix/$lib "$prefix/bin/pkictl" --version >/dev/null

# The folders that builds are told exist.
export PKG_CONFIG_PATH=$prefix/$lib/pkgconfig
for variable in libdir includedir; do
  folder=$(pkg-config --variable="$variable" libpki)
  if [[ $folder != "$prefix"/* || ! -d $folder ]]; then
    echo "libpki.pc: $variable is $folder" >&2
    failed=1
  fi
done

# quietly COMMAND...: says what the command said only if it fails.
quietly() {
  if ! "$@" >"$work/log" 2>&1; then
    echo "failed: $*" >&2
    cat "$work/log" >&2
    return 1
  fi
}

# Hosts link with what pkg-config says, also where linkers do not look for the board library. It
# brings libcrypto: only those that use TLS ask for more.
examples=$prefix/share/doc/libpki/examples
build_by_pkg_config() {
  local source name packages flags
  mkdir "$work/pkg-config"
  for source in "$examples"/*.c; do
    name=$(basename "$source" .c)
    packages=libpki
    [[ $name != @(host|tls_client) ]] || packages='libpki libssl'
    # shellcheck disable=SC2086  # packages and flags are words
    flags=$(pkg-config --cflags --libs $packages) &&
      quietly ${CC:-cc} ${CFLAGS:-} -std=c99 "$source" $flags -o "$work/pkg-config/$name" ||
      return 1
  done
}

build_by_cmake() {
  quietly cmake -S "$examples" -B "$work/cmake" "-DCMAKE_PREFIX_PATH=$prefix" || return 1
  grep -q "^libpki_DIR:PATH=$prefix/" "$work/cmake/CMakeCache.txt" ||
    { echo "find_package(libpki) found another one" >&2; return 1; }
  quietly cmake --build "$work/cmake"
}

# expect_hosts WAY: all examples were built that way, and one does its work.
expect_hosts() {
  local source name
  for source in "$examples"/*.c; do
    name=$(basename "$source" .c)
    [[ -x $work/$1/$name ]] || { echo "$1: $name was not built" >&2; return 1; }
  done
  for name in write read; do
    LD_LIBRARY_PATH=$prefix/$lib quietly "$work/$1/marshal_record" $name "$work/record-$1" ||
      return 1
  done
}

{ build_by_pkg_config && expect_hosts pkg-config; } || failed=1
{ build_by_cmake && expect_hosts cmake; } || failed=1

# In the system's own folder they find it: hosts get no flag beyond the library's.
DESTDIR=$work/system cmake --install "$build" --prefix /usr >>"$work/log" 2>&1
if grep -rE '^Libs:.*-Wl' "$work/system/usr/$lib/pkgconfig"; then
  failed=1
fi
exit $failed
