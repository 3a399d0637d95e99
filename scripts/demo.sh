#!/usr/bin/env bash
# Shows a device's way to its certificate from end to end: a CA's document is signed, served,
# downloaded and checked; a key is made, a certificate for it requested by SCEP, verified and looked
# up again; its status is asked by OCSP, and from a CRL of a million entries, until it is revoked and
# refused; then three bad documents are refused. Everything happens in a temporary folder and on the
# loopback. Exit code 0 only if all of it went as told.
#
# usage: scripts/demo.sh BUILD_DIR
set -euo pipefail

if [ $# -ne 1 ] || [ ! -x "$1/bin/pkictl" ] || [ ! -x "$1/bin/pkilab" ]; then
  echo "usage: scripts/demo.sh BUILD_DIR (a folder in which the tools are built)" >&2
  exit 2
fi
PATH="$(cd "$1/bin" && pwd):$PATH"

work=$(mktemp -d "${TMPDIR:-/tmp}/pki-demo.XXXXXX")
lab=''
clean_up() {
  if [ -n "$lab" ]; then
    kill "$lab" 2>/dev/null || true
    wait "$lab" 2>/dev/null || true
  fi
  rm -rf "$work"
}
trap clean_up EXIT
trap 'exit 130' INT TERM
cd "$work"

bold='' plain=''
if [ -t 1 ]; then
  bold=$'\e[1m' plain=$'\e[0m'
fi

step() { printf '\n%s== %s ==%s\n' "$bold" "$1" "$plain"; }
indent() { sed 's/^/    /'; }
fail() {
  echo
  echo "DEMO FAILED: $1" >&2
  exit 1
}

# Prints a command as it can be typed, in lines of at most 96 characters.
show_command() {
  local line="  \$" word
  for word in "$@"; do
    case $word in
      *[!A-Za-z0-9_./:=@,+-]*) word="\"$word\"" ;;
    esac
    if [ $((${#line} + ${#word})) -gt 96 ] || [[ $word == --* && ${#line} -gt 60 ]]; then
      printf '%s \\\n' "$line"
      line="     "
    fi
    line="$line $word"
  done
  printf '%s\n' "$line"
}

# Shows a command, runs it, and shows what it printed. It has to succeed.
must_work() {
  show_command "$@"
  if ! "$@" >output 2>&1; then
    indent <output
    fail "this should have worked: $*"
  fi
  indent <output
}

# The same for a command that has to fail with exit code 1 and a message that holds $1.
must_be_refused() {
  local reason=$1 code=0
  shift
  show_command "$@"
  "$@" >output 2>&1 || code=$?
  indent <output
  [ "$code" -eq 1 ] || fail "this should have been refused with exit code 1, not $code: $*"
  grep -qF "$reason" output || fail "the reason should have been $reason"
}

must_show() {
  grep -qF "$1" output || fail "the output should have shown: $1"
}

# What the last command said of its memory.
peak_kib() { awk '$1 == "memory" { print $2 }' output; }

must_be_private() {
  local mode
  mode=$(stat -c %a "$1")
  [ "$mode" = 600 ] || fail "$1 should have mode 600, not $mode"
}

step "1. A device with a serial number and a secret"
mkdir board
secret="demo-secret-$RANDOM$RANDOM"
echo "DEMO-0001" >board/serialnumber
printf '%s' "$secret" >board/secret
export BOARD_INFO_DIR="$work/board" XDG_STATE_HOME="$work/home"
echo "  Its board says: serial number $(cat board/serialnumber)"

step "2. A CA, on a loopback port of its own"
# What is asked for when the CA's CRL is to list a million other certificates before its own.
million="entries=1000000"
echo "  \$ pkilab serve --dir lab --document office.p7 --scep-save messages --crl-dp $million &"
pkilab serve --dir lab --document office.p7 --scep-save messages --crl-dp "$million" \
  --ready-file ready >lab.out 2>lab.log &
lab=$!
for _ in $(seq 300); do
  [ ! -e ready ] || break
  kill -0 "$lab" 2>/dev/null || fail "pkilab did not start: $(cat lab.log)"
  sleep 0.1
done
[ -e ready ] || fail "pkilab was not ready within 30 seconds"
url=$(cat ready)
indent <lab.out
echo "  The keys and certificates that it made:"
(cd lab && printf '%s\n' *) | indent

step "3. The CA's operator describes the CA and signs the description"
must_work pkictl cainfo sign --issuer-name "CN=Office CA, O=Example" --expires 2037-01-01 \
  --scep-url "$url/scep" --scep-cert lab/issuing-cert.pem --digest SHA256 --cipher DES-EDE3-CBC \
  --scep-get-cert-url "$url/scep" --ocsp-url "$url/ocsp" \
  --root lab/root-cert.pem --root lab/issuing-cert.pem --additional-cert lab/additional-cert.pem \
  --key lab/doc-key.pem --out office.p7
must_work pkictl cainfo verify office.p7 --doc-key lab/doc-key.pub.pem

step "4. The device downloads it, checks the signature, and holds the CA in its store"
must_work pkictl provision "$url/ca-info" --doc-key lab/doc-key.pub.pem --label office --state state
must_show "CN=Office CA, O=Example"
must_show "$url/scep"
must_show "CN=pkilab root CA, O=pkilab"
must_show "CN=pkilab additional CA, O=pkilab"
echo
echo "  What the CA saw:"
indent <lab.log
grep -qF "GET /ca-info?serial=DEMO-0001 -> 200" lab.log ||
  fail "the CA should have seen the serial number"

step "5. The device makes a key"
must_work pkictl key generate device --state state
must_be_private state/state

step "6. It asks the CA for a certificate, and gets one"
must_work pkictl enroll --ca office --key device --cert first --subject "CN=device, O=Example" \
  --state state
must_show "CN=pkilab issuing CA, O=pkilab"
must_be_private state/state
echo
echo "  What the CA saw:"
tail -n 1 lab.log | indent
grep -qF ": SUCCESS" lab.log || fail "the CA should have issued a certificate"

step "7. The certificate is the CA's, and for the device's key"
must_work pkictl cert export device first --out first.pem --state state
must_work pkictl key export device --public --out key.pub --state state
must_work openssl verify -CAfile lab/issuing-cert.pem first.pem
must_show "first.pem: OK"
openssl x509 -in first.pem -noout -pubkey | cmp -s - key.pub ||
  fail "the certificate should be for the device's key"

step "8. The request, opened with the CA's key: the device's secret travelled in the envelope"
must_work pkictl scep decode messages/0001-PKCSReq.der --key lab/issuing-key.pem
must_show "DEMO-0001"
must_show "a secret, not shown"
for file in messages/*.der lab.log output; do
  ! grep -qF "$secret" "$file" || fail "the secret should not be in $file"
done

step "9. The CA hands the certificate out again to whoever knows its serial number"
serial=$(openssl x509 -in first.pem -noout -serial)
must_work pkictl cert find "${serial#serial=}" --ca office --key device --state state
must_show "CN=device, O=Example"

step "10. Whoever meets the certificate asks the CA's OCSP responder whether it still holds"
must_work pkictl verify first.pem --state state
must_show "good, internet flavour"
must_show "asked $url/ocsp: ok"

step "11. Or looks into the CA's CRL, which the certificate names, and which has a million entries"
crl="$url/crl/issuing.crl?$million"
must_work pkictl crl show "$url/crl/issuing.crl" --issuer lab/issuing-cert.pem --cost
must_show "  entries           0"
small_kib=$(peak_kib)
must_work pkictl crl show "$crl" --issuer lab/issuing-cert.pem --cost
must_show "  entries           1000000"
must_show "  signature         good"
must_work pkictl verify first.pem --trust lab/issuing-cert.pem --cost
must_show "CRL $crl: not listed"
must_show "good, internet flavour"
large_kib=$(peak_kib)
echo
echo "  Verifying with the CRL of a million entries took $large_kib KiB, programs and libraries"
echo "  included; looking at an empty CRL took $small_kib KiB."
[ $((large_kib - small_kib)) -lt 4096 ] || fail "a long CRL should not take memory"

step "12. The CA revokes it, and it is refused: by OCSP, and by the CRL"
must_work pkilab revoke --dir lab first.pem
must_be_refused "its status is revoked" pkictl verify first.pem --state state
must_show "asked $url/ocsp: revoked"
must_be_refused "its status is revoked" \
  pkictl verify first.pem --trust lab/issuing-cert.pem
must_show "CRL $crl: revoked"
must_be_refused "listed" pkictl crl find "$crl" --cert first.pem
must_show "  entries           1000001"

step "13. A document that a stranger signed is refused"
must_be_refused "SIG VERIFY FAILED (29)" \
  pkictl provision "$url/misbehave/wrong-key/ca-info" --doc-key lab/doc-key.pub.pem

step "14. So is a download that breaks off"
must_be_refused "HTTP ERROR (47)" \
  pkictl provision "$url/misbehave/truncate-body/ca-info" --doc-key lab/doc-key.pub.pem

step "15. And a document that was changed on its way"
must_be_refused "SIG VERIFY FAILED (29)" \
  pkictl provision "$url/misbehave/corrupt-signature/ca-info" --doc-key lab/doc-key.pub.pem

kill "$lab"
code=0
wait "$lab" || code=$?
lab=''
[ "$code" -eq 0 ] || fail "pkilab should have ended with 0, not $code"

printf '\n%sDEMO OK: provisioned, enrolled, good until revoked; three bad documents were refused.%s\n' \
  "$bold" "$plain"
