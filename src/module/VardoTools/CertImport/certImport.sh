#!/bin/bash
# Imports the stream server's TLS material into ./keys beside this script.
#
#   bash ./certImport.sh -c <ca.crt_path> -s <server.crt_path> -k <server.key_path> [-r <ca.crl_path>]
#
# Maps the options to the positions the certImport command takes (CA
# certificate, server certificate, encrypted server key, optional revocation
# list), makes relative paths absolute, and runs the command with this
# script's directory as working directory, so that ./keys and the SDK
# libraries are found there. Exits with the command's status.
#
# The command is taken from CERT_IMPORT_BIN when set, else ./certImport beside
# this script, else ../../../bin/certImport (an installed SDK, where this
# script sits in tools/VardoTools/CertImport).

usage() {
    echo "usage: bash ./certImport.sh -c <ca.crt_path> -s <server.crt_path> -k <server.key_path>"
    echo "example: bash ./certImport.sh -c ./ca/ca/ca.crt -s ./ca/server/server.crt -k ./ca/server/server.key"
    echo "or load crl list as follows"
    echo "usage: bash ./certImport.sh -c <ca.crt_path> -s <server.crt_path> -k <server.key_path> -r <ca.crl_path>"
}

# Refused invocations end like the command's own usage path.
readonly USAGE_STATUS=255

# Sets absolute to the absolute form of a path given relative to the
# caller's directory (no command substitution, so no character of the path is
# lost). An empty value stays empty: the command decides what it means.
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
        h) usage; exit 0 ;;
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

# The script's directory becomes the working directory. Found with built-ins
# only (no dirname, no command substitution): each fork costs a few
# milliseconds of an import that otherwise takes little more.
script_path="${BASH_SOURCE[0]}"
case "$script_path" in
    */*) script_dir="${script_path%/*}" ;;
    *) script_dir="." ;;
esac
cd -- "${script_dir:-/}" || exit "$USAGE_STATUS"
script_dir="$PWD"

if [ -z "$command_path" ]; then
    if [ -x "$script_dir/certImport" ]; then
        command_path="$script_dir/certImport"
    else
        command_path="$script_dir/../../../bin/certImport"
    fi
fi
if [ ! -x "$command_path" ]; then
    echo "certImport.sh: the certImport command was not found at $command_path" >&2
    exit "$USAGE_STATUS"
fi

exec "$command_path" "${arguments[@]}"
