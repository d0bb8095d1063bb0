#!/usr/bin/env bash
# The example playbook (deploy/ansible/site.yml with the role vardo_sdk_tls)
# against this machine (-c local), with the built package and the demo PKI,
# the pass phrase in an Ansible Vault file:
#   1. installs the package and imports: changed, the stream server restarted
#   2. the same again: no change
#   3. new material but the old CA's fingerprint expected: fails before
#      anything is copied; ./keys and streamserver.conf stay as they were
#   4. an empty pass phrase: refused, naming the variable
#   5. the new material with its own fingerprint: imported over the old
#
#   playbook.sh REPO DEBS_DIR WORK_DIR
set -euo pipefail

REPO="$1"
DEBS="$(cd "$2" && pwd)"
WORK="$3"
PTY_ANSWER=unused
source "$REPO/tests/package/common.sh"
source "$REPO/scripts/pki.sh"
PASS_PHRASE="Demo-Stream-2026"
# The stream server's service, a stand-in that counts its restarts.
SERVICE=vardo-test-stream
SERVICE_SCRIPT=/etc/init.d/$SERVICE

command -v ansible-playbook >/dev/null || fail "ansible-playbook is missing (scripts/install-deps.sh installs ansible-core)"
take_machine
trap 'rm -f "$SERVICE_SCRIPT" /var/cache/apt/archives/vardo-sdk_*.deb; release_machine' EXIT
rm -rf "$WORK"
mkdir -p "$WORK"
WORK="$(cd "$WORK" && pwd)"
# A restart is counted once, whether the service manager restarts or stops and starts.
printf '#!/bin/sh\ncase "$1" in start | restart) echo "$1" >>%s ;; esac\n' "$WORK/restarts" >"$SERVICE_SCRIPT"
chmod 0755 "$SERVICE_SCRIPT"
touch "$WORK/restarts"

make_demo_pki "$WORK/pki1" "$PASS_PHRASE"
make_demo_pki "$WORK/pki2" "$PASS_PHRASE"
fingerprint() { openssl x509 -in "$1/ca.crt" -noout -fingerprint -sha256 | sed 's/.*=//'; }

printf 'localhost ansible_connection=local ansible_python_interpreter=/usr/bin/python3\n' >"$WORK/inventory"
printf '[stream_servers]\nlocalhost\n' >>"$WORK/inventory"
printf 'vault-test-%s\n' "$RANDOM" >"$WORK/vault-password"
printf 'vault_vardo_tls_pass_phrase: "%s"\n' "$PASS_PHRASE" >"$WORK/vault.yml"
ansible-vault encrypt --vault-password-file "$WORK/vault-password" "$WORK/vault.yml" >/dev/null
head -n 1 "$WORK/vault.yml" | grep -q '^\$ANSIBLE_VAULT' || fail "the vault file is not encrypted"

# play NAME PKI FINGERPRINT [ansible-playbook options...]: one run of the
# example playbook; its status in $status, its recap counts in $changed and $failed.
play() {
    local name="$1" pki="$2" expected="$3"
    shift 3
    cat >"$WORK/vars.yml" <<EOF
vardo_sdk_deb: $(ls "$DEBS"/vardo-sdk_*.deb)
vardo_tls_ca_cert: $pki/ca.crt
vardo_tls_server_cert: $pki/server.crt
vardo_tls_server_key: $pki/server.key
vardo_tls_crl: $pki/ca.crl
vardo_tls_ca_fingerprint: "$expected"
vardo_tls_service: $SERVICE
EOF
    step "playbook run: $name"
    status=0
    (cd "$REPO/deploy/ansible" && ANSIBLE_LOCAL_TEMP="$WORK/ansible-tmp" ANSIBLE_NOCOLOR=1 \
        ansible-playbook -i "$WORK/inventory" site.yml -e @"$WORK/vars.yml" -e @"$WORK/vault.yml" \
        --vault-password-file "$WORK/vault-password" "$@") >"$WORK/$name.log" 2>&1 || status=$?
    cat "$WORK/$name.log"
    ! grep -qF "$PASS_PHRASE" "$WORK/$name.log" || fail "$name: the pass phrase shows in the output"
    local recap
    recap="$(grep -E '^localhost +:' "$WORK/$name.log")" || fail "$name: no play recap"
    changed="$(sed 's/.*changed=\([0-9]*\).*/\1/' <<<"$recap")"
    failed="$(sed 's/.*failed=\([0-9]*\).*/\1/' <<<"$recap")"
}
restarts() { wc -l <"$WORK/restarts"; }

play first "$WORK/pki1" "$(fingerprint "$WORK/pki1")"
expect_eq "first run: status" 0 "$status"
[ "$changed" -gt 0 ] || fail "first run reports no change"
expect_eq "first run: stream server restarts" 1 "$(restarts)"
for file in ca.crt server.crt server.key ca.crl; do
    cmp -s "$WORK/pki1/$file" "$IMPORT_DIR/keys/$file" || fail "first run: keys/$file is not the material"
done
grep -qE '^server_key_mm=.+' "$CONFIG" || fail "first run: no encrypted pass phrase in streamserver.conf"

play second "$WORK/pki1" "$(fingerprint "$WORK/pki1")"
expect_eq "second run: status" 0 "$status"
expect_eq "second run: changed" 0 "$changed"
expect_eq "second run: stream server restarts" 1 "$(restarts)"

before="$(material_state)"
play wrong-fingerprint "$WORK/pki2" "$(fingerprint "$WORK/pki1")"
[ "$status" -ne 0 ] && [ "$failed" -eq 1 ] || fail "a wrong fingerprint did not fail the play"
grep -q 'not the expected' "$WORK/wrong-fingerprint.log" || fail "no word of the fingerprint in the failure"
expect_eq "./keys and streamserver.conf after the refused run" "$before" "$(material_state)"
cmp -s "$WORK/pki1/ca.crt" "$STAGING/ca.crt" || fail "the refused run staged its CA on the host"
expect_eq "refused run: stream server restarts" 1 "$(restarts)"

play missing-variable "$WORK/pki2" "$(fingerprint "$WORK/pki2")" -e vardo_tls_pass_phrase=
[ "$status" -ne 0 ] && grep -q 'missing or empty: vardo_tls_pass_phrase' "$WORK/missing-variable.log" ||
    fail "an empty pass phrase was not refused by name"
cmp -s "$WORK/pki1/ca.crt" "$STAGING/ca.crt" || fail "the refused run staged its CA on the host"

play new-material "$WORK/pki2" "$(fingerprint "$WORK/pki2")"
expect_eq "new material: status" 0 "$status"
expect_eq "new material: stream server restarts" 2 "$(restarts)"
for file in ca.crt server.crt server.key ca.crl; do
    cmp -s "$WORK/pki2/$file" "$IMPORT_DIR/keys/$file" || fail "new material: keys/$file is not the new material"
    expect_eq "keys/$file" "$SDK_USER:$SDK_USER 400" "$(owner_mode "$IMPORT_DIR/keys/$file")"
done
echo "playbook: all runs as expected"
