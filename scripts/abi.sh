#!/usr/bin/env bash
# Compares the interface of the libraries with its record in abi/, or records it.
set -euo pipefail

usage() {
    cat <<'TEXT'
Usage: scripts/abi.sh [--record] [--build DIR] [--no-install] [--help]

Builds the libraries and compares their interface with abi/: the exported symbols, and the layout
of the classes. Exit code 0: no difference. See docs/compatibility.md.

  --record      writes the interface to abi/; commit it with the change
  --build DIR   build directory (default: build/abi)
  --no-install  installs no Debian packages
  --help        prints this text
TEXT
}

say() { printf '==> %s\n' "$*"; }
fail() {
    printf 'abi.sh: %s\n' "$*" >&2
    exit 1
}

action=check
build=
install=true
while (($# > 0)); do
    case "$1" in
        --record) action=record ;;
        --build)
            (($# > 1)) || fail "--build needs a directory; see --help"
            [[ $2 == /* ]] && build=$2 || build=$PWD/$2
            shift
            ;;
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
build=${build:-$PWD/build/abi}
mkdir -p "$build" abi
if $install; then
    scripts/install-deps.sh --tests
fi

status=0
say "Layout of the classes"
python3 tests/abi/reference.py "$action" --source . --build "$build/debuggable" || status=1

say "Exported symbols"
cmake -S . -B "$build/release" -G Ninja -DCMAKE_BUILD_TYPE=Release -DWENDREL_BUILD_TESTS=OFF \
    -DWENDREL_BUILD_EXAMPLES=OFF -DWENDREL_INSTALL=OFF >/dev/null
cmake --build "$build/release" --parallel "$(nproc)" --target Wendrel >/dev/null
python3 tests/integration/exports.py "$action" "$build"/release/platform/lib*.so \
    "$build/release/src/libWendrel.so" || status=1

exit "$status"
