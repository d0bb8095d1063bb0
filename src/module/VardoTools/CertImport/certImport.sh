#!/bin/bash
# Imports the stream server's TLS material into ./keys beside this script.
#
#   bash ./certImport.sh -c <ca.crt_path> -s <server.crt_path> -k <server.key_path> [-r <ca.crl_path>]
#   bash ./certImport.sh -h
#
# Maps the options to the positions the certImport command takes (CA
# certificate, server certificate, encrypted server key, optional revocation
# list), makes relative paths absolute, and runs the command with this
# script's directory as working directory, so that ./keys and the SDK
# libraries are found there. Exits with the command's status.
#
# Before that it checks what can be checked without the pass phrase: the SDK
# root, its streamserver.conf, the library the command checks, and the files
# given. A setup the command would refuse only after the pass phrase, the
# fingerprint question or the copies is refused here with one line on
# standard error naming the path and the fix, status 255, nothing asked and
# nothing written (not even to the log). The command's own checks and records
# stay as they are; this only refuses earlier.
#
# After a successful import the check command vardo-tls-check, when it is
# installed, looks at what was imported and its report is shown; the exit
# status stays the import's.
#
# The command is taken from CERT_IMPORT_BIN when set, else ./certImport beside
# this script, else ../../../bin/certImport (an installed SDK, where this
# script sits in tools/VardoTools/CertImport). The check is taken from
# VARDO_TLS_CHECK_BIN when set, else vardo-tls-check beside the command.
#
# Built-ins only on the way to the command (no dirname, stat or command
# substitution): each fork costs a few milliseconds of an import that
# otherwise takes little more.

usage() {
    echo "usage: bash ./certImport.sh -c <ca.crt_path> -s <server.crt_path> -k <server.key_path>"
    echo "example: bash ./certImport.sh -c ./ca/ca/ca.crt -s ./ca/server/server.crt -k ./ca/server/server.key"
    echo "or load crl list as follows"
    echo "usage: bash ./certImport.sh -c <ca.crt_path> -s <server.crt_path> -k <server.key_path> -r <ca.crl_path>"
}

show_help() {
    local text
    IFS= read -r -d '' text <<'EOF'
usage: bash ./certImport.sh -c <ca.crt_path> -s <server.crt_path> -k <server.key_path> [-r <ca.crl_path>]
       bash ./certImport.sh -h

Hands the stream server its TLS material: copies the CA certificate, the
server certificate and the server's encrypted private key (and the CA's
revocation list) into ./keys beside this script, and stores the key's pass
phrase, encrypted, in $OVRA_SDK_HOME/config/streamserver.conf.
Run it as the user who owns the SDK installation, with OVRA_SDK_HOME set to
the SDK root.

Options:
  -c <ca.crt_path>      CA certificate, PEM: a CA (basic constraints CA:TRUE)
                        allowed to sign, signed with sha256WithRSAEncryption or
                        sha512WithRSAEncryption
  -s <server.crt_path>  server certificate, PEM: RSA key of at least 3072
                        bits, signed with one of those two algorithms
  -k <server.key_path>  the server's private key, PEM, encrypted with a pass
                        phrase
  -r <ca.crl_path>      the CA's certificate revocation list, PEM (optional)
  -h                    this text
Relative paths are taken from the directory you run the script in. Each file
must be a readable regular file of your own (not a symbolic link).

