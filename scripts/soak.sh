#!/usr/bin/env bash
# Runs filedrop and chat under a mixed load and checks errors and resources.
set -euo pipefail

usage() {
    cat <<'TEXT'
Usage: scripts/soak.sh --minutes N [--kit [--tls] | --sessions] [--output DIR] [--no-install] [--help]

Builds the preset release in build/release, starts filedrop and chat on free ports of 127.0.0.1
and drives a mixed load: small requests, large transfers compared by SHA-256, aborts at random
positions, slow clients, WebSockets that join, send and end in all ways. Samples memory,
descriptors, threads and processor time of both, and the latency of another client.
Exit code 0: passed, 1: failed, with the reasons.

  --minutes N   duration of the load; up to 2: with shorter slow clients and smaller files
  --kit         instead of the examples, a server of the kit with a route for each kind of request
                and response, and clients that end them in every place; tables, no plot
  --tls         with --kit: half of the clients over TLS, at a secure endpoint of the same server
  --output DIR  directory of tables (CSV), plot (soak.svg) and summary (default: build/soak)
  --sessions    instead: 9500 WebSocket sessions that come and go, on a server that echoes
  --no-install  no Debian packages are installed
  --help        this text

Fails when an operation fails (wrong content, unexpected status, nothing for 60 s), when a server
dies, or does not exit with 0 within 30 s after SIGTERM, or when a resource grows.

TEXT
    python3 -B tests/soak/verdict.py --rule
}

say() { printf '==> %s\n' "$*"; }
fail() {
    printf 'soak.sh: %s\n' "$*" >&2
    exit 1
}

caller=$PWD
cd "$(dirname "${BASH_SOURCE[0]}")/.."

minutes=
output=build/soak
install=true
kit=false
tls=false
sessions=false
while (($# > 0)); do
    case "$1" in
        --minutes)
            (($# > 1)) || fail "--minutes needs a number; see --help"
            minutes=$2
            shift
            ;;
        --output)
            (($# > 1)) || fail "--output needs a directory; see --help"
            output=$2
            [[ $output == /* ]] || output=$caller/$output
            shift
            ;;
        --no-install) install=false ;;
        --kit) kit=true ;;
        --tls) tls=true ;;
        --sessions) sessions=true ;;
        --help)
            usage
            exit 0
            ;;
        *) fail "unknown argument '$1'; see --help" ;;
    esac
    shift
done
[[ $minutes =~ ^[0-9]+([.][0-9]+)?$ && $minutes =~ [1-9] ]] ||
    fail "--minutes must be given, with a number above 0; see --help"

$kit || ! $tls || fail "--tls is for --kit"

if $install; then
    scripts/install-deps.sh --soak
fi

if $kit; then
    say "Building the server in build/release"
    cmake --preset release -DWENDREL_BUILD_TESTS=ON -DWENDREL_BUILD_EXAMPLES=ON >/dev/null
    cmake --build --preset release --parallel "$(nproc)" --target soak_every_kind
    say "Load for $minutes minutes; tables go to $output"
    options=()
    if $tls; then options=(--tls); fi
    exec python3 -B tests/soak/kit_soak.py --minutes "$minutes" --output "$output" \
        --server build/release/tests/soak/soak_every_kind "${options[@]}"
fi
if $sessions; then
    say "Building the server in build/release"
    cmake --preset release -DWENDREL_BUILD_TESTS=ON >/dev/null
    cmake --build --preset release --parallel "$(nproc)" --target websocket_session_server
    exec python3 -B tests/soak/sessions.py --connections 9500 \
        --seconds "$(python3 -c 'import sys; print(60 * float(sys.argv[1]))' "$minutes")" \
        --server build/release/tests/integration/websocket_session_server
fi

say "Building filedrop and chat in build/release"
cmake --preset release -DWENDREL_BUILD_EXAMPLES=ON >/dev/null
cmake --build --preset release --parallel "$(nproc)" --target wendrel-filedrop wendrel-chat

say "Load for $minutes minutes; tables and plot go to $output"
# Replaces this shell, so that a signal to it stops the servers as well.
exec python3 -B tests/soak/soak.py --minutes "$minutes" --output "$output" \
    --filedrop build/release/examples/filedrop/wendrel-filedrop \
    --chat build/release/examples/chat/wendrel-chat
