#!/bin/bash
# The interface that hosts were built against: the library's symbols and the types behind them.
#
#   abi.sh write LIBRARY TYPES     keeps it: packaging/*.abi and debian/libpki0.symbols
#   abi.sh check LIBRARY TYPES     holds it against what was kept
#
# TYPES is the module made from tests/abi/interface_types.cc: constants, and types that no function
# leads to. Both are built with debug information by GCC for x86-64. Exit code: 0 as it should be, 1 not
# (standard error says what), 2 usage, 77 there is no abidw (Debian package abigail-tools).
set -euo pipefail
cd "$(dirname "${BASH_SOURCE[0]}")/.."

kept_interface=packaging/libpki.abi
kept_types=packaging/libpki_types.abi
symbols=debian/libpki0.symbols
# Nobody's business is what no exported function or object leads to, where the library was built,
# and by what name a parameter goes. (A folder of public headers must not be given: abidiff then
# takes the types that were kept, which have no location, for private, and sees no change in them.)
portable=(--exported-interfaces-only --no-corpus-path --no-comp-dir-path --no-show-locs
  --no-elf-needed --no-parameter-names --drop-undefined-syms --type-id-style hash)

if [ $# -ne 3 ] || [ ! -r "${2:-}" ] || [ ! -r "${3:-}" ]; then
  sed -n '2,/^set /s/^# \{0,1\}//p' "$0" >&2
  exit 2
fi
library=$(realpath "$2")
types=$(realpath "$3")
if ! command -v abidw >/dev/null || ! command -v abidiff >/dev/null; then
  echo "abi.sh: no abidw and abidiff here; install abigail-tools" >&2
  exit 77
fi

exported() {
  nm -D --defined-only "$library" | awk '$2 != "A" { sub(/@.*/, "", $3); print $3 }' | LC_ALL=C sort
}

# The symbols file of Debian: with each symbol the version that brought it.
write_symbols() {
  local version name since
  version=$(sed -n '1s/.*(\(.*\)).*/\1/p' debian/changelog)
  sed '/^ LIBPKI_0@LIBPKI_0 /q' "$symbols"
  while read -r name; do
    since=$(sed -n "s/^ $name@LIBPKI_0 //p" "$symbols")
    echo " $name@LIBPKI_0 ${since:-$version}"
  done < <(exported)
  sed -n '/^libboard/,$p' "$symbols"
}

# write_interface BINARY FILE
write_interface() {
  abidw "${portable[@]}" "$1" | sed -E "s#path='[^']*/(src|tests)/#path='\1/#" >"$2.new"
  mv "$2.new" "$2"
}

# compare OPTION...: what abidiff has to say. It fails when something differs.
compare() {
  abidiff --exported-interfaces-only "$@" "$kept_interface" "$library" &&
    abidiff --exported-interfaces-only "$@" "$kept_types" "$types"
}

# Constants of the headers that are not kept.
forgotten() {
  cat include/libpki/*.h | grep -oE '\b(PKI|SCEP)_[A-Z0-9_]+ = -?[0-9]+' | while read -r name _ value; do
    grep -q "enumerator name='$name' value='$value'" "$kept_types" || echo "$name"
  done
}

check_interface() {
  local differences
  differences=$(forgotten)
  if [ -n "$differences" ]; then
    echo "Not in $kept_types: $differences" >&2
    echo "Is the type in tests/abi/interface_types.cc? Then: make abi" >&2
    return 1
  fi
  if ! differences=$(compare --no-added-syms 2>&1); then
    echo "$differences" >&2
    echo "The interface has changed for hosts that were built against it. That takes another" >&2
    echo "soname. Where the difference is none to them, or no release had it: make abi" >&2
    return 1
  fi
  if ! differences=$(compare 2>&1); then
    echo "$differences" >&2
    echo "The interface has grown: make abi" >&2
    return 1
  fi
  if ! differences=$(diff "$symbols" <(write_symbols)); then
    echo "$differences" >&2
    echo "$symbols is not up to date: make abi" >&2
    return 1
  fi
  echo "$(exported | wc -l) symbols, as they were"
}

case $1 in
  write)
    write_interface "$library" "$kept_interface"
    write_interface "$types" "$kept_types"
    write_symbols >"$symbols.new"
    mv "$symbols.new" "$symbols"
    ;;
  check) check_interface ;;
  *)
    echo "abi.sh: unknown command '$1'" >&2
    exit 2
    ;;
esac
