#!/usr/bin/env bash
# Installs what is missing, builds, makes a SoftHSM2 token in a temporary
# directory (never the machine's own token store) and runs the demo on it.
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
mkdir "$work/tokens"
printf 'directories.tokendir = %s/tokens\nobjectstore.backend = file\nlog.level = ERROR\n' "$work" > "$work/softhsm2.conf"
export SOFTHSM2_CONF=$work/softhsm2.conf
export P11CLIENT_PIN=1234
softhsm2-util --init-token --free --label "p11client demo" --so-pin 12345678 --pin "$P11CLIENT_PIN" >/dev/null

# One certificate and its private key on the token, sharing CKA_ID 01.
openssl req -x509 -newkey rsa:2048 -nodes -days 30 -subj "/C=FR/O=Example Corp/CN=Demo Signer" \
  -keyout "$work/key.pem" -out "$work/cert.pem" 2>/dev/null
openssl pkcs8 -topk8 -nocrypt -in "$work/key.pem" -outform DER -out "$work/key.der"
openssl x509 -in "$work/cert.pem" -outform DER -out "$work/cert.der"
for object in "privkey key.der" "cert cert.der"; do
  set -- $object
  pkcs11-tool --module "$module" --token-label "p11client demo" --login --pin "$P11CLIENT_PIN" \
    --write-object "$work/$2" --type "$1" --id 01 --label "demo" >/dev/null
done

"$build/examples/p11client_demo" "$module"
