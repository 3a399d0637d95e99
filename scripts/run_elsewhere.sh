#!/bin/sh
# Runs a program that was built for another machine, with the libraries that scripts/sysroot.sh laid
# out. TOOL_PRELOAD in the environment is LD_PRELOAD for that program and nothing on its way.
#
#   run_elsewhere.sh i386|s390x SYSROOT PROGRAM [ARGUMENT ...]
#
# A program DIR/TRIPLET/NAME believes to be DIR/NAME, which starts it (cmake/run_by_path.cmake), so
# that it can start itself anew.
set -eu

architecture=$1
root=$2
program=$3
shift 3
preload=${TOOL_PRELOAD-}

case "$architecture" in
  i386)
    # OpenSSL's modules are where Debian puts them, had they been installed.
    exec env OPENSSL_MODULES="$root/usr/lib/i386-linux-gnu/ossl-modules" \
      ${preload:+LD_PRELOAD="$preload"} "$program" "$@"
    ;;
  *)
    called=$program
    case "$program" in
      */"$architecture"-linux-gnu/*)
        called=${program%/*/*}/${program##*/}
        ;;
    esac
    exec "qemu-$architecture" -L "$root" -0 "$called" ${preload:+-E LD_PRELOAD="$preload"} \
      "$program" "$@"
    ;;
esac