What an import does, in this order (any refusal stops it, status 255):
  1. This script checks OVRA_SDK_HOME, config/streamserver.conf and
     lib/libvardotools.so under it, and the files given; a problem is named
     on one line, before anything is asked.
  2. Asks for the pass phrase of the server key ("please input the plain
     text: "): 8 to 100 characters, two kinds at least of lower case, upper
     case, digits and symbols.
  3. With -r: checks the revocation list against the CA certificate (its
     signature, last and next update).
  4. Proves that the pass phrase opens the server key.
  5. Checks the CA certificate, shows its fingerprint and asks "Do you want
     to continue with this certificate? [y/n]" (y imports, n stops); then
     both certificates' validity dates and the server certificate's
     algorithm and key size.
  6. Copies the files into ./keys as ca.crt, server.crt, server.key and
     ca.crl, each mode 0400 (./keys is 0700).
  7. Encrypts the pass phrase under the key stores ./keys/vardo.ks and
     ./keys/StandbyKsf.ks (made at the first import) and writes it, with the
     new paths, into streamserver.conf.
  8. When vardo-tls-check is installed beside the command, runs it and shows
     its report on whether the imported material will serve.

Log: every record goes to standard error and to certImport.log in the log
directory: log_dir of $OVRA_SDK_HOME/config/logging.conf when set, else
$OVRA_SDK_HOME/logs. The fingerprint and the [y/n] question are records
too: keep stderr_threshold at 0.

Exit status: 0 imported (whatever the check then reports; -h also exits 0),
255 refused or failed: this script's one line says why, or the records of
the command do.

Environment:
  OVRA_SDK_HOME        the SDK root (required)
  CERT_IMPORT_BIN      the certImport command to run instead of the SDK's
  VARDO_TLS_CHECK_BIN  the check to run instead of the SDK's vardo-tls-check

Examples:
  First import:
    export OVRA_SDK_HOME=/opt/sdk; cd "$OVRA_SDK_HOME/tools/VardoTools/CertImport"
    bash ./certImport.sh -c /srv/pki/ca.crt -s /srv/pki/server.crt -k /srv/pki/server.key -r /srv/pki/ca.crl
  Renewal, a year later: import the new files the same way. The copies of
  the first import are replaced; remove nothing, above all not ./keys, whose
  key stores the stored pass phrase depends on:
    bash ./certImport.sh -c /srv/pki/ca.crt -s /srv/pki/server-2.crt -k /srv/pki/server-2.key -r /srv/pki/ca.crl

See certImport.sh(8), vardo-tls-check(8) and vardo-keys(8).
EOF
    printf '%s' "$text"
}

# Refused invocations end like the command's own usage path.
readonly USAGE_STATUS=255

# Refuses the run with one line on standard error.
refuse() {
    echo "certImport.sh: $1" >&2
    exit "$USAGE_STATUS"
}

# Sets absolute to the absolute form of a path given relative to the
# caller's directory (no command substitution, so no character of the path is
# lost). An empty value stays empty.
absolute=""
make_absolute() {
    case "$1" in
        "" | /*) absolute="$1" ;;
        *) absolute="$PWD/$1" ;;
    esac
}

ca_crt=""
server_crt=""
server_key=""
crl=""
have_ca=0
have_server=0
have_key=0
have_crl=0

OPTIND=1
while getopts ":c:s:k:r:h" option; do
    case "$option" in
        c) [ "$have_ca" -eq 0 ] || { usage; exit "$USAGE_STATUS"; }
           ca_crt="$OPTARG"; have_ca=1 ;;
        s) [ "$have_server" -eq 0 ] || { usage; exit "$USAGE_STATUS"; }
           server_crt="$OPTARG"; have_server=1 ;;
        k) [ "$have_key" -eq 0 ] || { usage; exit "$USAGE_STATUS"; }
           server_key="$OPTARG"; have_key=1 ;;
        r) [ "$have_crl" -eq 0 ] || { usage; exit "$USAGE_STATUS"; }
           crl="$OPTARG"; have_crl=1 ;;
        h) show_help; exit 0 ;;
        *) usage; exit "$USAGE_STATUS" ;;
    esac
done
shift $((OPTIND - 1))

if [ "$#" -ne 0 ] || [ "$have_ca" -eq 0 ] || [ "$have_server" -eq 0 ] || [ "$have_key" -eq 0 ]; then
    usage
    exit "$USAGE_STATUS"
fi

arguments=()
for path in "$ca_crt" "$server_crt" "$server_key"; do
    make_absolute "$path"
    arguments+=("$absolute")
done
if [ "$have_crl" -eq 1 ]; then
    make_absolute "$crl"
    arguments+=("$absolute")
fi

command_path=""
if [ -n "${CERT_IMPORT_BIN:-}" ]; then
    make_absolute "$CERT_IMPORT_BIN"
    command_path="$absolute"
fi
check_path=""
if [ -n "${VARDO_TLS_CHECK_BIN:-}" ]; then
    make_absolute "$VARDO_TLS_CHECK_BIN"
    check_path="$absolute"
fi

# The script's directory becomes the working directory, without links (-P):
# the command resolves its library path physically from there.
script_path="${BASH_SOURCE[0]}"
case "$script_path" in
    */*) script_dir="${script_path%/*}" ;;
    *) script_dir="." ;;
esac
cd -P -- "${script_dir:-/}" || exit "$USAGE_STATUS"
script_dir="$PWD"
# The installation's root, "../../.." of this directory: with no links in
# the directory's path, the same place as its last three names taken away.
install_root="$script_dir"
for _ in 1 2 3; do
    install_root="${install_root%/*}"
done

