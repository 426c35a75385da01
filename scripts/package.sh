#!/usr/bin/env bash
# Builds the Debian packages.
set -euo pipefail

usage() {
    cat <<'TEXT'
Usage: scripts/package.sh [--output DIR] [--build DIR] [--no-docs] [--record-symbols]
                          [--no-install] [--help]

Builds libwendrel3.0, libwendrel-dev, wendrel-doc and wendrel-examples from this tree in dist/, and
checks them with lintian. Builds and runs neither tests nor benchmarks. Exit code 0: lintian has
found no error.

Packages of the same commit are identical byte by byte: their times are that of the commit, or of
SOURCE_DATE_EPOCH if set.

  --output DIR      output directory (default: dist)
  --build DIR       build directory (default: build/package)
  --no-docs         without the HTML reference, which needs doxygen
  --record-symbols  writes the symbols that the libraries export to packaging/libwendrel3.0.symbols;
                    without it, a removed symbol is an error
  --no-install      no Debian packages are installed
  --help            this text

Install the result with: apt install ./dist/libwendrel3.0_*.deb ./dist/libwendrel-dev_*.deb
TEXT
}

say() { printf '==> %s\n' "$*"; }
fail() {
    printf 'package.sh: %s\n' "$*" >&2
    exit 1
}

caller=$PWD
output=
build=
docs=ON
record=false
install=true
while (($# > 0)); do
    case "$1" in
        --output | --build)
            (($# > 1)) || fail "$1 needs a directory; see --help"
            [[ $2 == /* ]] && path=$2 || path=$caller/$2
            if [[ $1 == --output ]]; then output=$path; else build=$path; fi
            shift
            ;;
        --no-docs) docs=OFF ;;
        --record-symbols) record=true ;;
        --no-install) install=false ;;
        --help)
            usage
            exit 0
            ;;
        *) fail "unknown argument '$1'; see --help" ;;
    esac
    shift
done

cd "$(dirname "${BASH_SOURCE[0]}")/.."
root=$PWD
output=${output:-$root/dist}
build=${build:-$root/build/package}
if $install; then
    scripts/install-deps.sh --packages
fi
if [[ -z ${SOURCE_DATE_EPOCH:-} ]]; then
    SOURCE_DATE_EPOCH=$(git log -1 --format=%ct 2>/dev/null || stat -c %Y CHANGELOG.md)
fi
export SOURCE_DATE_EPOCH

# Prints the output of a step only when it fails.
quietly() {
    local log=$build/log
    if ! "$@" >"$log" 2>&1; then
        tail -n 60 "$log" >&2
        fail "failed: $*"
    fi
}

# From the libraries to the control file that says which version has which symbol.
make_symbols() {
    local work=$build/packaging version libraries=()
    version=$(sed -n 's/^wendrel (\(.*\)) .*/\1/p' "$work/changelog.Debian")
    mapfile -t libraries < <(find "$build/src" "$build/platform" -name 'lib*.so.3.0' | sort)
    mkdir -p "$work/debian"
    printf 'Source: wendrel\n\nPackage: libwendrel3.0\nArchitecture: any\n' >"$work/debian/control"
    local options=(-plibwendrel3.0 "-v$version" "-O$work/symbols")
    if ! $record; then
        options+=("-I$root/packaging/libwendrel3.0.symbols" -c1)
    fi
    (cd "$work" && dpkg-gensymbols "${options[@]}" "${libraries[@]/#/-e}")
    if $record; then
        # The first version that has them is asked for, not this very build.
        sed -i "s/ $version\$/ ${version%-*}/" "$work/symbols"
        cp "$work/symbols" packaging/libwendrel3.0.symbols
        say "Recorded in packaging/libwendrel3.0.symbols."
    fi
}

# cpack adds scripts that call ldconfig, which the trigger does, and gives the files the time of
# the build.
repack() {
    local work=$build/repack
    rm -rf "$work"
    dpkg-deb --raw-extract "$1" "$work"
    rm -f "$work/DEBIAN/postinst" "$work/DEBIAN/postrm"
    find "$work" -newermt "@$SOURCE_DATE_EPOCH" -exec touch --no-dereference -d "@$SOURCE_DATE_EPOCH" {} +
    dpkg-deb --root-owner-group -Zxz --build "$work" "$1" >/dev/null
}

say "Building in $build"
mkdir -p "$build" "$output"
quietly cmake -S . -B "$build" -G Ninja -DCMAKE_BUILD_TYPE=Release -DCMAKE_INSTALL_PREFIX=/usr \
    -DCMAKE_INSTALL_DOCDIR=share/doc/wendrel-doc -DCMAKE_SKIP_INSTALL_RPATH=ON \
    -DWENDREL_DEBIAN=ON -DWENDREL_BUILD_TESTS=OFF -DWENDREL_BUILD_EXAMPLES=ON \
    "-DWENDREL_BUILD_DOCS=$docs"
quietly cmake --build "$build" --parallel "$(nproc)"
make_symbols

say "Packing"
rm -f "$build"/*.deb
(cd "$build" && quietly cpack)
packages=("$build"/*.deb)
((${#packages[@]} == 4)) || fail "four packages were expected, not: ${packages[*]}"

for package in "${packages[@]}"; do
    repack "$package"
done

say "Checking them with lintian"
lintian --allow-root --fail-on error --suppress-tags-from-file packaging/lintian-not-asked \
    "${packages[@]}"
cp "${packages[@]}" "$output/"
say "In $output:"
for package in "${packages[@]}"; do
    printf '  %s\n' "${package##*/}"
done
