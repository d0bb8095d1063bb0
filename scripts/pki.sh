# shellcheck shell=bash
# Sourced by scripts/demo.sh and scripts/bench.sh: makes the demo PKI.
#
#   make_demo_pki DIR PASS_PHRASE
#
# DIR receives, owner-only:
#   ca.crt, ca.key                       self-signed RSA-3072/SHA-256 CA "Demo Stream CA"
#   server.crt, server.key               server certificate (stream.demo, 127.0.0.1) and its
#                                        key, encrypted PKCS#8 with PASS_PHRASE
#   good-client.crt/.key,                two client certificates (unencrypted keys); the
#   revoked-client.crt/.key              second is revoked
#   ca.crl                               the CA's CRL revoking revoked-client (serial 4)
#   crl/, ca.cnf, *.csr, *.ext           what openssl ca needed on the way
# Stops the calling script (set -e) when openssl fails.

make_demo_pki() {
    local pki="$1" pass_phrase="$2"
    mkdir -p "$pki/crl"
    (
        cd "$pki" || exit 1
        umask 077
        openssl req -x509 -newkey rsa:3072 -sha256 -days 3650 -noenc -keyout ca.key -out ca.crt \
            -subj "/CN=Demo Stream CA" -addext "basicConstraints=critical,CA:TRUE" \
            -addext "keyUsage=critical,keyCertSign,cRLSign,digitalSignature" 2>/dev/null
        # The server key is written encrypted (PKCS#8) with the demo pass phrase.
        openssl req -newkey rsa:3072 -sha256 -keyout server.key -passout "pass:$pass_phrase" -out server.csr \
            -subj "/CN=stream.demo" 2>/dev/null
        printf '%s\n' "basicConstraints=CA:FALSE" "keyUsage=critical,digitalSignature,keyEncipherment" \
            "extendedKeyUsage=serverAuth" "subjectAltName=DNS:stream.demo,IP:127.0.0.1" >server.ext
        openssl x509 -req -in server.csr -CA ca.crt -CAkey ca.key -set_serial 2 -days 365 -sha256 \
            -extfile server.ext -out server.crt 2>/dev/null
        printf '%s\n' "basicConstraints=CA:FALSE" "keyUsage=critical,digitalSignature" \
            "extendedKeyUsage=clientAuth" >client.ext
        local serial=3 client
        for client in good-client revoked-client; do
            openssl req -newkey rsa:3072 -sha256 -noenc -keyout "$client.key" -out "$client.csr" \
                -subj "/CN=$client" 2>/dev/null
            openssl x509 -req -in "$client.csr" -CA ca.crt -CAkey ca.key -set_serial "$serial" -days 365 -sha256 \
                -extfile client.ext -out "$client.crt" 2>/dev/null
            serial=$((serial + 1))
        done
        touch crl/index.txt
        echo 01 >crl/crlnumber
        printf '%s\n' "[ ca ]" "default_ca = demo_ca" "[ demo_ca ]" "database = $pki/crl/index.txt" \
            "crlnumber = $pki/crl/crlnumber" "certificate = $pki/ca.crt" "private_key = $pki/ca.key" \
            "default_md = sha256" "default_crl_days = 45" >ca.cnf
        openssl ca -config ca.cnf -revoke revoked-client.crt 2>/dev/null
        openssl ca -config ca.cnf -gencrl -out ca.crl 2>/dev/null
    )
}
