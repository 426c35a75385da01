#!/usr/bin/env bash
# Installs the Debian packages that a build of this tree needs, and nothing when all are there.
set -euo pipefail

usage() {
    cat <<'TEXT'
Usage: scripts/install-deps.sh [--demo] [--chat] [--tests] [--fuzz] [--soak] [--bench] [--docs]
                               [--packages] [--dry-run] [--help]

Installs, with apt-get, what the build needs on Debian 12. Packages that are present are left
alone: when none is missing, neither root nor the network is needed.

  --demo     also curl, which scripts/demo.sh --check drives
  --chat     also what scripts/demo.sh --chat needs; Debian starts an installed nginx on port 80
  --tests    also what the tests need
  --fuzz     also what scripts/fuzz.sh needs
  --soak     also what scripts/soak.sh needs
  --bench    also what bench/run.sh needs
  --docs     also what the documentation is built with
  --packages also what scripts/package.sh and scripts/release.sh need
  --dry-run  only print the packages that are missing, one a line
  --help     this text
TEXT
}

say() { printf '==> %s\n' "$*"; }
fail() {
    printf 'install-deps.sh: %s\n' "$*" >&2
    exit 1
}

build_packages=(
    build-essential cmake ninja-build pkg-config git
    libmicrohttpd-dev libspdlog-dev libssl-dev libboost-url1.81-dev
    nlohmann-json3-dev libcli11-dev)
demo_packages=(curl)
chat_packages=(nginx-light python3 python3-websocket)
test_packages=(
    libgtest-dev libgmock-dev libcurl4-openssl-dev libboost1.81-dev curl python3 python3-websocket
    nginx-light haproxy chromium gcovr ca-certificates slowhttptest valgrind)
# What looks at the sources, and at what was built, without running it.
analysis_packages=(clang clang-format clang-tidy cppcheck shellcheck codespell abigail-tools)
docs_packages=(doxygen graphviz)
packages_packages=(dpkg-dev fakeroot lintian xz-utils)
fuzz_packages=(clang libclang-rt-14-dev libfuzzer-14-dev)
soak_packages=(python3 gnuplot-nox)
bench_packages=(
    python3 gnuplot-nox curl wrk valgrind
    libboost1.81-dev libcivetweb-dev libbenchmark-dev)

wanted=("${build_packages[@]}")
with_tests=false
dry_run=false
for argument in "$@"; do
    case "$argument" in
        --demo) wanted+=("${demo_packages[@]}") ;;
        --chat) wanted+=("${chat_packages[@]}") ;;
        --tests)
            wanted+=("${test_packages[@]}" "${analysis_packages[@]}" "${docs_packages[@]}"
                "${packages_packages[@]}")
            with_tests=true
            ;;
        --fuzz) wanted+=("${fuzz_packages[@]}") ;;
        --bench) wanted+=("${bench_packages[@]}") ;;
        --docs) wanted+=("${docs_packages[@]}") ;;
        --packages) wanted+=("${docs_packages[@]}" "${packages_packages[@]}") ;;
        --soak) wanted+=("${soak_packages[@]}") ;;
        --dry-run) dry_run=true ;;
        --help)
            usage
            exit 0
            ;;
        *) fail "unknown argument '$argument'; see --help" ;;
    esac
done

for tool in apt-get dpkg-query; do
    command -v "$tool" >/dev/null ||
        fail "no $tool here; on another system install by hand what these are: ${wanted[*]}"
done

missing=()
for package in "${wanted[@]}"; do
    status=$(dpkg-query -W -f='${db:Status-Status}' "$package" 2>/dev/null || true)
    [[ $status == installed ]] || missing+=("$package")
done
# Asked for by command: a Node.js from elsewhere brings its own npm, and Debian's would clash.
if $with_tests; then
    command -v node >/dev/null || missing+=(nodejs)
    command -v npm >/dev/null || missing+=(npm)
fi

if $dry_run; then
    ((${#missing[@]} == 0)) || printf '%s\n' "${missing[@]}"
    exit 0
fi
if ((${#missing[@]} == 0)); then
    say "All packages are installed already."
    exit 0
fi

as_root=()
if ((EUID != 0)); then
    command -v sudo >/dev/null ||
        fail "root is needed to install: ${missing[*]} (neither root nor sudo here)"
    as_root=(sudo)
fi

say "Installing: ${missing[*]}"
"${as_root[@]}" apt-get update -q
"${as_root[@]}" env DEBIAN_FRONTEND=noninteractive \
    apt-get install -q -y --no-install-recommends "${missing[@]}"
say "Installed."
