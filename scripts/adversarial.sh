#!/usr/bin/env bash
# Runs the tests with adversarial clients and prints their metrics.
set -euo pipefail

usage() {
    cat <<'TEXT'
Usage: scripts/adversarial.sh [--preset NAME] [--filter PATTERN] [--output FILE] [--help]

Builds the tests with adversarial clients in build/NAME, runs them in full (500 slow clients of each
kind, 50,000 connections, 5,000 broken-off transfers, ...), and prints a Markdown table of their
metrics. Takes about three minutes. Fails when one of the tests fails.

  --preset NAME     release (the default), debug, asan, tsan or coverage; with asan and tsan the
                    numbers of clients are a tenth
  --filter PATTERN  only these tests, as GoogleTest's --gtest_filter takes it
  --output FILE     where the table goes; standard output unless given
  --help            this text

Environment: WENDREL_ADVERSARIAL_DIVISOR divides the numbers of clients; WENDREL_ADVERSARIAL_SEED repeats
the random choices of an earlier run, which prints its seed.
TEXT
}

say() { printf '==> %s\n' "$*" >&2; }
fail() {
    printf 'adversarial.sh: %s\n' "$*" >&2
    exit 1
}

preset=release
filter='*'
output=/dev/stdout
while (($# > 0)); do
    case "$1" in
        --preset | --filter | --output)
            (($# > 1)) || fail "$1 needs a value; see --help"
            case "$1" in
                --preset) preset=$2 ;;
                --filter) filter=$2 ;;
                --output) output=$(realpath -m -- "$2") ;;
            esac
            shift
            ;;
        --help)
            usage
            exit 0
            ;;
        *) fail "unknown argument '$1'; see --help" ;;
    esac
    shift
done
case "$preset" in
    release | debug | coverage) ;;
    asan | tsan) export WENDREL_ADVERSARIAL_DIVISOR=${WENDREL_ADVERSARIAL_DIVISOR:-10} ;;
    *) fail "no preset '$preset' to test; see --help" ;;
esac

cd "$(dirname "${BASH_SOURCE[0]}")/.."
say "Building build/$preset"
cmake --preset "$preset" -DWENDREL_BUILD_TESTS=ON >&2
cmake --build --preset "$preset" --parallel "$(nproc)" --target integration_adversarial >&2

metrics=$(mktemp)
trap 'rm -f "$metrics"' EXIT
say "Running the adversarial clients"
result=0
WENDREL_ADVERSARIAL_METRICS=$metrics \
    "build/$preset/tests/integration/integration_adversarial" --gtest_filter="$filter" >&2 || result=$?

# "metric: Suite.Test.name value unit", the name may contain points.
table() {
    printf '| Test | Metric | Value | Unit |\n|---|---|---:|---|\n'
    awk '{
        split($2, part, ".")
        test = part[1] "." part[2]
        print "| " test " | " substr($2, length(test) + 2) " | " $3 " | " $4 " |"
    }' "$metrics"
}
table >"$output"
exit "$result"
