#!/bin/sh
# Checks what a built libpki.so asks of its host and offers to it.
#
#   check_symbols.sh exports LIBRARY INCLUDE_DIR
#       The exported symbols are exactly the functions and variables that the public headers mark
#       PKI_API.
#   check_symbols.sh dependencies LIBRARY
#       The soname is libpki.so.0, and nothing is needed but libcrypto, libssl, the board library
#       and libc.
#   check_symbols.sh runtime LIBRARY
#       Nothing of the C++ runtime that throws, or ends the host when memory runs out, is used.
#
# Exit code: 0 as it should be, 1 not (standard error says what), 2 usage or an unreadable file.
set -eu
export LC_ALL=C

usage() {
  sed -n '2,/^set /s/^# \{0,1\}//p' "$0" >&2
  exit 2
}

# declared DIR: the names marked PKI_API, one a line, sorted.
declared() {
  grep -hv '^[[:space:]]*#' "$1"/libpki/*.h | tr '\n' ' ' |
    sed -e 's,/\*[^*]*\*\**\([^/*][^*]*\*\**\)*/, ,g' -e 's,[;{}],\n,g' |
    sed -n '/PKI_API/{
      s/.*PKI_API//
      s/(.*//
      s/\[.*//
      s/[[:space:]]*$//
      s/.*[^A-Za-z0-9_]//
      p
    }' | sort
}

# exported FILE: the defined dynamic symbols, one a line, sorted; version names are no symbols.
exported() {
  nm -D --defined-only "$1" | awk '$2 != "A" { sub(/@.*/, "", $3); print $3 }' | sort
}

check_exports() {
  work=$(mktemp -d)
  trap 'rm -r "$work"' EXIT
  declared "$2" >"$work/declared"
  exported "$1" >"$work/exported"
  [ -s "$work/declared" ] || {
    echo "$2: no header marks anything PKI_API" >&2
    return 1
  }
  if ! cmp -s "$work/declared" "$work/exported"; then
    comm -23 "$work/declared" "$work/exported" | sed 's/^/declared, not exported: /' >&2
    comm -13 "$work/declared" "$work/exported" | sed 's/^/exported, not declared: /' >&2
    return 1
  fi
  echo "$(wc -l <"$work/declared") symbols, as declared"
}

check_dependencies() {
  dynamic=$(readelf -d -W "$1")
  soname=$(echo "$dynamic" | sed -n 's/.*(SONAME).*\[\(.*\)\]/\1/p')
  [ "$soname" = libpki.so.0 ] || {
    echo "soname: '$soname'" >&2
    return 1
  }
  needed=$(echo "$dynamic" | sed -n 's/.*(NEEDED).*\[\(.*\)\]/\1/p')
  extra=$(echo "$needed" | grep -Ev '^lib(crypto|ssl|board|c)\.so\.[0-9]+$' || true)
  [ -z "$extra" ] || {
    echo "$extra" | sed 's/^/needed, not allowed: /' >&2
    return 1
  }
  echo "$needed" | sed 's/^/needs /'
}

check_runtime() {
  undefined=$(nm -uC "$1")
  found=$(echo "$undefined" |
    grep -E 'operator new|operator delete|std::|__cxa_(throw|allocate_exception|rethrow)|__gxx_' |
    grep -v 'std::nothrow_t const&' || true)
  [ -z "$found" ] || {
    echo "$found" >&2
    return 1
  }
  echo "no throwing C++ runtime"
}

if [ $# -lt 2 ] || [ ! -r "$2" ]; then
  usage
fi
case $1 in
  exports)
    if [ $# -ne 3 ] || [ ! -d "$3/libpki" ]; then
      usage
    fi
    check_exports "$2" "$3"
    ;;
  dependencies) check_dependencies "$2" ;;
  runtime) check_runtime "$2" ;;
  *) usage ;;
esac
