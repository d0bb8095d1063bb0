#!/usr/bin/env bash
# What a first import costs next to the crypto it cannot avoid, and what the
# security service's protect/unprotect costs next to OpenSSL alone:
#
#   1. install the packages, build a Release tree in build-bench/ (no tests),
#      install a scratch SDK tree from it, make the demo PKI once
#   2. time, interleaved (A, B, C, A, B, C, ...) after one untimed warm-up round:
#        A  the whole first import: `bash ./certImport.sh -c -s -k -r` on a
#           pseudo-terminal (bench/ptytime opens the terminal before its clock
#           starts and types the pass phrase and "y" as soon as each prompt
#           shows), from a fresh SDK tree with no ./keys and the pristine
#           streamserver.conf (made before the clock starts)
#        B  bench/import_baseline.c: the same crypto and store writes done
#           plainly with OpenSSL, as one process
#        C  bench/import_openssl.sh: the same checks with the openssl command line
#        D  `vardo-keys status` on a store of 100 domains x 1,000 master keys
#           (written once by `vardokms_bench --write-store`), its output thrown
#           away; its wall time, CPU time and largest resident set
#        E, F, G  what starting a process costs before any work: `bash -c :`,
#           an empty program with libcrypto (B's start) and one with the
#           import command's library (bench/empty_main.c)
#      and print median, spread and the ratios A/B and A/C against their
#      targets, and the floors: the least A can take, E + G + (B - F), and the
#      parts of unprotect that the service's decoder and buffers fix
#   3. run the Google Benchmark programs of the build (security_service_bench,
#      vardokms_bench) and print their rows and the ratios of protect/unprotect
#      to the raw OpenSSL baseline in the same binary
#   4. print first the rows the performance work is judged by, each with its
#      target: A/B, A/C, protect and unprotect against raw OpenSSL, engine
#      start on stores of 1 to 100,000 keys, and D
#
# Wall times come from the monotonic clock (bench/timeit; bench/ptytime for A),
# with the CPU time of each process beside them. The tables are Markdown; they
# are also left in build-bench/bench-results.md. Needs no terminal and no
# standard input.
set -euo pipefail

usage() {
    cat <<'EOF'
usage: scripts/bench.sh [--runs N] [--quick]
  --runs N   interleaved rounds of A, B, C (default 30; at least 2)
  --quick    a smoke check: 3 rounds (unless --runs says otherwise) and short
             Google Benchmark runs
  --help     this text
Environment: VARDO_BENCH_BUILD_DIR (default build-bench/ of the repository),
TMPDIR (where the scratch tree goes; it is removed at the end).
EOF
}

runs=""
quick=0
while [ "$#" -gt 0 ]; do
    case "$1" in
        --runs)
            [ "$#" -ge 2 ] || { echo "bench.sh: --runs needs a number (try --help)" >&2; exit 2; }
            runs="$2"
            shift 2
            ;;
        --runs=*) runs="${1#--runs=}"; shift ;;
        --quick) quick=1; shift ;;
        -h | --help) usage; exit 0 ;;
        *) echo "bench.sh: unknown option $1 (try --help)" >&2; exit 2 ;;
    esac
done
if [ -z "$runs" ]; then
    runs=30
    [ "$quick" -eq 1 ] && runs=3
fi
if ! [[ "$runs" =~ ^[0-9]+$ ]] || [ "$runs" -lt 2 ] || [ "$runs" -gt 10000 ]; then
    echo "bench.sh: --runs takes a number from 2 to 10000, not \"$runs\"" >&2
    exit 2
fi
if [ "$quick" -eq 1 ]; then
    gbench_flags=(--benchmark_repetitions=3 --benchmark_min_time=0.01)
else
    gbench_flags=(--benchmark_repetitions=10 --benchmark_min_time=0.1)
fi

cd "$(dirname -- "${BASH_SOURCE[0]}")/.."
repo="$PWD"
# shellcheck source=scripts/pki.sh
source "$repo/scripts/pki.sh"
exec </dev/null
build="${VARDO_BENCH_BUILD_DIR:-$repo/build-bench}"
pass_phrase="Demo-Stream-2026"

step() { printf '==== %s\n' "$*" >&2; }

