#!/usr/bin/env bash
# The packages' life on a host: install, a complete import as the SDK user
# with the demo PKI, the check command, an upgrade to a rebuilt package of a
# higher version with an edited streamserver.conf (the edit and the owners
# the import needs survive), remove (configuration and keys stay) and purge
# (nothing is left).
#
#   lifecycle.sh REPO DEBS_DIR PTY_ANSWER WORK_DIR
set -euo pipefail

REPO="$1"
DEBS="$(cd "$2" && pwd)"
PTY_ANSWER="$3"
WORK="$4"
source "$REPO/tests/package/common.sh"
source "$REPO/scripts/pki.sh"
PASS_PHRASE="Demo-Stream-2026"

take_machine
rm -rf "$WORK"
mkdir -p "$WORK"
WORK="$(cd "$WORK" && pwd)"
runtime_deb="$(ls "$DEBS"/vardo-sdk_*.deb)"
dev_deb="$(ls "$DEBS"/vardo-sdk-dev_*.deb)"
version="$(dpkg-deb -f "$runtime_deb" Version)"

step "install $runtime_deb and the -dev package"
apt_quiet install "$runtime_deb" "$dev_deb"
user_line="$(getent passwd "$SDK_USER")" || fail "no user $SDK_USER"
[ "$(cut -d: -f3 <<<"$user_line")" -lt 1000 ] || fail "$SDK_USER is not a system user"
expect_eq "login shell" /usr/sbin/nologin "$(cut -d: -f7 <<<"$user_line")"
expect_eq "conffiles" "/etc/logrotate.d/vardo-sdk /etc/vardo-sdk/logging.conf /etc/vardo-sdk/streamserver.conf" \
    "$(dpkg-query -W -f='${Conffiles}' vardo-sdk | awk 'NF {print $1}' | sort | xargs)"
! dpkg -L vardo-sdk | grep -E 'vardo-tls-server|vardo-pty-answer|/include/|\.pc$|/cmake/' ||
    fail "the product package carries demo programs or development files"
! dpkg -L vardo-sdk | grep -E '/man/man[1-8]/.' | grep -vE '^/usr/share/man/man[1-8]/[^/]+\.gz$' ||
    fail "man pages outside /usr/share/man or uncompressed"
[ ! -e /etc/systemd/system/timers.target.wants/vardo-keys-renew.timer ] || fail "the renewal timer is enabled"
logrotate -d /etc/logrotate.d/vardo-sdk >"$WORK/logrotate.log" 2>&1 || fail "logrotate rejects its file"

# Hardening and stripping, file by file.
mapfile -t elves < <(find /usr/lib/vardo-sdk/bin /usr/lib/vardo-sdk/lib -type f ! -name libvardotools.so \
    -exec sh -c 'head -c4 "$1" | grep -q ELF' _ {} \; -print)
[ "${#elves[@]}" -ge 5 ] || fail "only ${#elves[@]} ELF files in the package"
fortified=0
for elf in "${elves[@]}"; do
    readelf -lW "$elf" | grep -q GNU_RELRO || fail "$elf: no RELRO"
    readelf -dW "$elf" | grep -q 'FLAGS.*NOW' || fail "$elf: no BIND_NOW"
    ! readelf -SW "$elf" | grep -qE '\.symtab|\.debug_info' || fail "$elf: not stripped"
    symbols="$(nm -D "$elf")"
    case "$elf" in
        */bin/*) readelf -dW "$elf" | grep -q 'FLAGS_1.*PIE' || fail "$elf: not PIE" ;;
        *) grep -q __stack_chk_fail <<<"$symbols" || fail "$elf: no stack protector" ;;
    esac
    ! grep -q '_chk@' <<<"$symbols" || fortified=1
done
[ "$fortified" -eq 1 ] || fail "no fortified calls in any program or library"

# Bash completion loads by command name.
completions="$(bash -c 'source /usr/share/bash-completion/bash_completion
    complete_line() { COMP_LINE="$1"; COMP_POINT=${#1}; read -ra COMP_WORDS <<<"$1"; COMP_CWORD=$((${#COMP_WORDS[@]} - 1))
        _completion_loader "${COMP_WORDS[0]}"; local f; f=$(complete -p "${COMP_WORDS[0]}" | sed "s/.*-F \([^ ]*\) .*/\1/")
        "$f" "${COMP_WORDS[0]}" "${COMP_WORDS[COMP_CWORD]}" "${COMP_WORDS[COMP_CWORD-1]}"; echo "${COMPREPLY[*]}"; }
    complete_line "vardo-keys r"; complete_line "certImport.sh -"')"
expect_eq "completions" $'rotate renew repair\n-c -s -k -r -h' "$completions"

