#!/bin/bash
# vendor_roots_test.sh SOURCE_DIR: what is built in with PKI_VENDOR_ROOTS_DIR=FOLDER are the
# certificates of that folder, each in its place, and nothing else is taken.
set -euo pipefail
source_dir=${1:?usage: vendor_roots_test.sh SOURCE_DIR}
work=$(mktemp -d)
trap 'rm -rf --one-file-system "$work"' EXIT
folder="$work/a vendor's roots"
header=src/generated/verifier/trust_roots/images.h
mkdir "$folder"

fail() {
  echo "$1" >&2
  cat "$work/log" >&2
  exit 1
}

# make_root NAME: another self-signed certificate in NAME.der.
make_root() {
  openssl req -x509 -newkey ec -pkeyopt ec_paramgen_curve:prime256v1 -nodes -days 2 \
    -subj "/CN=vendor $1 $RANDOM" -keyout "$work/key.pem" -outform DER -out "$folder/$1.der" \
    >"$work/log" 2>&1 || fail "no certificate $1"
}

build() {
  cmake --build "$work/build" --target "$header" >"$work/log" 2>&1
}

octets_of_file() {
  od -An -v -tx1 "$1" | tr -d ' \n'
}

octets_of_array() {
  sed -n "/ $1\[\] = {/,/^};/p" "$work/build/$header" | grep -oE '0x[0-9a-f]{2}' | sed 's/^0x//' |
    tr -d '\n'
}

expect_built_in() {
  local place name array
  build || fail "the folder's files were refused"
  for place in corporate_root=zelvo_corprootg1_der emergency_root=zelvo_emrroot_der \
    engineering_root=zelvo_engrootv1_der; do
    name=${place%=*} array=${place#*=}
    [[ $(octets_of_file "$folder/$name.der") == "$(octets_of_array "$array")" ]] ||
      fail "$array is not the folder's $name.der"
  done
}

# expect_refused WHAT NAME: the build says which file it does not take.
expect_refused() {
  ! build || fail "$1 was taken"
  grep -q "/$2.der" "$work/log" || fail "$1: no word about $2.der"
}

for name in corporate_root emergency_root engineering_root; do
  make_root "$name"
done
cmake -G Ninja -S "$source_dir" -B "$work/build" -DPKI_BUILD_TOOLS=OFF -DPKI_BUILD_EXAMPLES=OFF \
  -DPKI_BUILD_TESTS=OFF "-DPKI_VENDOR_ROOTS_DIR=$folder" >"$work/log" 2>&1 ||
  fail "no configuration"
expect_built_in

make_root emergency_root
expect_built_in

openssl x509 -inform DER -in "$folder/engineering_root.der" -out "$work/root.pem"
cp "$work/root.pem" "$folder/engineering_root.der"
expect_refused "a PEM file" engineering_root

make_root engineering_root
rm "$folder/corporate_root.der"
expect_refused "a folder without one of the files" corporate_root
