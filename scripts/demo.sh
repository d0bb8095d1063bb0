#!/usr/bin/env bash
# The import from the operator's side, start to finish, then the proof that
# the stream server would come up with what it left:
#
#   1. install the packages, build, install a scratch SDK tree, and build the
#      TLS stand-in of the stream server against it
#   2. make a demo PKI: CA, RSA-3072/SHA-256 server certificate with an
#      encrypted key, a good client certificate, and a CRL revoking a second one
#   3. run certImport.sh: the demo types the pass phrase and answers "y" to the
#      CA fingerprint question on a pseudo-terminal (with --interactive you do);
#      after the import the wrapper prints vardo-tls-check's report on it
#   4. show streamserver.conf, ./keys and the key stores
#   5. start the TLS stand-in of the stream server on 127.0.0.1 and connect with
#      `openssl s_client -verify_return_error`: the good client completes a
#      handshake verified both ways, the revoked client is refused
#
# It can be run again and again: each run starts from a fresh tree in
# $VARDO_DEMO_DIR (default /tmp/vardo-demo), which is kept for a look afterwards.
set -euo pipefail

interactive=0
for arg in "$@"; do
    case "$arg" in
        --interactive) interactive=1 ;;
        -h | --help)
            echo "usage: scripts/demo.sh [--interactive]"
            echo "  --interactive  type the pass phrase and answer the fingerprint question yourself"
            exit 0
            ;;
        *)
            echo "demo.sh: unknown option $arg (try --help)" >&2
            exit 2
            ;;
    esac
done

cd "$(dirname -- "${BASH_SOURCE[0]}")/.."
repo="$PWD"
# shellcheck source=scripts/pki.sh
source "$repo/scripts/pki.sh"
build="${VARDO_BUILD_DIR:-$repo/build}"
demo="${VARDO_DEMO_DIR:-/tmp/vardo-demo}"
pass_phrase="Demo-Stream-2026"

step() { printf '\n==== %s\n' "$*"; }

step "1. packages, build, SDK tree"
bash scripts/install-deps.sh
cmake -S "$repo" -B "$build" -DCMAKE_BUILD_TYPE=RelWithDebInfo >/dev/null
cmake --build "$build" -j2 --target certImport vardo-keys vardo-tls-check vardo-pty-answer >/dev/null

rm -rf -- "$demo"
mkdir -p "$demo"
sdk="$demo/sdk"
pki="$demo/pki"
cmake --install "$build" --prefix "$sdk" >/dev/null
# The TLS stand-in is built as the stream server is: a project of its own,
# against the installed SDK's CMake package, installed into the SDK's bin/.
tls_build="$build/examples-tls-server"
cmake -S "$repo/examples/tls_server" -B "$tls_build" -DCMAKE_PREFIX_PATH="$sdk" -DCMAKE_BUILD_TYPE=RelWithDebInfo >/dev/null
cmake --build "$tls_build" -j2 >/dev/null
cmake --install "$tls_build" --prefix "$sdk" >/dev/null
export OVRA_SDK_HOME="$sdk"
tools="$sdk/tools/VardoTools/CertImport"
echo "SDK tree: $sdk (OVRA_SDK_HOME); the import runs in $tools"

step "2. demo PKI in $pki"
make_demo_pki "$pki" "$pass_phrase"
echo "CA:     $(openssl x509 -in "$pki/ca.crt" -noout -subject)"
echo "server: $(openssl x509 -in "$pki/server.crt" -noout -subject), $(head -n 1 "$pki/server.key")"
echo "CRL:    revokes serial $(openssl crl -in "$pki/ca.crl" -noout -text | awk '/Serial Number/ {print $3}') (revoked-client)"
echo "CA fingerprint as OpenSSL computes it (the import shows the same, lower case):"
openssl x509 -in "$pki/ca.crt" -noout -fingerprint -sha256