# The developer interface builds a program against the installed libraries.
printf '#include <SecurityService.h>\nint main(void) { return 0; }\n' >"$WORK/consumer.c"
cc "$WORK/consumer.c" -o "$WORK/consumer" $(PKG_CONFIG_PATH=/usr/lib/vardo-sdk/lib/pkgconfig pkg-config --cflags --libs vardotools) \
    -Wl,-rpath,/usr/lib/vardo-sdk/lib && "$WORK/consumer" || fail "a program against vardo-sdk-dev"

step "import as $SDK_USER with the demo PKI"
make_demo_pki "$WORK/pki" "$PASS_PHRASE"
stage_material "$WORK/pki"
import_staged "$PASS_PHRASE" || fail "the import failed"
for file in ca.crt server.crt server.key ca.crl; do
    expect_eq "keys/$file" "$SDK_USER:$SDK_USER 400" "$(owner_mode "$IMPORT_DIR/keys/$file")"
    cmp -s "$WORK/pki/$file" "$IMPORT_DIR/keys/$file" || fail "keys/$file is not the staged file"
done
expect_eq "keys" "$SDK_USER:$SDK_USER 700" "$(owner_mode "$IMPORT_DIR/keys")"
grep -qE '^server_key_mm=.+' "$CONFIG" && grep -qx 'crl=./keys/ca.crl' "$CONFIG" || fail "streamserver.conf not rewritten"
expect_eq "log file" "$SDK_USER:$SDK_USER 600" "$(owner_mode /var/log/vardo-sdk/certImport.log)"
as_sdk_user "$SDK_HOME/bin/vardo-keys" verify >/dev/null || fail "vardo-keys verify"
run_tls_check

step "upgrade to a rebuilt package of a higher version, streamserver.conf edited"
sed 's/^max_sessions=.*/max_sessions=128/' "$CONFIG" >"$WORK/edited.conf"
cat "$WORK/edited.conf" >"$CONFIG" # in place: owner and mode stay
before="$(material_state)"
upgrade="$version+1"
bash "$REPO/scripts/package.sh" --version "$upgrade" --out "$WORK/upgrade" --work "$(dirname "$DEBS")/work" --no-lint
apt_quiet install "$WORK/upgrade/vardo-sdk_${upgrade}_"*.deb "$WORK/upgrade/vardo-sdk-dev_${upgrade}_"*.deb
expect_eq "installed version" "$upgrade" "$(dpkg-query -W -f='${Version}' vardo-sdk)"
expect_eq "keys and configuration after the upgrade" "$before" "$(material_state)"
lib=/usr/lib/vardo-sdk/lib
expect_eq "libvardotools.so" "$SDK_USER:$SDK_USER 644" "$(owner_mode "$lib/libvardotools.so")"
expect_eq "hard link" "$(stat -c %i "$lib/libvardotools.so.1.0.0")" "$(stat -c %i "$lib/libvardotools.so")"
expect_eq "streamserver.conf" "$SDK_USER:$SDK_USER 600" "$(owner_mode "$CONFIG")"
expect_eq "import directory" "$SDK_USER:$SDK_USER 750" "$(owner_mode "$IMPORT_DIR")"
# The upgraded package imports again (the last import's files made writable first).
as_sdk_user chmod u+w keys/ca.crt keys/server.crt keys/server.key keys/ca.crl
import_staged "$PASS_PHRASE" || fail "the import after the upgrade failed"
grep -qx 'max_sessions=128' "$CONFIG" || fail "the edit did not survive the import"

step "remove: configuration, keys and logs stay"
apt_quiet remove vardo-sdk-dev vardo-sdk
expect_eq "status after remove" "deinstall ok config-files" "$(dpkg-query -W -f='${Status}' vardo-sdk)"
[ ! -e /usr/lib/vardo-sdk ] || fail "/usr/lib/vardo-sdk left after remove"
grep -qx 'max_sessions=128' "$CONFIG" && [ -f "$IMPORT_DIR/keys/vardo.ks" ] || fail "remove took configuration or keys"

step "purge: nothing is left"
apt_quiet purge vardo-sdk
for path in /etc/vardo-sdk /var/lib/vardo-sdk /var/log/vardo-sdk /usr/lib/vardo-sdk /etc/logrotate.d/vardo-sdk \
    /lib/systemd/system/vardo-keys-renew.timer /usr/share/doc/vardo-sdk; do
    [ ! -e "$path" ] || fail "$path left after purge"
done
! getent passwd "$SDK_USER" >/dev/null && ! getent group "$SDK_USER" >/dev/null || fail "$SDK_USER left after purge"
! dpkg-query -W vardo-sdk >/dev/null 2>&1 || fail "dpkg still knows vardo-sdk"
! grep -rqs vardo /var/lib/systemd/deb-systemd-helper-enabled /var/lib/systemd/deb-systemd-helper-masked ||
    fail "systemd state of the timer left after purge"
echo "lifecycle: all steps passed"
