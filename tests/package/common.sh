# shellcheck shell=bash
# Sourced by the package scenarios (lifecycle.sh, playbook.sh): they install
# the built packages on this machine, so they run as root, one at a time
# (a lock under /run/lock, also between suites of different checkouts), and
# purge what they installed on every way out.

SDK_USER=vardo-sdk
SDK_HOME=/var/lib/vardo-sdk
IMPORT_DIR=$SDK_HOME/tools/VardoTools/CertImport
STAGING=$SDK_HOME/staging
CONFIG=/etc/vardo-sdk/streamserver.conf
SKIP=77
LOCK_DIR=/run/lock
[ -d "$LOCK_DIR" ] || LOCK_DIR=/tmp
# Present while a scenario owns an installation, so that a run that was
# killed is cleaned up by the next one, and a real installation never is.
OWNED_MARK="$LOCK_DIR/vardo-sdk-package-test.installed"

step() { printf '\n---- %s\n' "$*"; }
fail() {
    echo "FAIL: $*" >&2
    exit 1
}
expect_eq() { # WHAT EXPECTED ACTUAL
    [ "$2" = "$3" ] || fail "$1: expected '$2', got '$3'"
}

# Takes the machine for this scenario: root, apt, the lock, no foreign
# installation; purges on exit.
take_machine() {
    if [ "$(id -u)" -ne 0 ] || ! command -v apt-get >/dev/null; then
        echo "SKIP: installs packages on this machine, which needs root and apt-get"
        exit "$SKIP"
    fi
    exec 9>"$LOCK_DIR/vardo-sdk-package-test.lock"
    flock -w 1800 9 || fail "another package scenario holds $LOCK_DIR/vardo-sdk-package-test.lock"
    if dpkg-query -W -f='${Status}' vardo-sdk 2>/dev/null | grep -qv 'not-installed'; then
        [ -e "$OWNED_MARK" ] || fail "vardo-sdk is installed on this machine, not by a test; the scenario would purge it"
        purge_packages
    fi
    touch "$OWNED_MARK"
    trap release_machine EXIT
}

release_machine() {
    purge_packages
    rm -f "$OWNED_MARK"
}

apt_quiet() {
    DEBIAN_FRONTEND=noninteractive apt-get -y -q "$@" </dev/null >"$WORK/apt.log" 2>&1 ||
        { cat "$WORK/apt.log"; fail "apt-get $*"; }
}

purge_packages() {
    local known=() package
    for package in vardo-sdk-dev vardo-sdk; do
        ! dpkg-query -W "$package" >/dev/null 2>&1 || known+=("$package")
    done
    [ "${#known[@]}" -eq 0 ] ||
        DEBIAN_FRONTEND=noninteractive apt-get -y -q purge "${known[@]}" </dev/null >/dev/null 2>&1 || true
}

# Runs a command as the SDK user in the import directory, as an operator does.
as_sdk_user() {
    (cd "$IMPORT_DIR" && sudo -u "$SDK_USER" env OVRA_SDK_HOME="$SDK_HOME" "$@")
}

# stage_material PKI_DIR: the files as the import wants them, the SDK user's.
stage_material() {
    install -d -o "$SDK_USER" -g "$SDK_USER" -m 0700 "$STAGING"
    install -o "$SDK_USER" -g "$SDK_USER" -m 0400 "$1"/ca.crt "$1"/server.crt "$1"/server.key "$1"/ca.crl "$STAGING/"
}

# import_staged PASS_PHRASE: the whole import on a pseudo-terminal, typing the
# pass phrase and "y"; its status is the import's.
import_staged() {
    (cd "$IMPORT_DIR" && "$PTY_ANSWER" --expect "please input the plain text: " --send "$1\n" \
        --expect "[y/n]" --send "y\n" -- sudo -u "$SDK_USER" env OVRA_SDK_HOME="$SDK_HOME" \
        bash ./certImport.sh -c "$STAGING/ca.crt" -s "$STAGING/server.crt" -k "$STAGING/server.key" \
        -r "$STAGING/ca.crl")
}

# The check command, once it is part of the package: OK or WARNING passes.
run_tls_check() {
    [ -x "$SDK_HOME/bin/vardo-tls-check" ] || fail "vardo-tls-check is not in the package"
    local status=0
    as_sdk_user "$SDK_HOME/bin/vardo-tls-check" || status=$?
    [ "$status" -le 1 ] || fail "vardo-tls-check exit status $status"
    as_sdk_user "$SDK_HOME/bin/vardo-tls-check" --format=prometheus | grep -q . ||
        fail "vardo-tls-check --format=prometheus printed nothing"
}

# owner_mode PATH: "user:group mode" of PATH itself.
owner_mode() { stat -c '%U:%G %a' "$1"; }

# Checksums of the imported files and the configuration, one line each.
material_state() {
    (cd "$IMPORT_DIR/keys" && sha256sum ca.crt server.crt server.key ca.crl && stat -c '%n %a %U' ./*)
    sha256sum "$CONFIG"
}
