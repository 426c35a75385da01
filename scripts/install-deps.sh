#!/usr/bin/env bash
# Installs the Debian packages that a build of this tree needs.
set -euo pipefail

usage() {
    cat <<'TEXT'
Usage: scripts/install-deps.sh [--demo] [--chat] [--tests] [--fuzz] [--soak] [--bench] [--docs]
                               [--packages] [--dry-run] [--help]

Installs the build dependencies on Debian 12 with apt-get. Installed packages are not changed: when
none is missing, neither root nor the network is needed.

  --demo     adds curl, for scripts/demo.sh --check
  --chat     adds the packages of scripts/demo.sh --chat --check
  --tests    adds the packages of the tests
  --fuzz     adds the packages of scripts/fuzz.sh
  --soak     adds the packages of scripts/soak.sh
  --bench    adds the packages of bench/run.sh
  --docs     adds the packages that build the documentation
  --packages adds the packages of scripts/package.sh and scripts/release.sh
  --dry-run  only prints the missing packages, one per line
  --help     prints this text
TEXT
}

say() { printf '==> %s\n' "$*"; }
fail() {
    printf 'install-deps.sh: %s\n' "$*" >&2
    exit 1
}

build_packages=(
    build-essential cmake ninja-build pkg-config git
    libmicrohttpd-dev libspdlog-dev libssl-dev zlib1g-dev libzstd-dev
    nlohmann-json3-dev libcli11-dev)
demo_packages=(curl)
chat_packages=(python3 python3-websocket)
test_packages=(
    libgtest-dev libgmock-dev libsqlite3-dev libcurl4-openssl-dev libboost1.81-dev curl python3 python3-websocket
    python3-websockets python3-aiohttp gnutls-bin sslscan testssl.sh
    systemd nginx-light haproxy chromium firefox-esr gcovr ca-certificates openssl slowhttptest valgrind netcat-openbsd)
# Static analysis of sources and binaries.
analysis_packages=(clang clang-format clang-tidy cppcheck shellcheck codespell abigail-tools)
docs_packages=(doxygen graphviz)
packages_packages=(dpkg-dev fakeroot lintian xz-utils)
fuzz_packages=(clang libclang-rt-14-dev libfuzzer-14-dev)
soak_packages=(python3 gnuplot-nox openssl)
bench_packages=(
    python3 gnuplot-nox curl wrk valgrind
    libboost1.81-dev libcivetweb-dev libbenchmark-dev libwebsockets-dev)

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
        fail "no $tool on this system; install the equivalents of: ${wanted[*]}"
done

missing=()
for package in "${wanted[@]}"; do
    status=$(dpkg-query -W -f='${db:Status-Status}' "$package" 2>/dev/null || true)
    [[ $status == installed ]] || missing+=("$package")
done
# Checked by command: a Node.js from another source has its own npm, which conflicts with Debian's.
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
        fail "cannot install ${missing[*]}: neither root nor sudo (install them as root)"
    as_root=(sudo)
fi

say "Installing: ${missing[*]}"
"${as_root[@]}" apt-get update -q
"${as_root[@]}" env DEBIAN_FRONTEND=noninteractive \
    apt-get install -q -y --no-install-recommends "${missing[@]}"
say "Installed."