step "3. the import: bash ./certImport.sh -c ca.crt -s server.crt -k server.key -r ca.crl"
import_args=(-c "$pki/ca.crt" -s "$pki/server.crt" -k "$pki/server.key" -r "$pki/ca.crl")
status=0
if [ "$interactive" -eq 1 ]; then
    echo "Type the pass phrase \"$pass_phrase\" at the prompt, check the fingerprint, answer y."
    (cd "$tools" && bash ./certImport.sh "${import_args[@]}") || status=$?
else
    echo "(typing the pass phrase at the prompt and \"y\" at the fingerprint question)"
    (cd "$tools" && "$build/examples/pty_answer/vardo-pty-answer" \
        --expect "please input the plain text: " --send "$pass_phrase\n" \
        --expect "[y/n]" --send "y\n" \
        -- bash ./certImport.sh "${import_args[@]}") || status=$?
fi
echo "---- certImport.sh exit status: $status"
if [ "$status" -ne 0 ]; then
    echo "demo.sh: the import failed; the records above say why." >&2
    exit 1
fi

step "4. what the import left"
echo "-- $sdk/config/streamserver.conf ($(stat -c %a "$sdk/config/streamserver.conf")):"
cat "$sdk/config/streamserver.conf"
echo
echo "-- $tools/keys:"
ls -l "$tools/keys"
echo "-- key stores (vardo-keys status):"
(cd "$tools" && "$sdk/bin/vardo-keys" status) || true

step "5. the stream server's view: TLS on 127.0.0.1 with the imported material"
server_log="$demo/tls-server.log"
(cd "$tools" && exec "$sdk/bin/vardo-tls-server" --connections 2) >"$server_log" 2>&1 &
server_pid=$!
trap 'kill "$server_pid" 2>/dev/null || true' EXIT
port=""
for _ in $(seq 1 100); do
    port="$(sed -n 's/^listening on 127\.0\.0\.1:\([0-9]*\)$/\1/p' "$server_log")"
    [ -n "$port" ] && break
    sleep 0.1
done
if [ -z "$port" ]; then
    cat "$server_log"
    echo "demo.sh: the TLS stand-in did not start." >&2
    exit 1
fi
grep -E '^(loaded|listening)' "$server_log"

# s_client's lines that tell the story (its negotiation details are left out).
show() { grep -E 'CONNECTION|Protocol version|Peer certificate|Verification|hello|error|alert' | sed 's/^/   s_client: /'; }
connect() {
    openssl s_client -connect "127.0.0.1:$port" -servername stream.demo -CAfile "$pki/ca.crt" \
        -cert "$pki/$1.crt" -key "$pki/$1.key" -verify_return_error -brief </dev/null 2>&1
}
echo "-- good-client:"
good_output="$(connect good-client)" && good_status=0 || good_status=$?
printf '%s\n' "$good_output" | show
echo "-- revoked-client (with TLS 1.3 the client finishes its side first; the server"
echo "   then checks the client certificate, refuses it and serves nothing):"
revoked_output="$(connect revoked-client)" || true
printf '%s\n' "$revoked_output" | show
wait "$server_pid" || true
trap - EXIT
echo "-- the TLS stand-in's log:"
sed 's/^/   /' "$server_log"

step "results"
good_ok=0
revoked_refused=0
if [ "$good_status" -eq 0 ] && grep -q "Verification: OK" <<<"$good_output" &&
    grep -q "^handshake ok: /CN=good-client" "$server_log"; then
    good_ok=1
    echo "good client:    handshake completed, server certificate verified against the demo CA,"
    echo "                client certificate verified by the server against the imported CA and CRL"
else
    echo "good client:    HANDSHAKE FAILED"
fi
if grep -q "^handshake failed: .*certificate revoked" "$server_log" &&
    ! grep -q "^handshake ok: /CN=revoked-client" "$server_log"; then
    revoked_refused=1
    echo "revoked client: refused by the server (certificate revoked)"
else
    echo "revoked client: NOT REFUSED"
fi
echo "The demo tree stays in $demo for a look; the next run starts afresh."
[ "$good_ok" -eq 1 ] && [ "$revoked_refused" -eq 1 ]
