#!/usr/bin/env bash
# The checks of a first import done with the openssl command line, one
# process per check, as an operator's script would do them: scripts/bench.sh
# times it as a second yardstick of the whole import.
#
#   BENCH_PASS_PHRASE=... bash bench/import_openssl.sh CA_CRT SERVER_CRT SERVER_KEY CA_CRL OUT_DIR
#
# Verifies the CRL against the CA, opens the encrypted server key with the
# pass phrase (read from the environment, never from the command line),
# reads both certificates (the CA's SHA-256 fingerprint, the server's subject
# and validity end), and encrypts the pass phrase into OUT_DIR/pass.enc.
# `openssl enc` refuses AEAD modes, so the encryption is AES-256-CTR under a
# fresh random key and IV made from bash's $SRANDOM (no extra process).
# Quiet on success; exits non-zero on the first failure.
set -euo pipefail
umask 077

if [ "$#" -ne 5 ] || [ -z "${BENCH_PASS_PHRASE:-}" ]; then
    echo "usage: BENCH_PASS_PHRASE=... bash bench/import_openssl.sh CA_CRT SERVER_CRT SERVER_KEY CA_CRL OUT_DIR" >&2
    exit 2
fi
ca_crt="$1" server_crt="$2" server_key="$3" ca_crl="$4" out_dir="$5"

openssl crl -in "$ca_crl" -CAfile "$ca_crt" -noout -verify 2>/dev/null
openssl pkey -in "$server_key" -passin env:BENCH_PASS_PHRASE -noout
openssl x509 -in "$server_crt" -noout -subject -enddate >/dev/null
openssl x509 -in "$ca_crt" -noout -fingerprint -sha256 >/dev/null

key="" iv=""
for _ in 1 2 3 4 5 6 7 8; do printf -v key '%s%08x' "$key" "$SRANDOM"; done
for _ in 1 2 3 4; do printf -v iv '%s%08x' "$iv" "$SRANDOM"; done
openssl enc -aes-256-ctr -K "$key" -iv "$iv" -out "$out_dir/pass.enc" <<<"$BENCH_PASS_PHRASE"
