#!/usr/bin/env bash
# Installs the Debian packages the project needs to build, test and run the
# demo. Does nothing when they are all there already.
set -euo pipefail

packages=(
  build-essential cmake pkg-config
  libssl-dev zlib1g-dev nlohmann-json3-dev libp11-kit-dev libcli11-dev p11-kit p11-kit-modules
  libgtest-dev libgmock-dev libbenchmark-dev
  softhsm2 opensc openssl python3-pykcs11
  libpcsclite-dev pcscd vsmartcard-vpcd
  clang libclang-rt-14-dev
)

missing=()
for p in "${packages[@]}"; do
  dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q "install ok installed" || missing+=("$p")
done
[ ${#missing[@]} -eq 0 ] && exit 0

sudo=""
[ "$(id -u)" -eq 0 ] || sudo="sudo"
echo "Installing: ${missing[*]}"
$sudo apt-get update -qq
DEBIAN_FRONTEND=noninteractive $sudo apt-get install -y -qq --no-install-recommends "${missing[@]}"
