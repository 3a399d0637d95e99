#!/bin/bash
# make lint: clang-format, clang-tidy, cppcheck, the house rules (lint.py), and the documents
# (check_docs.py, doxygen). Says everything that is wrong before it fails.
#
#   lint.sh BUILD_DIR      a build that has the library
set -uo pipefail
cd "$(dirname "${BASH_SOURCE[0]}")/.." || exit 1

build=${1:?usage: lint.sh BUILD_DIR}
jobs=$(nproc)
failed=0

# check NAME COMMAND...: runs a checker and says how it went.
check() {
  local name=$1
  shift
  if "$@"; then
    echo "lint: $name: ok"
  else
    echo "lint: $name: FAILED" >&2
    failed=1
  fi
}

all_sources() {
  find src include board tools tests bench examples fuzz \
    \( -name '*.cc' -o -name '*.c' -o -name '*.h' \) -print0
}

format_all() {
  all_sources | xargs -0 clang-format --dry-run -Werror
}

# The library, the board library and the tools; tests and benchmarks are the compiler's to judge.
# A configuration of its own, in which each source is compiled by itself.
tidy_all() {
  cmake -G Ninja -S . -B "$build/lint" -DCMAKE_BUILD_TYPE=RelWithDebInfo -DPKI_BUILD_TESTS=OFF \
    -DPKI_UNITY_BUILD=OFF --log-level=WARNING >/dev/null &&
    cmake --build "$build/lint" --target src/generated/verifier/trust_roots/images.h >/dev/null ||
    return 1
  find src board tools \( -name '*.cc' -o -name '*.c' \) -print0 |
    xargs -0 -n 1 -P "$jobs" clang-tidy --quiet --extra-arg=-Wno-unknown-warning-option -p "$build/lint" 2> >(
      grep -vE '^[0-9]+ warnings? generated|^Suppressed |^Use -header-filter' >&2
    )
}

# autoVariables: the option structs of a main outlive the parser that is given their address.
# OpenSSL's template macros end no statement that cppcheck knows.
cppcheck_all() {
  cppcheck --quiet --error-exitcode=1 --inline-suppr -j "$jobs" \
    --enable=warning,performance,portability --std=c++20 --std=c99 --template=gcc \
    --suppress='autoVariables:tools/*/main.cc' '-Dstatic_ASN1_SEQUENCE_END(type)=;' \
    -I include -I src -I board/include -I tools src board tools
}

# The manual of the interface; a warning is an error.
manual() {
  mkdir -p "$build/docs" &&
    { cat docs/Doxyfile && echo "OUTPUT_DIRECTORY = $build/docs"; } | doxygen -
}

check clang-format format_all
check docs python3 scripts/check_docs.py
check manual manual
check house-rules python3 scripts/lint.py "$build"
check cppcheck cppcheck_all
check clang-tidy tidy_all
exit $failed