# ---- 1. build, SDK tree, PKI ----------------------------------------------------
step "packages"
bash scripts/install-deps.sh >&2
step "Release build in $build"
mkdir -p "$build"
build_log="$build/bench-build.log"
if ! { cmake -S "$repo" -B "$build" -DCMAKE_BUILD_TYPE=Release -DVARDO_BUILD_TESTS=OFF &&
    cmake --build "$build" -j2; } >"$build_log" 2>&1; then
    tail -n 40 "$build_log" >&2
    echo "bench.sh: the build failed (whole log: $build_log)" >&2
    exit 1
fi
mkdir -p "$build/bench"
timeit="$build/bench/timeit"
baseline="$build/bench/import_baseline"
cc -O2 -Wall -Wextra -o "$timeit" bench/timeit.c
cc -O2 -Wall -Wextra -o "$baseline" bench/import_baseline.c -lcrypto
ptytime="$build/bench/ptytime"
cc -O2 -Wall -Wextra -o "$ptytime" bench/ptytime.c -lutil
kms_bench="$(find "$build" -name vardokms_bench -type f -perm -u+x -print -quit)"

scratch="$(mktemp -d "${TMPDIR:-/tmp}/vardo-bench.XXXXXX")"
trap 'rm -rf -- "$scratch"' EXIT
trap 'exit 130' INT TERM
sdk="$scratch/sdk"
pki="$scratch/pki"
cmake --install "$build" --prefix "$sdk" >/dev/null
step "demo PKI in $pki"
make_demo_pki "$pki" "$pass_phrase"
# Empty programs with the libraries of B (libcrypto) and of the import command
# (libvardotools and what it loads): the cost of starting each process.
empty_crypto="$build/bench/empty_crypto"
empty_command="$build/bench/empty_command"
cc -O2 -o "$empty_crypto" bench/empty_main.c -Wl,--no-as-needed -lcrypto
cc -O2 -o "$empty_command" bench/empty_main.c -Wl,--no-as-needed -L"$sdk/lib" -Wl,-rpath,"$sdk/lib" \
    -l:libvardotools.so.1
files=("$pki/ca.crt" "$pki/server.crt" "$pki/server.key" "$pki/ca.crl")
status_store="$scratch/status-store"
if [ -n "$kms_bench" ]; then
    step "key store of 100 domains x 1,000 master keys in $status_store"
    mkdir -m 700 -- "$status_store"
    "$kms_bench" --write-store "$status_store" 100 1000
fi

# ---- 2. the whole processes ------------------------------------------------------
# Each function runs its row once and appends the times to file $1. Whatever a
# run needs is prepared before, and checked after, the timed part.
fail() {
    echo "bench.sh: run $1 failed; its output:" >&2
    sed 's/^/    /' "$2" >&2
    exit 1
}

# A: a fresh SDK tree (the read-only files hard-linked, config/ copied, so no
# pile of unsynced data waits for the import's fsyncs), the import in its tools
# directory, answers typed at once. The wrapper's report of vardo-tls-check after the
# import is left out (VARDO_TLS_CHECK_BIN names no program): it is a check of
# its own, not part of the import.
run_import() {
    local copy="$scratch/run-sdk" log="$scratch/A.log"
    rm -rf -- "$copy"
    cp -al -- "$sdk" "$copy"
    rm -rf -- "$copy/config"
    cp -pR -- "$sdk/config" "$copy/config"
    local tools="$copy/tools/VardoTools/CertImport"
    cd -- "$tools"
    if ! OVRA_SDK_HOME="$copy" VARDO_TLS_CHECK_BIN=/nonexistent "$ptytime" "$1" \
        --expect "please input the plain text: " --send "$pass_phrase\n" \
        --expect "[y/n]" --send "y\n" \
        -- bash ./certImport.sh -c "${files[0]}" -s "${files[1]}" -k "${files[2]}" -r "${files[3]}" \
        >"$log" 2>&1; then
        cd -- "$repo"
        fail A "$log"
    fi
    cd -- "$repo"
    if ! grep -q '^server_key_mm=.' "$copy/config/streamserver.conf" || [ ! -s "$tools/keys/vardo.ks" ]; then
        fail "A (exit status 0, but no encrypted pass phrase or key store)" "$log"
    fi
}

run_baseline() {
    local out="$scratch/out-B" log="$scratch/B.log"
    rm -rf -- "$out"
    mkdir -m 700 -- "$out"
    BENCH_PASS_PHRASE="$pass_phrase" "$timeit" "$1" "$baseline" "${files[@]}" "$out" >"$log" 2>&1 ||
        fail B "$log"
    if [ ! -s "$out/vardo.ks" ] || [ ! -s "$out/StandbyKsf.ks" ]; then
        fail "B (no files written)" "$log"
    fi
}

