#!/bin/sh
# What the library takes of a device: its stripped size on disk, and the memory that a C host has
# resident after libpki_init beyond one that only calls OPENSSL_init_ssl; against the budgets.
#
#   bench_footprint.sh LIBRARY HOST_WITH_OPENSSL HOST_WITH_LIBPKI [STRIP]
#
# Exit code: 0 within the budgets, 1 above, 2 usage or a program that fails.
set -eu

size_budget_kb=250   # kilobytes of 1000 octets
memory_budget=1024   # KiB
processes=21

if [ $# -lt 3 ]; then
  sed -n '2,/^set /s/^# \{0,1\}//p' "$0" >&2
  exit 2
fi

# median PROGRAM: of what it prints in fresh processes. Where the kernel puts the libraries differs
# from process to process, and how many of their pages come in with the first one.
median() {
  for _ in $(seq $processes); do
    "$1" || exit 2
  done | sort -n | sed -n "$((processes / 2 + 1))p"
}

stripped=$(mktemp)
trap 'rm -f "$stripped"' EXIT
"${4:-strip}" -o "$stripped" "$1"
size=$(wc -c <"$stripped")
with_openssl=$(median "$2")
with_libpki=$(median "$3")
more=$((with_libpki - with_openssl))

kept() {
  if [ "$1" -le "$2" ]; then
    echo kept
  else
    echo MISSED
  fi
}
size_kept=$(kept "$size" $((size_budget_kb * 1000)))
memory_kept=$(kept "$more" $memory_budget)
echo "stripped library: $size octets; budget $size_budget_kb,000: $size_kept"
echo "resident after libpki_init: $with_libpki KiB, after OPENSSL_init_ssl only: $with_openssl KiB;" \
  "$more KiB more; budget $memory_budget KiB: $memory_kept"
[ "$size_kept$memory_kept" = keptkept ]
