#!/bin/bash
# completion_test.sh FOLDER: what the completion in FOLDER offers.
set -uo pipefail
folder=${1:?usage: completion_test.sh FOLDER}
failed=0

# shellcheck source=/dev/null
source "$folder/pkictl"
# shellcheck source=/dev/null
source "$folder/pkilab"

# What the completion asks of bash: "+o default" takes file names away.
asked=
compopt() {
  asked="$asked $*"
}

# complete_line WORD...: what is offered for the last word, in COMPREPLY.
complete_line() {
  asked=
  COMP_WORDS=("$@")
  COMP_CWORD=$((${#COMP_WORDS[@]} - 1))
  "_$1"
}

# expect OFFER... -- WORD...: exactly these are offered.
expect() {
  local wanted=()
  while [[ $1 != -- ]]; do
    wanted+=("$1")
    shift
  done
  shift
  complete_line "$@"
  if [[ "${COMPREPLY[*]}" != "${wanted[*]}" ]]; then
    echo "'$*': wanted '${wanted[*]}', got '${COMPREPLY[*]}'" >&2
    failed=1
  fi
}

# expect_only OFFER... -- WORD...: exactly these are offered, and no file where they are none.
expect_only() {
  expect "$@"
  if [[ $asked != *"+o default"* ]]; then
    echo "'$*': files are offered too" >&2
    failed=1
  fi
}

# expect_files WORD...: nothing of ours, so that bash offers files.
expect_files() {
  expect -- "$@"
  if [[ -n $asked ]]; then
    echo "'$*': no files are offered" >&2
    failed=1
  fi
}

# expect_among OFFER -- WORD...: this one is offered, and others.
expect_among() {
  local one=$1
  shift 2
  complete_line "$@"
  if [[ " ${COMPREPLY[*]} " != *" $one "* ]] || ((${#COMPREPLY[@]} < 2)); then
    echo "'$*': '$one' is missing in '${COMPREPLY[*]}'" >&2
    failed=1
  fi
}

# Every subcommand that --help lists is offered. listed TOOL WORD...
listed() {
  local child
  while read -r child; do
    complete_line "$@" "$child"
    if [[ " ${COMPREPLY[*]} " != *" $child "* ]]; then
      echo "'$*': '$child' is missing in '${COMPREPLY[*]}'" >&2
      failed=1
    fi
  done < <("$TOOLS/$1" "${@:2}" --help | sed -n '/^Subcommands:/,/^$/s/^  \([a-z][a-z-]*\) .*/\1/p')
}
if [[ -n ${TOOLS:-} ]]; then
  listed pkictl
  listed pkictl cainfo
  listed pkictl ca
  listed pkilab
fi

# Labels are those of the state that the command line names, or of the default one.
expect_labels() {
  expect_only device spare -- pkictl key export ''
  expect_only spare -- pkictl key remove --state "$1" sp
  expect_only device -- pkictl enroll --state "$1" --key dev
  expect_only device spare -- pkictl cert find --key = ''
  expect_only device spare -- pkictl cert export --out file ''
  expect_only mail tls -- pkictl cert export device ''
  expect_only tls -- pkictl cert export --state = "$1" device t
  expect_only tls -- pkictl enroll --key spare --cert ''
  expect_only office -- pkictl enroll --ca ''
  expect_only office -- pkictl provision --label of
  expect_only office -- pkictl ca remove ''
  expect_only office -- pkictl ca remove --state "$1" of
  expect_only -- pkictl enroll --ca x
  expect_only -- pkictl key generate ''
  expect_only -- pkictl key export --state "$1/none" ''
  if [[ -e $1/none ]]; then
    echo "a missing state was made" >&2
    failed=1
  fi
  expect_files pkictl key export device ''
  expect_files pkictl key export --out ''
}

work=$(mktemp -d)
lab=
finish() {
  if [[ -n $lab ]]; then
    kill "$lab" 2>/dev/null
  fi
  rm -rf --one-file-system "$work"
}
trap finish EXIT

# must COMMAND...: what the tests stand on.
must() {
  if ! "$@" >>"$work/log" 2>&1; then
    cat "$work/log" >&2
    exit 1
  fi
}

# A state with two keys, three certificates and a CA.
make_state() {
  local row
  mkdir "$work/board"
  printf SN-0001 >"$work/board/serialnumber"
  printf secret >"$work/board/secret"
  export BOARD_INFO_DIR=$work/board
  pkilab serve --dir "$work/lab" --quiet --ready-file "$work/ready" >"$work/lab.log" 2>&1 &
  lab=$!
  until [[ -e $work/ready ]]; do
    must kill -0 "$lab"
    sleep 0.1
  done
  must pkictl provision "$(<"$work/ready")/ca-info" --doc-key "$work/lab/doc-key.pub.pem" \
    --label office --state "$1"
  must pkictl key generate device --state "$1"
  must pkictl key generate spare --state "$1"
  for row in 'device tls' 'device mail' 'spare tls'; do
    must pkictl enroll --ca office --key "${row% *}" --cert "${row#* }" --subject "CN=$row" \
      --state "$1"
  done
}
if [[ -n ${TOOLS:-} ]]; then
  PATH=$TOOLS:$PATH
  export XDG_STATE_HOME=$work/home
  mkdir "$XDG_STATE_HOME"
  make_state "$XDG_STATE_HOME/pkictl"
  expect_labels "$XDG_STATE_HOME/pkictl"
  HOME=$work XDG_STATE_HOME=$work/other
  # shellcheck disable=SC2088  # bash hands the word over as it is typed
  expect_only device spare -- pkictl key export --state '~/home/pkictl' ''
fi

# Codes go by their names.
expect_among PKI_HTTP_ERROR -- pkictl error PKI_
expect_only PKI_HTTP_ERROR PKI_HTTP_READ_RESP_ERROR -- pkictl error PKI_HT
expect_only -- pkictl error 4

# Subcommands, also behind options and in depth.
expect_among verify -- pkictl ''
expect verify -- pkictl ver
expect verify -- pkictl --json ver
expect sign -- pkictl cainfo si
expect cainfo ca -- pkictl ca
expect remove -- pkictl ca rem
expect serve -- pkilab se
expect -- pkictl nonsense-

# Options: the command's own, those of the tool, and none of another command's.
expect --flavour -- pkictl verify --fl
expect --json -- pkictl cainfo sign --js
expect_among --chain -- pkictl verify --
expect -- pkictl cainfo show --flavour
expect --scep-digest -- pkilab serve --scep-di

# Values: from a list where there is one, else files.
expect internet -- pkictl verify --flavour inte
expect internet local -- pkictl verify --flavour ''
expect internet local -- pkictl verify --flavour =
expect local -- pkictl verify --flavour = lo
expect_files pkictl verify --chain ''
expect_files pkictl verify ''
expect_files pkictl state dump ''
expect_files pkictl cainfo sign --key ''

expect unspecified -- pkilab revoke --reason unsp
expect wrong-nonce -- pkilab serve --scep-misbehave wrong-n
expect badTime -- pkilab serve --scep-refuse badT
expect status= -- pkilab serve --ocsp-answer stat
expect_among entry= -- pkilab serve --crl-answer entr
expect entries= -- pkilab serve --crl-answer entri
expect good revoked unknown -- pkilab serve --ocsp-answer status =
expect revoked -- pkilab serve --ocsp-answer status = re
expect good -- pkilab serve --ocsp-answer = second = go
expect tryLater -- pkilab serve --ocsp-answer response-status = try
expect other-ca -- pkilab serve --crl-answer signer = oth
expect_files pkilab serve --ready-file status =
expect_files pkilab serve --ocsp-answer others =
expect issuing additional root -- pkilab issue --ca ''

# One of two that the command line wants.
expect --serial -- pkictl crl find --se
expect --cert -- pkictl crl find --ce

# Nothing that the command refuses.
expect -- pkictl state dump --js

# A value that is called like a subcommand is none.
expect --flavour -- pkictl verify --trust key --fl

for tool in pkictl pkilab; do
  if [[ $(complete -p "$tool") != *"-F _$tool $tool" ]]; then
    echo "$tool: completion is not set up" >&2
    failed=1
  fi
done
exit $failed