run_cli() {
    local out="$scratch/out-C" log="$scratch/C.log"
    rm -rf -- "$out"
    mkdir -m 700 -- "$out"
    BENCH_PASS_PHRASE="$pass_phrase" "$timeit" "$1" bash "$repo/bench/import_openssl.sh" "${files[@]}" "$out" \
        >"$log" 2>&1 || fail C "$log"
    if [ ! -s "$out/pass.enc" ]; then
        fail "C (no file written)" "$log"
    fi
}

# D: the operator's status report on the large store, as an operator runs it.
run_status() {
    local log="$scratch/D.log"
    [ -n "$kms_bench" ] || return 0
    "$timeit" "$1" "$sdk/bin/vardo-keys" --primary "$status_store/vardo.ks" \
        --standby "$status_store/StandbyKsf.ks" status >/dev/null 2>"$log" || fail D "$log"
}

# E, F, G: what starting bash, B's process and the command's process cost
# (bash -c :, and the empty programs): the part of A and B that no change to
# the import's own work can remove.
run_starts() {
    "$timeit" "$1/E" bash -c : || fail E /dev/null
    "$timeit" "$1/F" "$empty_crypto" || fail F /dev/null
    "$timeit" "$1/G" "$empty_command" || fail G /dev/null
}

times="$scratch/times"
mkdir -p "$times"
load_before="$(cut -d ' ' -f 1-3 /proc/loadavg)"
step "warm-up round (not counted)"
run_import "$times/warm-up"
run_baseline "$times/warm-up"
run_cli "$times/warm-up"
run_status "$times/warm-up"
mkdir -p "$times/warm-up-starts"
run_starts "$times/warm-up-starts"
step "$runs interleaved rounds of A (import), B (C baseline), C (openssl CLI), D (vardo-keys status)"
for ((round = 1; round <= runs; round++)); do
    run_import "$times/A"
    run_baseline "$times/B"
    run_cli "$times/C"
    run_status "$times/D"
    run_starts "$times"
    if ((round % 10 == 0 || round == runs)); then
        echo "  $round/$runs" >&2
    fi
done

# ---- 3. Google Benchmark programs ---------------------------------------------------
gbench_json=()
gbench_failed=()
for name in security_service_bench vardokms_bench; do
    binary="$(find "$build" -name "$name" -type f -perm -u+x -print -quit)"
    if [ -z "$binary" ]; then
        step "$name: not built (VARDO_BUILD_BENCHMARKS=OFF?), skipped"
        continue
    fi
    step "$name ${gbench_flags[*]}"
    json="$scratch/$name.json"
    if (cd -- "$scratch" && "$binary" "${gbench_flags[@]}" --benchmark_enable_random_interleaving=true \
        --benchmark_out="$json" --benchmark_out_format=json) >"$scratch/$name.log" 2>&1; then
        gbench_json+=("$json")
    else
        tail -n 20 "$scratch/$name.log" >&2
        gbench_failed+=("$name")
        [ -s "$json" ] && gbench_json+=("$json")
    fi
done

# ---- the tables ---------------------------------------------------------------------
results="$build/bench-results.md"
{
    commit="$(git -C "$repo" rev-parse --short HEAD 2>/dev/null || echo unknown)"
    git -C "$repo" diff --quiet HEAD 2>/dev/null || commit="$commit with local changes"
    echo "scripts/bench.sh: $(date -u '+%Y-%m-%d %H:%M UTC'), commit $commit, Release build," \
        "$(nproc) cores, load average $load_before before the runs," \
        "$(cut -d ' ' -f 1-3 /proc/loadavg) after them"
    echo
    python3 bench/stats.py summary "$times" "${gbench_json[@]}"
    echo
    python3 bench/stats.py process "$times/A" "$times/B" "$times/C"
    echo
    python3 bench/stats.py floors "$times" "${gbench_json[@]}"
    if [ "${#gbench_json[@]}" -gt 0 ]; then
        echo
        python3 bench/stats.py gbench "${gbench_json[@]}"
    fi
} | tee "$results"
echo "(also in $results)" >&2
if [ "${#gbench_failed[@]}" -gt 0 ]; then
    echo "bench.sh: ${gbench_failed[*]} failed; the rows above miss what it did not finish." >&2
    exit 1
fi