if [ -z "$command_path" ]; then
    if [ -x "$script_dir/certImport" ]; then
        command_path="$script_dir/certImport"
    else
        command_path="$install_root/bin/certImport"
    fi
fi
if [ ! -x "$command_path" ]; then
    echo "certImport.sh: the certImport command was not found at $command_path" >&2
    exit "$USAGE_STATUS"
fi
if [ -z "$check_path" ]; then
    check_path="${command_path%/*}/vardo-tls-check"
fi

# ---- preflight ----------------------------------------------------------------
# Who runs the import: the command wants its files owned by the effective user,
# which is what test -O compares with.
readonly RUNNING_USER="the running user (uid $EUID)"

# The SDK root as the command sees it: OVRA_SDK_HOME from the working
# directory set above. An empty value counts as not set.
sdk_home="${OVRA_SDK_HOME:-}"
if [ -z "$sdk_home" ]; then
    refuse "OVRA_SDK_HOME is not set: export OVRA_SDK_HOME=<SDK root>, the directory that holds config/streamserver.conf and lib/, and run again"
fi
case "$sdk_home" in
    /*) ;;
    *) sdk_home="$script_dir/$sdk_home" ;;
esac
if [ ! -d "$sdk_home" ]; then
    refuse "OVRA_SDK_HOME=$sdk_home is not a directory: set it to the SDK root, the directory that holds config/streamserver.conf and lib/"
fi

config="${sdk_home%/}/config/streamserver.conf"
if [ -L "$config" ]; then
    refuse "$config is a symbolic link, which the import refuses: put the configuration file itself there (mode 0600)"
elif [ ! -e "$config" ]; then
    refuse "$config does not exist: set OVRA_SDK_HOME to the SDK root, or put the SDK's streamserver.conf there (mode 0600)"
elif [ ! -f "$config" ]; then
    refuse "$config is not a regular file: put the SDK's streamserver.conf there (mode 0600)"
elif [ ! -O "$config" ]; then
    refuse "$config is not owned by $RUNNING_USER: run the import as the owner of the SDK installation, or chown the file to that user"
fi

# The command checks "../../../lib/libvardotools.so" from its working directory.
library="$install_root/lib/libvardotools.so"
if [ -L "$library" ]; then
    refuse "$library is a symbolic link, which the import refuses: make it a hard link of the versioned libvardotools.so.1.* beside it, as the SDK installs it"
elif [ ! -e "$library" ]; then
    refuse "$library does not exist: run the certImport.sh of an installed SDK, from its tools/VardoTools/CertImport, three levels below the directory that holds lib/"
elif [ ! -f "$library" ]; then
    refuse "$library is not a regular file: reinstall the SDK's lib/"
elif [ ! -O "$library" ]; then
    refuse "$library is not owned by $RUNNING_USER: run the import as the owner of the SDK installation"
fi

# Each file given, as the command will read it. An empty -r is refused as
# well: the command would take it for no list to check or copy, yet point the
# configuration at ./keys/ca.crl.
options=(-c -s -k -r)
meanings=("the CA certificate" "the server certificate" "the encrypted server key" "the revocation list")
for index in "${!arguments[@]}"; do
    path="${arguments[$index]}"
    given="${options[$index]} $path"
    what="${meanings[$index]}"
    if [ -z "$path" ]; then
        [ "$index" -eq 3 ] && refuse "-r is empty: give the path of $what (PEM), or leave -r out"
        refuse "${options[$index]} is empty: give the path of $what (PEM)"
    elif [ -L "$path" ]; then
        refuse "$given is a symbolic link, which the import refuses: give the path of $what itself"
    elif [ ! -e "$path" ]; then
        refuse "$given does not exist: give the path of $what (PEM)"
    elif [ ! -f "$path" ]; then
        refuse "$given is not a regular file: give the path of $what (PEM)"
    elif [ ! -O "$path" ]; then
        refuse "$given is not owned by $RUNNING_USER: the import takes only your own files; copy it and give the copy"
    elif [ ! -r "$path" ]; then
        refuse "$given is not readable by its owner, $RUNNING_USER: chmod u+r it"
    fi
done

# ---- the import -----------------------------------------------------------------
# Without a check to run afterwards the command replaces this shell (no fork).
if [ ! -f "$check_path" ] || [ ! -x "$check_path" ]; then
    exec "$command_path" "${arguments[@]}"
fi
"$command_path" "${arguments[@]}"
status=$?
if [ "$status" -eq 0 ]; then
    echo "certImport.sh: imported; what $check_path says of it:"
    "$check_path" </dev/null
fi
exit "$status"
