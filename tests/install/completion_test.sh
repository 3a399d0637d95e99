#!/bin/bash
# completion_test.sh FOLDER: what the completion in FOLDER offers.
set -uo pipefail
folder=${1:?usage: completion_test.sh FOLDER}
failed=0

# shellcheck source=/dev/null
source "$folder/pkictl"
# shellcheck source=/dev/null
source "$folder/pkilab"

# complete_line WORD...: what is offered for the last word, in COMPREPLY.
complete_line() {
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
    expect "$child" -- "$@" "$child"
  done < <("$TOOLS/$1" "${@:2}" --help | sed -n '/^Subcommands:/,/^$/s/^  \([a-z-]*\) .*/\1/p')
}
if [[ -n ${TOOLS:-} ]]; then
  listed pkictl
  listed pkictl cainfo
  listed pkilab
fi

# Subcommands, also behind options and in depth.
expect_among verify -- pkictl ''
expect verify -- pkictl ver
expect verify -- pkictl --json ver
expect sign -- pkictl cainfo si
expect serve -- pkilab se
expect -- pkictl nonsense-

# Options: the command's own, those of the tool, and none of another command's.
expect --flavour -- pkictl verify --fl
expect --json -- pkictl cainfo sign --js
expect_among --chain -- pkictl verify --
expect -- pkictl cainfo show --flavour
expect --scep-digest -- pkilab serve --scep-di

# Values: from a list where there is one, else nothing of ours, so that bash offers files.
expect internet -- pkictl verify --flavour inte
expect internet local -- pkictl verify --flavour ''
expect internet local -- pkictl verify --flavour =
expect local -- pkictl verify --flavour = lo
expect -- pkictl verify --chain ''
expect -- pkictl verify ''

expect unspecified -- pkilab revoke --reason unsp
expect wrong-nonce -- pkilab serve --scep-misbehave wrong-n
expect badTime -- pkilab serve --scep-refuse badT
expect status= -- pkilab serve --ocsp-answer stat
expect_among entry= -- pkilab serve --crl-answer entr
expect entries= -- pkilab serve --crl-answer entri
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
