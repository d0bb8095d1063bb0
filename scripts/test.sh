#!/usr/bin/env bash
# Builds the project and runs the whole test suite twice: a normal build in
# build/ and an AddressSanitizer + UndefinedBehaviorSanitizer build in
# build-asan/ (the scenarios that build, install and purge the Debian
# packages, labels package and ansible, run in the normal stage only); then
# the fuzz targets in build-fuzz/ (clang), each over its corpora and for a few
# seconds (VARDO_FUZZ_SECONDS, default 10). Exits
# non-zero when anything fails. Needs no terminal and no
# standard input (CI runs it through .ci/run).
set -euo pipefail

cd "$(dirname -- "${BASH_SOURCE[0]}")/.."
repo="$PWD"
# Nothing here reads standard input; a closed descriptor 0 could be taken by
# the first file a test opens, so give it /dev/null.
exec </dev/null

jobs=2
bash scripts/install-deps.sh

# LeakSanitizer needs ptrace-like access to the process; some containers
# forbid it, and then every sanitized program would die at exit. Probe once
# with a program that leaks on purpose.
leak_probe() {
    local dir status=0 output
    dir="$(mktemp -d)"
    printf '#include <stdlib.h>\nint main(void) { void *p = malloc(33); p = 0; return 0; }\n' >"$dir/leak.c"
    if ! cc -fsanitize=address -g -o "$dir/leak" "$dir/leak.c" 2>/dev/null; then
        rm -rf "$dir"
        return 1
    fi
    output="$(ASAN_OPTIONS=detect_leaks=1 "$dir/leak" 2>&1)" || status=$?
    rm -rf "$dir"
    [ "$status" -ne 0 ] && grep -q 'LeakSanitizer: detected memory leaks' <<<"$output"
}
if leak_probe; then
    detect_leaks=1
else
    # LeakSanitizer cannot run on this machine (no ptrace access for its
    # checker); leaks go unreported here, everything else is still checked.
    detect_leaks=0
    echo "test.sh: LeakSanitizer does not work on this machine; leak detection is off for the sanitizer run."
fi

summaries=()
failed=0

# Extra ctest arguments of the next run_suite.
ctest_args=()

# run_suite NAME BUILD_DIR [cmake options...]
run_suite() {
    local name="$1" dir="$2"
    shift 2
    echo "==== $name: configure and build in $dir"
    if ! cmake -S "$repo" -B "$dir" -DCMAKE_BUILD_TYPE=RelWithDebInfo "$@"; then
        summaries+=("$name: configuration failed")
        return 1
    fi
    if ! cmake --build "$dir" -j"$jobs"; then
        summaries+=("$name: build failed")
        return 1
    fi
    echo "==== $name: tests"
    local status=0
    ctest --test-dir "$dir" -j"$jobs" --output-on-failure --no-tests=error --timeout 300 "${ctest_args[@]}" \
        2>&1 | tee "$dir/ctest.log" || status=$?
    local summary
    summary="$(grep -E 'tests passed|tests failed' "$dir/ctest.log" | tail -n 1 || true)"
    summaries+=("$name: ${summary:-no ctest summary}")
    return "$status"
}

run_suite "normal build" "$repo/build" || failed=1

# The package and Ansible scenarios build, install and purge the Debian
# packages; once, in the normal stage, is enough.
ctest_args=(-LE 'package|ansible')
export ASAN_OPTIONS="halt_on_error=1:abort_on_error=0:detect_leaks=$detect_leaks"
export UBSAN_OPTIONS="halt_on_error=1:print_stacktrace=1"
run_suite "sanitizer build" "$repo/build-asan" -DVARDO_SANITIZE=ON -DVARDO_BUILD_BENCHMARKS=OFF || failed=1

# Fuzz stage: the libFuzzer targets (clang, in build-fuzz/) over their
# committed corpora, then a short bounded run of each.
echo "==== fuzz targets: build in $repo/build-fuzz, corpora and ${VARDO_FUZZ_SECONDS:=10} s of each"
if bash scripts/fuzz.sh --all "$VARDO_FUZZ_SECONDS"; then
    summaries+=("fuzz targets: clean")
else
    summaries+=("fuzz targets: FAILED (inputs in build-fuzz/findings/)")
    failed=1
fi

echo "==== summary"
for line in "${summaries[@]}"; do
    echo "$line"
done
if [ "$failed" -ne 0 ]; then
    echo "test.sh: FAILED"
    exit 1
fi
echo "test.sh: all tests passed"
