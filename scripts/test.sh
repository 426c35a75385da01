#!/usr/bin/env bash
# Installs dependencies, builds the tree and runs every test.
set -euo pipefail

usage() {
    cat <<'TEXT'
Usage: scripts/test.sh [--preset NAME]... [--coverage] [--fuzz SECONDS] [--bench] [--no-install]
                       [--help]

Configures, builds and tests the tree in build/NAME. The output ends with the summary of ctest.

  --preset NAME  release (the default), debug, asan, tsan or coverage; several may be given: they
                 run in this order, and the first that fails ends the run with its exit code.
                 asan, tsan and coverage leave out the tests labelled any_build, whose result is
                 the same in every build
  --coverage     the preset coverage, and afterwards the line coverage of src/ and platform/,
                 which must be at least 95 %
  --fuzz SECONDS first runs each fuzz target for this time (see scripts/fuzz.sh)
  --bench        with the presets release and debug, also builds the benchmark programs and
                 runs each once (see bench/run.sh)
  --no-install   neither Debian nor npm packages are installed
  --help         this text
TEXT
}

say() { printf '\n==> %s\n' "$*"; }
fail() {
    printf 'test.sh: %s\n' "$*" >&2
    exit 1
}

presets=()
coverage=false
fuzz_seconds=
bench=OFF
install=true
while (($# > 0)); do
    case "$1" in
        --preset)
            (($# > 1)) || fail "--preset needs a name; see --help"
            presets+=("$2")
            shift
            ;;
        --coverage) coverage=true ;;
        --fuzz)
            (($# > 1)) || fail "--fuzz needs a number of seconds; see --help"
            fuzz_seconds=$2
            shift
            ;;
        --bench) bench=ON ;;
        --no-install) install=false ;;
        --help)
            usage
            exit 0
            ;;
        *) fail "unknown argument '$1'; see --help" ;;
    esac
    shift
done
if $coverage && [[ " ${presets[*]} " != *" coverage "* ]]; then
    presets+=(coverage)
fi
((${#presets[@]} > 0)) || presets=(release)
for preset in "${presets[@]}"; do
    case "$preset" in
        release | debug | asan | tsan | coverage) ;;
        *) fail "no preset '$preset' to test; see --help" ;;
    esac
done

cd "$(dirname "${BASH_SOURCE[0]}")/.."
jobs=$(nproc)
minimum_line_percent=95

# npm ci deletes and fetches everything, so it runs only when the lock file is newer.
install_node_packages() {
    local directory=$1
    [[ -f $directory/package.json ]] || return 0
    local stamp=$directory/node_modules/.package-lock.json
    if [[ -f $stamp && ! $directory/package-lock.json -nt $stamp ]]; then
        say "The npm packages of $directory are installed already"
        return 0
    fi
    say "Installing the npm packages of $directory"
    npm ci --no-audit --no-fund --prefix "$directory"
    touch "$stamp"
}

run_preset() {
    local preset=$1
    # The programs of the benchmark are not instrumented.
    local bench_of_preset=OFF
    case "$preset" in
        release | debug) bench_of_preset=$bench ;;
    esac
    say "Configuring the preset $preset"
    cmake --preset "$preset" -DWENDREL_BUILD_TESTS=ON -DWENDREL_BUILD_EXAMPLES=ON \
        "-DWENDREL_BUILD_BENCH=$bench_of_preset"
    say "Building build/$preset with $jobs jobs"
    cmake --build --preset "$preset" --parallel "$jobs"
    # Otherwise the counters of earlier runs are added.
    if [[ $preset == coverage ]]; then
        find build/coverage -name '*.gcda' -delete
    fi
    say "Running the tests of build/$preset"
    ctest --preset "$preset" --parallel "$jobs"
}

report_coverage() {
    say "Line coverage of src/ and platform/ (required: $minimum_line_percent %)"
    gcovr --root . --object-directory build/coverage \
        --filter 'src/' --filter 'platform/' \
        --print-summary --fail-under-line "$minimum_line_percent"
}

if $install; then
    say "Installing the Debian packages that are missing"
    if [[ $bench == ON ]]; then
        scripts/install-deps.sh --tests --bench
    else
        scripts/install-deps.sh --tests
    fi
    install_node_packages tests/integration/filedrop
    install_node_packages tests/integration/websocket
fi

# Before the tests, so that their summary is the last output.
if [[ -n $fuzz_seconds ]]; then
    fuzz_options=(--seconds "$fuzz_seconds")
    $install || fuzz_options+=(--no-install)
    say "Fuzzing"
    scripts/fuzz.sh "${fuzz_options[@]}"
fi

for preset in "${presets[@]}"; do
    run_preset "$preset"
done
if $coverage; then
    report_coverage
fi
