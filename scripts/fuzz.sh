#!/usr/bin/env bash
# Builds the fuzz targets and runs each with libFuzzer for a time.
set -euo pipefail

usage() {
    cat <<'TEXT'
Usage: scripts/fuzz.sh --seconds N [--target NAME]... [--jobs N] [--no-install] [--help]

Builds the preset fuzz with clang in build/fuzz and runs every target of tests/fuzz for N seconds,
as many at a time as there are processors or as --jobs says. Prints executions and findings, and
fails when there is one. What libFuzzer learns is kept in build/fuzz/corpus and used again the next
time; inputs that failed are in build/fuzz/findings.

  --seconds N    how long each target runs; 0: only the seeds and what has been learnt before
  --target NAME  only this one; may be given several times
  --jobs N       how many run at a time; more than processors share them
  --no-install   no Debian packages are installed
  --help         this text
TEXT
}

say() { printf '==> %s\n' "$*"; }
fail() {
    printf 'fuzz.sh: %s\n' "$*" >&2
    exit 1
}

seconds=
jobs=$(nproc)
install=true
wanted=()
while (($# > 0)); do
    case "$1" in
        --seconds)
            (($# > 1)) || fail "--seconds needs a number; see --help"
            seconds=$2
            shift
            ;;
        --target)
            (($# > 1)) || fail "--target needs a name; see --help"
            wanted+=("$2")
            shift
            ;;
        --jobs)
            (($# > 1)) || fail "--jobs needs a number; see --help"
            jobs=$2
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
[[ $seconds =~ ^[0-9]+$ ]] || fail "--seconds must be given, with a number; see --help"
[[ $jobs =~ ^[1-9][0-9]*$ ]] || fail "--jobs must be a number from 1; see --help"

cd "$(dirname "${BASH_SOURCE[0]}")/.."
build=build/fuzz
seeds=tests/fuzz/seeds

# Longer than an input may wait for the server; libFuzzer reports slower inputs as findings.
slowest_input_seconds=120
# Additional time of a target: reading its corpus, the last input, stopping.
grace_seconds=$((2 * slowest_input_seconds + 60))

all=()
for source in tests/fuzz/*.cpp; do
    name=${source##*/}
    all+=("${name%.cpp}")
done
((${#wanted[@]} > 0)) || wanted=("${all[@]}")
for target in "${wanted[@]}"; do
    [[ " ${all[*]} " == *" $target "* ]] || fail "no target '$target'; there are: ${all[*]}"
done

if $install; then
    scripts/install-deps.sh --tests --fuzz
fi

say "Building ${wanted[*]} in $build"
log=$build/build.log
mkdir -p "$build/log"
if ! { cmake --preset fuzz -DWENDREL_BUILD_TESTS=ON &&
    cmake --build "$build" --parallel "$(nproc)" --target "${wanted[@]/#/fuzz_}"; } >"$log" 2>&1; then
    tail -n 40 "$log" >&2
    fail "the build failed; all of it is in $log"
fi

options_of() {
    local target=$1
    printf '%s\n' -timeout=$slowest_input_seconds -print_final_stats=1 -verbosity=1 \
        "-artifact_prefix=$build/findings/$target/"
    [[ ! -f $seeds/$target.dict ]] || printf '%s\n' "-dict=$seeds/$target.dict"
    # 0 would mean no limit.
    if ((seconds > 0)); then
        printf '%s\n' "-max_total_time=$seconds"
    else
        printf '%s\n' -runs=0
    fi
}

# Leaves the exit status of the target in log/TARGET.status.
run_target() {
    local target=$1 status=0 options
    mkdir -p "$build/corpus/$target" "$build/findings/$target"
    mapfile -t options < <(options_of "$target")
    timeout --kill-after=10 $((seconds + grace_seconds)) \
        "$build/tests/fuzz/fuzz_$target" "${options[@]}" \
        "$build/corpus/$target" "$seeds/$target" >"$build/log/$target.log" 2>&1 || status=$?
    printf '%s\n' "$status" >"$build/log/$target.status"
}

running=()
stop_running() {
    ((${#running[@]} == 0)) || kill "${running[@]}" 2>/dev/null || true
}
trap stop_running EXIT
trap 'exit 130' INT
trap 'exit 143' TERM

say "Running each for $seconds s, $jobs at a time"
export ASAN_OPTIONS=${ASAN_OPTIONS:-strict_string_checks=1:check_initialization_order=1}
export UBSAN_OPTIONS=${UBSAN_OPTIONS:-print_stacktrace=1:halt_on_error=1}
for target in "${wanted[@]}"; do
    rm -f "$build/log/$target.status"
    while (($(jobs -rp | wc -l) >= jobs)); do
        wait -n || true
    done
    run_target "$target" &
    running+=($!)
done
wait
running=()

findings=0
printf '%-20s %12s %9s\n' target executions findings
for target in "${wanted[@]}"; do
    target_log=$build/log/$target.log
    status=$(cat "$build/log/$target.status" 2>/dev/null || echo none)
    executions=$(sed -n 's/^stat::number_of_executed_units: *//p' "$target_log" | tail -n 1)
    found=0
    [[ $status == 0 ]] || found=1
    findings=$((findings + found))
    printf '%-20s %12s %9s\n' "$target" "${executions:-?}" "$found"
    ((found == 1)) || continue
    grep -E 'broken promise|runtime error|ERROR: |SUMMARY: ' "$target_log" | head -n 5 || true
    input=$(sed -n 's/.*Test unit written to //p' "$target_log" | tail -n 1)
    if [[ -n $input ]]; then
        printf 'Reproduce: %s %s\n' "$build/tests/fuzz/fuzz_$target" "$input"
    else
        printf 'No input was kept (exit status %s); see %s\n' "$status" "$target_log"
    fi
done
((findings == 0)) || fail "$findings of ${#wanted[@]} targets failed; the logs are in $build/log"
say "No findings."
