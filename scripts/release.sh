#!/usr/bin/env bash
# Builds all files of a release.
set -euo pipefail

usage() {
    cat <<'TEXT'
Usage: scripts/release.sh [--output DIR] [--no-install] [--help]

Builds in dist/, from the last commit of a clean tree:

  wendrel-VERSION.tar.xz       the sources, with the version stamps; git is not needed
  *.deb                        the Debian packages, built from that archive and not from this tree
  wendrel-doc-VERSION.tar.xz   guide and reference as HTML and Markdown
  SHA256SUMS                   checksums of all of these

Needs no network when the packages of scripts/install-deps.sh --packages are installed. Builds of the
same commit are identical.

  --output DIR  output directory (default: dist); must be empty or not exist
  --no-install  no Debian packages are installed
  --help        this text
TEXT
}

say() { printf '\n==> %s\n' "$*"; }
fail() {
    printf 'release.sh: %s\n' "$*" >&2
    exit 1
}

caller=$PWD
output=
install=true
while (($# > 0)); do
    case "$1" in
        --output)
            (($# > 1)) || fail "--output needs a directory; see --help"
            [[ $2 == /* ]] && output=$2 || output=$caller/$2
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
output=${output:-$PWD/dist}
[[ -z $(git status --porcelain) ]] ||
    fail "this tree has changes that are not committed: commit them, or use a clean clone"
[[ ! -d $output || -z $(ls -A "$output") ]] || fail "$output is not empty: choose another, or empty it"
if $install; then
    scripts/install-deps.sh --packages
fi

version=$(sed -n 's/^ *VERSION \([0-9.]*\)$/\1/p' CMakeLists.txt | head -n 1)
[[ $version =~ ^[0-9]+\.[0-9]+\.[0-9]+$ ]] || fail "no version in CMakeLists.txt"
SOURCE_DATE_EPOCH=$(git log -1 --format=%ct)
export SOURCE_DATE_EPOCH
name=wendrel-$version
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
mkdir -p "$output"

# Sorted, with one time and without owner: the same files give the same archive.
pack() {
    tar --create --directory "$work" --sort=name --mtime="@$SOURCE_DATE_EPOCH" --owner=0 --group=0 \
        --numeric-owner --mode=go=rX,u+rw --format=posix \
        --pax-option=exthdr.name=%d/PaxHeaders/%f,delete=atime,delete=ctime "$2" |
        xz -9 -T1 >"$output/$1"
}

say "Sources: $name.tar.xz"
git archive --prefix="$name/" HEAD | tar --extract --directory "$work"
cat >"$work/$name/cmake/stamps.cmake" <<TEXT
# The commit that this archive was made from.
set(wendrel_revision_of_archive $(git rev-list --count HEAD))
set(wendrel_commit_id_of_archive $(git rev-parse HEAD))
set(wendrel_year_of_archive $(git log -1 --format=%cd --date=format:%Y))
set(wendrel_month_of_archive $(git log -1 --format=%cd --date=format:%m))
TEXT
pack "$name.tar.xz" "$name"

say "Packages, from that archive"
"$work/$name/scripts/package.sh" --no-install --output "$output" --build "$work/build"

say "Documentation: wendrel-doc-$version.tar.xz"
dpkg-deb --extract "$output/wendrel-doc_$version-1_all.deb" "$work/doc"
mv "$work/doc/usr/share/doc/wendrel-doc" "$work/wendrel-doc-$version"
pack "wendrel-doc-$version.tar.xz" "wendrel-doc-$version"

(cd "$output" && sha256sum -- *.tar.xz *.deb >SHA256SUMS)
say "In $output:"
cat "$output/SHA256SUMS"
