#!/usr/bin/env bash
# Shows the certificate import tool from the operator's side: builds it,
# installs a scratch SDK tree, and runs the import command's wrapper there.
#
# This first version shows the paths that need no certificates: the usage
# text, and a pass phrase that breaks the strength rules. A full import (test
# certificates, fingerprint confirmation, keys directory, encrypted pass
# phrase in streamserver.conf) is not part of this demo yet.
set -euo pipefail

cd "$(dirname -- "${BASH_SOURCE[0]}")/.."
repo="$PWD"
build="${VARDO_BUILD_DIR:-$repo/build}"  # another build directory may be named here

bash scripts/install-deps.sh

echo "==== building in $build"
cmake -S "$repo" -B "$build" -DCMAKE_BUILD_TYPE=RelWithDebInfo >/dev/null
cmake --build "$build" -j2 --target certImport vardotools >/dev/null

# An SDK tree as it is installed: lib/, bin/, config/ and the wrapper three
# levels down in tools/VardoTools/CertImport.
sdk="$(mktemp -d /tmp/vardo-demo-sdk.XXXXXX)"
trap 'rm -rf -- "$sdk"' EXIT
cmake --install "$build" --prefix "$sdk" >/dev/null 2>&1 || {
    # Parts of the tree that are not built yet make install stop early; put
    # the pieces the command needs in place by hand.
    mkdir -p "$sdk/lib" "$sdk/bin" "$sdk/config" "$sdk/tools/VardoTools/CertImport"
    cp "$build"/src/base/libovrabase.so "$build"/src/kms/libvardokms.so \
        "$build"/src/module/VardoTools/CertImport/libvardotools.so "$sdk/lib/"
    cp "$build"/src/module/VardoTools/CertImport/certImport "$sdk/bin/"
    cp "$repo"/src/module/VardoTools/CertImport/certImport.sh "$sdk/tools/VardoTools/CertImport/"
    install -m 0600 "$repo"/sdk/config/streamserver.conf "$repo"/sdk/config/logging.conf "$sdk/config/"
}
export OVRA_SDK_HOME="$sdk"
tools="$sdk/tools/VardoTools/CertImport"
echo "==== SDK tree in $sdk (OVRA_SDK_HOME)"

# The command reads the pass phrase from the terminal. setsid runs it without
# a controlling terminal, so it reads the pass phrase from standard input and
# the demo needs no typing.
run_wrapper() {
    local phrase="$1"
    shift
    local status=0
    printf '%s\n' "$phrase" | (cd "$tools" && setsid -w bash ./certImport.sh "$@") || status=$?
    echo "---- exit status: $status"
}

echo
echo "==== 1. Wrong number of paths: the audit record, the library check, then"
echo "====    the usage text; no pass phrase is asked for"
status=0
(cd "$tools" && setsid -w ../../../bin/certImport only-one-path </dev/null) || status=$?
echo "---- exit status: $status"

echo
echo "==== 2. A pass phrase of lower-case letters only is refused as too weak"
inputs="$(mktemp -d /tmp/vardo-demo-inputs.XXXXXX)"
trap 'rm -rf -- "$sdk" "$inputs"' EXIT
touch "$inputs/ca.crt" "$inputs/server.crt" "$inputs/server.key"
run_wrapper "onlylowercase" -c "$inputs/ca.crt" -s "$inputs/server.crt" -k "$inputs/server.key"

echo
echo "==== The log of these runs: $sdk/logs (removed when the demo ends)"
ls -l "$sdk/logs" 2>/dev/null || true
echo
echo "Not shown yet: a full import with test certificates (fingerprint"
echo "confirmation, copies in ./keys, encrypted pass phrase in streamserver.conf)."
echo "Run scripts/test.sh for the whole test suite, which covers it."
