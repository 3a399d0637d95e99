#!/bin/sh
# Lays out the libraries of another machine for cross-compiling: Debian's own packages for it,
# unpacked into a folder, and nothing installed. (To install them beside this machine's would need
# the same versions of both, which security updates of one machine alone take apart.)
#
#   sysroot.sh i386|s390x FOLDER
#
# A folder that is complete is left as it is; remove it to have it made anew.
set -eu

if [ $# -ne 2 ]; then
  echo "usage: sysroot.sh ARCHITECTURE FOLDER" >&2
  exit 2
fi
architecture=$1
root=$2
packages="libc6 libgcc-s1 libstdc++6 libssl3 libssl-dev libxml2 libxml2-dev libicu72 liblzma5 zlib1g \
  libgtest-dev libgmock-dev libcli11-dev nlohmann-json3-dev"

if [ "$(cat "$root/packages" 2>/dev/null || true)" = "$packages" ]; then
  exit 0
fi

work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
mkdir -p "$work/lists/partial" "$work/cache/archives/partial" "$work/packages"
: >"$work/status"

# The machine's own sources, but package lists, cache and state of our own.
apt() {
  apt-get -q -o APT::Architecture="$architecture" -o APT::Architectures="$architecture" \
    -o Dir::State::lists="$work/lists" -o Dir::State::status="$work/status" \
    -o Dir::Cache="$work/cache" -o APT::Sandbox::User= -o Acquire::Languages=none \
    -o Debug::NoLocking=1 "$@"
}

echo "Fetching: $packages, for $architecture"
# Not every source has every machine; what counts is that the packages are found.
apt update >"$work/log" 2>&1 || true
# shellcheck disable=SC2086  # a list of words
if ! (cd "$work/packages" && apt download $packages >>"$work/log" 2>&1); then
  cat "$work/log" >&2
  exit 1
fi

rm -rf --one-file-system "$root"
mkdir -p "$root"
for package in "$work/packages"/*.deb; do
  dpkg-deb -x "$package" "$root"
done
echo "$packages" >"$root/packages"
