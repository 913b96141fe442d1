#!/usr/bin/env bash
# Installs what is missing, builds, makes a throwaway SoftHSM2 token in a
# temporary directory (never the machine's own token store) with an RSA and an
# EC certificate and key, and shows the library at work through p11client:
# discover, list, pair, sign on the token, verify with openssl, look up an ATR.
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
build=$root/build
"$root/scripts/install-deps.sh"
"$root/scripts/build.sh" "$build"

module=""
for candidate in /usr/lib/softhsm/libsofthsm2.so /usr/lib/x86_64-linux-gnu/softhsm/libsofthsm2.so; do
  [ -f "$candidate" ] && module=$candidate && break
done
[ -n "$module" ] || { echo "libsofthsm2.so not found" >&2; exit 1; }

work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
step() { printf '\n== %s\n' "$*"; }

step "A throwaway SoftHSM2 token in $work"
mkdir "$work/tokens"
printf 'directories.tokendir = %s/tokens\nobjectstore.backend = file\nlog.level = ERROR\n' "$work" > "$work/softhsm2.conf"
export SOFTHSM2_CONF=$work/softhsm2.conf
export P11CLIENT_PIN=1234
softhsm2-util --init-token --free --label "p11client demo" --so-pin 12345678 --pin "$P11CLIENT_PIN" >/dev/null

# An RSA and an EC certificate, each with its private key (CKA_ID 01 and 02).
put_pair() { # label id openssl-newkey-args
  local label=$1 id=$2; shift 2
  openssl req -x509 -newkey "$@" -nodes -days 30 -subj "/C=FR/O=Example Corp/CN=Demo $label" \
    -keyout "$work/$label.key.pem" -out "$work/$label.cert.pem" 2>/dev/null
  openssl pkcs8 -topk8 -nocrypt -in "$work/$label.key.pem" -outform DER -out "$work/$label.key.der"
  openssl x509 -in "$work/$label.cert.pem" -outform DER -out "$work/$label.cert.der"
  for object in "privkey $label.key.der" "cert $label.cert.der"; do
    set -- $object
    pkcs11-tool --module "$module" --token-label "p11client demo" --login --pin "$P11CLIENT_PIN" \
      --write-object "$work/$2" --type "$1" --id "$id" --label "$label" >/dev/null
  done
  echo "put on the token: certificate and key '$label' (CKA_ID $id)"
}
put_pair demo-rsa 01 rsa:2048
put_pair demo-ec 02 ec -pkeyopt ec_paramgen_curve:P-256

p11=("$build/cli/p11client" --module "$module")

step "discover: the module, its slots and tokens"
"${p11[@]}" discover

step "certs: the certificates, each paired with its private key on the token"
"${p11[@]}" certs

step "keys: the private keys"
"${p11[@]}" keys

step "find-cert privateKey: the first certificate whose key is on the token"
"${p11[@]}" find-cert privateKey

echo "The quick brown fox signs on the token." > "$work/message.txt"
for label in demo-rsa demo-ec; do
  uri="pkcs11:token=p11client%20demo;object=$label;type=cert"
  step "sign with '$label' on the token, verify with openssl"
  "${p11[@]}" sign "$work/message.txt" -o "$work/$label.sig" --cert-uri "$uri"
  openssl x509 -in "$work/$label.cert.pem" -pubkey -noout > "$work/$label.pub.pem"
  openssl dgst -sha256 -verify "$work/$label.pub.pem" -signature "$work/$label.sig" "$work/message.txt"
done

step "atr: which card is this, and which driver serves it on Linux?"
"${p11[@]}" atr 3B8980014A434F5032343252324A

step "The same through the C++ API (examples/demo.cpp)"
"$build/examples/p11client_demo" "$module"
