#!/bin/sh
# Installs the Debian packages that a target needs, and only those that are missing.
#
#   bootstrap.sh build          compile, test, benchmark
#   bootstrap.sh build lint     the same, and the checkers of `make lint`
#   bootstrap.sh docs           the manual in HTML
#   bootstrap.sh build fuzz     the same, and the compiler of `make fuzz`
#   bootstrap.sh build deb      the same, and what builds and checks Debian packages
#   bootstrap.sh build i386     the same, and what compiles for 32-bit x86
#   bootstrap.sh build s390x    the same, and what compiles for s390x and runs its programs
#   bootstrap.sh checks         what some tests look with: at the interface, at manual pages
#   bootstrap.sh peers          what others made and the tests hold us against: programs to talk to,
#                               certificates and CRLs to judge
set -eu

# binutils (nm, readelf), make and the sanitizers' run-time libraries come with g++ and its
# dependencies.
build_packages="g++ cmake ninja-build pkg-config openssl python3 \
  libssl-dev libxml2-dev libgtest-dev libgmock-dev libbenchmark-dev \
  libcli11-dev nlohmann-json3-dev libksba-dev libgpg-error-dev strace"
lint_packages="clang-format clang-tidy cppcheck python3"
docs_packages="doxygen python3"
fuzz_packages="clang libclang-rt-14-dev"
deb_packages="debhelper dpkg-dev fakeroot lintian man-db"
i386_packages="g++-i686-linux-gnu"
s390x_packages="g++-s390x-linux-gnu qemu-user"
checks_packages="abigail-tools man-db mandoc"
peers_packages="scep certmonger python3-cryptography-vectors"

wanted=""
for group in "$@"; do
  case "$group" in
    build) wanted="$wanted $build_packages" ;;
    lint) wanted="$wanted $lint_packages" ;;
    docs) wanted="$wanted $docs_packages" ;;
    fuzz) wanted="$wanted $fuzz_packages" ;;
    deb) wanted="$wanted $deb_packages" ;;
    i386) wanted="$wanted $i386_packages" ;;
    s390x) wanted="$wanted $s390x_packages" ;;
    checks) wanted="$wanted $checks_packages" ;;
    peers) wanted="$wanted $peers_packages" ;;
    *)
      echo "bootstrap.sh: unknown group '$group' (build, lint, docs, fuzz, deb, i386, s390x," \
        "checks, peers)" >&2
      exit 2
      ;;
  esac
done

if ! command -v apt-get >/dev/null || ! command -v dpkg-query >/dev/null; then
  echo "bootstrap.sh: no apt-get here; the build needs the counterparts of:$wanted" >&2
  exit 0
fi

missing=""
for package in $wanted; do
  # shellcheck disable=SC2016  # dpkg-query's own variable
  state=$(dpkg-query -W -f='${db:Status-Status}' "$package" 2>/dev/null || true)
  if [ "$state" != installed ]; then
    missing="$missing $package"
  fi
done
if [ -z "$missing" ]; then
  exit 0
fi

as_root=""
if [ "$(id -u)" -ne 0 ]; then
  if ! command -v sudo >/dev/null; then
    echo "bootstrap.sh: as root, run: apt-get install$missing" >&2
    exit 1
  fi
  as_root="sudo"
fi

# Says nothing unless it fails.
quietly() {
  log=$(mktemp)
  if ! "$@" >"$log" 2>&1 </dev/null; then
    cat "$log" >&2
    rm -f "$log"
    return 1
  fi
  rm -f "$log"
}

apt() {
  quietly $as_root env DEBIAN_FRONTEND=noninteractive apt-get -y -q \
    -o DPkg::Lock::Timeout=600 "$@"
}

echo "Installing:$missing"
# Old package lists may do; a machine that never had any needs an update first.
# shellcheck disable=SC2086  # a list of words
if ! apt install --no-install-recommends $missing 2>/dev/null; then
  apt update
  apt install --no-install-recommends $missing
fi
