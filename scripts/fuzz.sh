#!/usr/bin/env bash
# Fuzzing of the parsers and buffers that take outside input. Builds the
# libFuzzer programs in build-fuzz/ (clang, AddressSanitizer and UBSan over
# the whole library), then:
#
#   scripts/fuzz.sh TARGET SECONDS [libFuzzer options...]
#       a campaign on one target, from its committed corpora; new inputs are
#       kept in build-fuzz/corpus/TARGET (the committed corpus is not
#       changed) and a failing input is written to build-fuzz/findings/
#   scripts/fuzz.sh --all SECONDS
#       every target once over its committed corpora, then SECONDS of fuzzing
#       each from a scratch corpus (the fuzz stage of scripts/test.sh)
#
# Targets: the directories of tests/fuzz/corpus. An input that broke a target
# belongs, once fixed, in tests/fuzz/regression/TARGET. Exit status 0 when
# every run was clean.
set -euo pipefail

cd "$(dirname -- "${BASH_SOURCE[0]}")/.."
repo="$PWD"
build="$repo/build-fuzz"
targets=()
for dir in "$repo"/tests/fuzz/corpus/*/; do
    targets+=("$(basename "$dir")")
done

usage() {
    echo "usage: scripts/fuzz.sh TARGET SECONDS [libFuzzer options...] | --all SECONDS" >&2
    echo "targets: ${targets[*]}" >&2
    exit 2
}
[ "$#" -ge 2 ] && [[ "$2" =~ ^[0-9]+$ ]] || usage
if [ "$1" != "--all" ] && [[ ! " ${targets[*]} " == *" $1 "* ]]; then
    usage
fi

command -v clang++ >/dev/null 2>&1 || { echo "fuzz.sh: clang++ is missing (scripts/install-deps.sh installs it)" >&2; exit 1; }
cmake -S "$repo" -B "$build" -DCMAKE_BUILD_TYPE=RelWithDebInfo -DCMAKE_C_COMPILER=clang -DCMAKE_CXX_COMPILER=clang++ \
    -DVARDO_FUZZ=ON -DVARDO_BUILD_TESTS=OFF -DVARDO_BUILD_BENCHMARKS=OFF >/dev/null
cmake --build "$build" -j2 --target vardo_fuzz
mkdir -p "$build/findings"

# Committed inputs of a target: its seeds and its regression inputs.
inputs_of() {
    echo "$repo/tests/fuzz/corpus/$1"
    if [ -d "$repo/tests/fuzz/regression/$1" ]; then
        echo "$repo/tests/fuzz/regression/$1"
    fi
}

# fuzz NAME SECONDS WORK_CORPUS [options...]
fuzz() {
    local name="$1" seconds="$2" work="$3"
    shift 3
    mkdir -p "$work"
    mapfile -t inputs < <(inputs_of "$name")
    "$build/tests/fuzz/fuzz_$name" -max_total_time="$seconds" -timeout=10 -rss_limit_mb=2048 -print_final_stats=1 \
        -artifact_prefix="$build/findings/$name-" "$@" "$work" "${inputs[@]}"
}

if [ "$1" != "--all" ]; then
    fuzz "$1" "$2" "$build/corpus/$1" "${@:3}"
    exit
fi

failed=()
for name in "${targets[@]}"; do
    mapfile -t inputs < <(inputs_of "$name")
    echo "==== fuzz $name: committed inputs"
    if ! "$build/tests/fuzz/fuzz_$name" -runs=0 -artifact_prefix="$build/findings/$name-" "${inputs[@]}"; then
        failed+=("$name (committed inputs)")
        continue
    fi
    echo "==== fuzz $name: $2 s"
    work="$(mktemp -d)"
    fuzz "$name" "$2" "$work" || failed+=("$name (fuzzing)")
    rm -rf "$work"
done
if [ "${#failed[@]}" -ne 0 ]; then
    echo "fuzz.sh: FAILED: ${failed[*]}; inputs in $build/findings/"
    exit 1
fi
echo "fuzz.sh: ${#targets[@]} targets clean"
