#!/usr/bin/env bash
# Installs the Debian packages needed to build and test the certificate
# import tool. Safe to run again: packages already installed are skipped, and
# the package lists are refreshed only when something is missing. Runs
# without a terminal (CI): apt-get never asks a question.
set -euo pipefail

packages=(
    build-essential cmake pkg-config
    libssl-dev openssl
    libgoogle-glog-dev libsafec-dev
    libgtest-dev libgmock-dev googletest libbenchmark-dev
    # the fuzz targets: clang with libFuzzer and the sanitizer runtimes
    clang libclang-rt-14-dev
    # used by the tests: useradd for the unprivileged test account, ps/kill,
    # setsid for running the command without a controlling terminal, chattr
    # for a key store that cannot be replaced, faketime for master keys made
    # in the past (their renewal)
    passwd procps util-linux e2fsprogs faketime
    # used by scripts/bench.sh for its statistics and the benchmarks' JSON
    python3
    # groff with tbl and the -man macros: the test that renders the manual pages
    groff-base
    # scripts/package.sh builds and lints the Debian packages; the package
    # scenarios import with sudo as an operator does, check the logrotate
    # file, and run the Ansible role (its expect task needs pexpect)
    dpkg-dev debhelper bash-completion lintian sudo logrotate ansible-core python3-pexpect
    # promtool, which checks the metrics vardo-tls-check writes for the node
    # exporter's textfile collector
    prometheus
)

if ! command -v apt-get >/dev/null 2>&1 || ! command -v dpkg-query >/dev/null 2>&1; then
    echo "install-deps.sh: this system has no apt-get; install these packages (or their equivalents) by hand:" >&2
    echo "  ${packages[*]}" >&2
    exit 1
fi

missing=()
for package in "${packages[@]}"; do
    if ! dpkg-query -W -f='${Status}' "$package" 2>/dev/null | grep -q 'install ok installed'; then
        missing+=("$package")
    fi
done

if [ "${#missing[@]}" -eq 0 ]; then
    echo "install-deps.sh: all build and test packages are installed."
    exit 0
fi

as_root=()
if [ "$(id -u)" -ne 0 ]; then
    if ! command -v sudo >/dev/null 2>&1; then
        echo "install-deps.sh: missing packages (${missing[*]}) and not root, and sudo is not available." >&2
        exit 1
    fi
    as_root=(sudo -n)
    # Without a terminal sudo cannot ask for a password; with one it may.
    if [ -t 0 ]; then
        as_root=(sudo)
    fi
fi

echo "install-deps.sh: installing ${missing[*]}"
export DEBIAN_FRONTEND=noninteractive
"${as_root[@]}" env DEBIAN_FRONTEND=noninteractive apt-get update -q </dev/null
"${as_root[@]}" env DEBIAN_FRONTEND=noninteractive apt-get install -y -q --no-install-recommends "${missing[@]}" </dev/null
