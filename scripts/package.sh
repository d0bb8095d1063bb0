#!/usr/bin/env bash
# Builds the Debian packages of the SDK into dist/ (debian/ holds the
# packaging), then checks them with lintian:
#
#   vardo-sdk_VERSION_ARCH.deb          programs, libraries, configuration, SDK tree
#   vardo-sdk-dev_VERSION_ARCH.deb      headers, CMake package, pkg-config file
#   vardo-sdk-dbgsym_VERSION_ARCH.ddeb  debug symbols of both
#
#   scripts/package.sh [--version VERSION] [--out DIR] [--work DIR] [--no-lint]
#
# VERSION defaults to the project's version in CMakeLists.txt, which must then
# be the latest entry of debian/changelog; another VERSION gets a changelog
# entry of its own in the build's copy of the sources (the repository is not
# touched). The sources are copied into the work directory (default
# build-deb/) with their times kept, and its CMake build tree is kept between
# runs, so a second run, for example with a higher version, compiles only
# what changed. Exits non-zero when a tool or build dependency is missing
# (saying which Debian packages to install), when the build fails, or when
# lintian reports an error; lintian warnings are printed and kept ones are
# overridden with their reason in debian/*.lintian-overrides.
set -euo pipefail

usage() {
    echo "usage: scripts/package.sh [--version VERSION] [--out DIR] [--work DIR] [--no-lint]"
}

repo="$(cd "$(dirname -- "${BASH_SOURCE[0]}")/.." && pwd)"
version=""
out="$repo/dist"
work="$repo/build-deb"
lint=1
while [ "$#" -gt 0 ]; do
    case "$1" in
        --version) version="${2:?--version needs a value}"; shift 2 ;;
        --version=*) version="${1#*=}"; shift ;;
        --out) out="${2:?--out needs a directory}"; shift 2 ;;
        --out=*) out="${1#*=}"; shift ;;
        --work) work="${2:?--work needs a directory}"; shift 2 ;;
        --work=*) work="${1#*=}"; shift ;;
        --no-lint) lint=0; shift ;;
        -h | --help) usage; exit 0 ;;
        *) usage >&2; exit 2 ;;
    esac
done

fail() {
    echo "package.sh: $*" >&2
    exit 1
}

# The tools, by the Debian package that brings each.
missing=()
need_tool() {
    if ! command -v "$1" >/dev/null 2>&1 && [[ " ${missing[*]} " != *" $2 "* ]]; then
        missing+=("$2")
    fi
}
need_tool dpkg-buildpackage dpkg-dev
need_tool dpkg-checkbuilddeps dpkg-dev
need_tool dh debhelper
need_tool tar tar
[ "$lint" -eq 0 ] || need_tool lintian lintian
if [ "${#missing[@]}" -ne 0 ]; then
    fail "missing tools; install the Debian packages: apt-get install ${missing[*]}"
fi

project_version="$(sed -n 's/^project(VardoTools VERSION \([0-9][0-9.]*\).*/\1/p' "$repo/CMakeLists.txt")"
changelog_version="$(dpkg-parsechangelog -l "$repo/debian/changelog" -S Version)"
[ -n "$project_version" ] || fail "no project version found in CMakeLists.txt"
if [ -z "$version" ]; then
    if [ "$changelog_version" != "$project_version" ]; then
        fail "CMakeLists.txt says version $project_version, debian/changelog $changelog_version: add a changelog entry"
    fi
    version="$project_version"
fi
if ! dpkg --validate-version "$version" 2>/dev/null || [[ "$version" == *-* ]]; then
    fail "$version is not a version of this native package (digits, letters, . + ~, no -)"
fi

# A fresh copy of the sources beside the kept build tree (obj-*).
mkdir -p "$work" "$out"
work="$(cd "$work" && pwd)"
out="$(cd "$out" && pwd)"
source_dir="$work/vardo-sdk"
mkdir -p "$source_dir"
find "$source_dir" -mindepth 1 -maxdepth 1 ! -name 'obj-*' -exec rm -rf {} +
if git -C "$repo" rev-parse --is-inside-work-tree >/dev/null 2>&1; then
    (cd "$repo" && git ls-files -z --cached --others --exclude-standard |
        while IFS= read -r -d '' file; do
            [ -e "$file" ] && printf '%s\0' "$file"
        done | tar -c --null -T - -f -) | tar -x -C "$source_dir" -f -
else
    (cd "$repo" && tar -c --exclude='./build*' --exclude=./dist --exclude=./.git -f - .) |
        tar -x -C "$source_dir" -f -
fi

if [ "$version" != "$changelog_version" ]; then
    entry="$(mktemp)"
    {
        echo "vardo-sdk ($version) unstable; urgency=medium"
        echo
        echo "  * Build of version $version."
        echo
        echo " -- $(dpkg-parsechangelog -l "$repo/debian/changelog" -S Maintainer)  $(date -R)"
        echo
        cat "$source_dir/debian/changelog"
    } >"$entry"
    mv "$entry" "$source_dir/debian/changelog"
fi

unmet="$(cd "$source_dir" && dpkg-checkbuilddeps 2>&1 >/dev/null | sed -n 's/.*Unmet build dependencies: //p')"
if [ -n "$unmet" ]; then
    fail "missing build dependencies; install the Debian packages: apt-get install $(sed 's/ ([^)]*)//g; s/ | [^ ]*//g' <<<"$unmet")"
fi

arch="$(dpkg --print-architecture)"
rm -f "$work"/*.deb "$work"/*.ddeb "$work"/*.changes "$work"/*.buildinfo
log="$work/build.log"
echo "package.sh: building vardo-sdk $version ($arch) in $source_dir (log: $log)"
export DEB_BUILD_OPTIONS="parallel=${VARDO_PACKAGE_JOBS:-2} ${DEB_BUILD_OPTIONS:-}"
if ! (cd "$source_dir" && dpkg-buildpackage -b -us -uc --no-pre-clean) >"$log" 2>&1; then
    tail -n 60 "$log" >&2
    fail "the package build failed; the whole log is $log"
fi

changes="vardo-sdk_${version}_${arch}.changes"
artifacts=("$changes")
while IFS= read -r file; do
    artifacts+=("$file")
done < <(sed -n '/^Files:/,$ s/^ [0-9a-f]\{32\} [0-9]* [^ ]* [^ ]* //p' "$work/$changes")
rm -f "$out"/vardo-sdk_* "$out"/vardo-sdk-dev_* "$out"/vardo-sdk-dbgsym_*
for file in "${artifacts[@]}"; do
    cp "$work/$file" "$out/"
done
echo "package.sh: built in $out:"
printf '  %s\n' "${artifacts[@]}"

if [ "$lint" -eq 1 ]; then
    echo "package.sh: lintian"
    if ! lintian --fail-on error "$out/$changes"; then
        fail "lintian reports errors"
    fi
    echo "package.sh: lintian reports no errors"
fi
