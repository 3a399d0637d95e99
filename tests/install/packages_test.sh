#!/bin/bash
# packages_test.sh DEB_DIR: installs the Debian packages into a fresh root folder and uses them as a
# host's programmer does. `make deb` builds them. Exit code 77: there are none, or no dpkg.
#
# The root's package database starts as a copy of this machine's, so that dependencies are real;
# compilers and what the library needs are this machine's too.
set -euo pipefail

debs=${1:?usage: packages_test.sh DEB_DIR}
shopt -s nullglob
packages=("$debs"/libpki0_*.deb "$debs"/libpki-dev_*.deb "$debs"/libpki-tools_*.deb)
if ! command -v dpkg >/dev/null || ((${#packages[@]} != 3)); then
  echo "packages_test.sh: no packages in $debs; see make deb" >&2
  exit 77
fi

work=$(mktemp -d)
server=
finish() {
  if [[ -n $server ]]; then
    kill "$server" 2>/dev/null || true
  fi
  rm -rf --one-file-system "$work"
}
trap finish EXIT

# quietly COMMAND...: says what the command said only if it fails.
quietly() {
  if ! "$@" >"$work/log" 2>&1; then
    echo "failed: $*" >&2
    cat "$work/log" >&2
    exit 1
  fi
}

# ---- install ----

root=$work/root
mkdir -p "$root/var/lib/dpkg/info" "$root/var/lib/dpkg/updates" "$root/var/log"
awk -v RS= -v ORS='\n\n' '!/^Package: libpki(0|-dev|-tools)\n/' /var/lib/dpkg/status \
  >"$root/var/lib/dpkg/status"
quietly dpkg --root="$root" --force-not-root --force-script-chrootless --install "${packages[@]}"

triplet=$(dpkg-architecture -q DEB_HOST_MULTIARCH)
libraries=$root/usr/lib/$triplet
for package in libpki0 libpki-dev libpki-tools; do
  state=$(dpkg-query --admindir="$root/var/lib/dpkg" -W -f='${db:Status-Status}' "$package")
  [[ $state == installed ]] || { echo "$package is $state" >&2; exit 1; }
done

# ---- the tools ----

export LD_LIBRARY_PATH=$libraries XDG_STATE_HOME=$work/state
for tool in pkictl pkilab; do
  quietly "$root/usr/bin/$tool" --version
done
TOOLS=$root/usr/bin quietly "$(dirname "$0")/completion_test.sh" \
  "$root/usr/share/bash-completion/completions"

# ---- documents ----

for package in libpki-dev libpki-tools; do
  "$(dirname "$0")/installed_links.py" "$root/usr/share/doc/$package"
done

# ---- manual pages ----

if command -v man >/dev/null; then
  for page in '3 libpki' '3 libpki_init' '3 pki_add_ca' '3 pki_find_certs_by_subject' \
    '1 pkictl' '1 pkictl-verify' '1 pkilab-serve'; do
    read -r section name <<<"$page"
    MANPATH='' quietly man -M "$root/usr/share/man" "$section" "$name"
    grep -q "$name" "$work/log" || { echo "man $section $name shows something else" >&2; exit 1; }
  done
fi

# ---- the examples, by pkg-config and by CMake ----

examples=$root/usr/share/doc/libpki-dev/examples
programs=("$examples"/*.c)
for name in tls_client marshal_record host office device judge servers; do
  [[ -s $examples/$name.c ]] || { echo "not installed: the example $name.c" >&2; exit 1; }
done

export PKG_CONFIG_PATH=$libraries/pkgconfig
flags=$(pkg-config --define-variable=prefix="$root/usr" --cflags --libs libpki libssl)
mkdir "$work/pkg-config"
for program in "${programs[@]}"; do
  # shellcheck disable=SC2086  # flags are words
  quietly cc -std=c99 -Wall -Wextra -Werror -D_POSIX_C_SOURCE=200809L "$program" $flags \
    -o "$work/pkg-config/$(basename "$program" .c)"
done

quietly cmake -S "$examples" -B "$work/cmake" -DCMAKE_PREFIX_PATH="$root/usr"
grep -q "libpki_DIR:PATH=$root" "$work/cmake/CMakeCache.txt" ||
  { echo "find_package(libpki) found another one" >&2; exit 1; }
quietly cmake --build "$work/cmake"

# A server whose certificate is trusted as it is, so that nobody has to be asked about it.
quietly openssl req -x509 -newkey rsa:2048 -nodes -days 2 -subj /CN=localhost \
  -addext subjectAltName=DNS:localhost -keyout "$work/key.pem" -out "$work/cert.pem"
openssl s_server -accept 127.0.0.1:0 -key "$work/key.pem" -cert "$work/cert.pem" -quiet -naccept 4 \
  >"$work/server.log" 2>&1 </dev/zero &
server=$!

# The port that the server was given. It is the only socket that the process listens at.
listening_port() {
  local inode line
  for _ in $(seq 200); do
    for inode in $(readlink "/proc/$server/fd/"* | sed -n 's/^socket:\[\(.*\)\]$/\1/p'); do
      line=$(awk -v inode="$inode" '$4 == "0A" && $10 == inode { print $2 }' /proc/net/tcp)
      if [[ -n $line ]]; then
        echo $((16#${line##*:}))
        return
      fi
    done
    sleep 0.05
  done
  echo "openssl s_server does not listen" >&2
  return 1
}
port=$(listening_port)

for way in pkg-config cmake; do
  for program in "${programs[@]}"; do
    name=$work/$way/$(basename "$program" .c)
    case $name in
      */marshal_record)
        quietly "$name" write "$work/record-$way"
        quietly "$name" read "$work/record-$way"
        ;;
      */servers) quietly "$name" ;;
      */tls_client) quietly "$name" localhost "$port" "$work/cert.pem" ;;
      *) [[ -x $name ]] || { echo "$name was not built" >&2; exit 1; } ;;
    esac
  done
done
echo "installed, built with and run: ${programs[*]##*/}"
