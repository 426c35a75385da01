#!/usr/bin/env bash
# Compares the library with the bare daemon and with two other servers, in one run.
set -euo pipefail

usage() {
    cat <<'TEXT'
Usage: bench/run.sh [--quick] [--rounds N] [--seconds N] [--only PATTERN]... [--no-micro]
                    [--no-memory] [--no-connections] [--write] [--output DIR] [--no-install]
                    [--help]

Builds the servers in build/bench and drives each of them with the same clients: wrk for small and
large responses, curl for streams and uploads, openssl for handshakes, a WebSocket client of
Boost.Beast. The servers
alternate in every round, so that other load of the machine affects all of them. All listen on
127.0.0.1.

Prints tables in Markdown: the median over the rounds with minimum and maximum, latencies, the
processor time of the server for 100,000 requests, and the ratio to the bare daemon (the median
of the rounds' ratios). Rows "one core" have server and client on the same processor: they vary
least, and the targets apply to them. Exit code 0: measured, 1: failure; a missed target is reported
and does not fail the run.

  --quick         3 minutes: 2 short rounds, one core and only servers with a target, no memory rows
  --rounds N      how many rounds (default: 5)
  --seconds N     how long a measurement lasts (default: 2)
  --only PATTERN  only rows whose name matches, such as 'hello*'; may be given several times
  --no-micro      without the microbenchmarks
  --no-memory     without the 4 GiB stream to a slow reader and the 1 GiB upload
  --no-connections
                  without the rows of many connections, of handshakes beside requests and of stops
  --write         write tables and charts into docs/performance.md and docs/performance/
  --output DIR    directory of measurements, tables and charts (default: build/bench/results)
  --no-install    no Debian packages are installed
  --help          this text
TEXT
}

fail() {
    printf 'run.sh: %s\n' "$*" >&2
    exit 1
}

caller=$PWD
install=true
arguments=()
while (($# > 0)); do
    case "$1" in
        --quick | --no-micro | --no-memory | --no-connections | --write) arguments+=("$1") ;;
        --rounds | --seconds | --only)
            (($# > 1)) || fail "$1 needs a value; see --help"
            arguments+=("$1" "$2")
            shift
            ;;
        --output)
            (($# > 1)) || fail "--output needs a directory; see --help"
            [[ $2 == /* ]] && arguments+=("$1" "$2") || arguments+=("$1" "$caller/$2")
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
if $install; then
    scripts/install-deps.sh --bench
fi

printf '==> Building in build/bench\n'
mkdir -p build/bench
log=build/bench/build.log
if ! { cmake --preset bench && cmake --build --preset bench --parallel "$(nproc)"; } >"$log" 2>&1; then
    tail -n 40 "$log" >&2
    fail "the build failed; all of it is in $log"
fi
exec python3 -B bench/run.py "${arguments[@]}"
