#!/usr/bin/env bash
# Builds the filedrop example and runs it on 127.0.0.1; with --check it is used once by curl.
set -euo pipefail

usage() {
    cat <<'TEXT'
Usage: scripts/demo.sh [--check] [--directory DIR] [--port N] [--no-install] [--help]

Installs what the build needs, builds build/release and runs filedrop, a web service for the
files of one directory, on 127.0.0.1 until Ctrl-C.

  --check          uploads and downloads a 256 MiB file with curl, compares the checksums,
                   stops filedrop and ends with 0 when all was right
  --directory DIR  the directory to serve (default: a temporary one, removed at the end)
  --port N         the port to listen on (default: a free one)
  --no-install     no Debian package is installed
  --help           this text
TEXT
}

say() { printf '\n==> %s\n' "$*"; }
fail() {
    printf 'demo.sh: %s\n' "$*" >&2
    exit 1
}

check=false
install=true
directory=
port=
while (($# > 0)); do
    case "$1" in
        --check) check=true ;;
        --directory | --port)
            (($# > 1)) || fail "$1 needs a value; see --help"
            if [[ $1 == --port ]]; then port=$2; else directory=$2; fi
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
if [[ -n $port ]] && ! [[ $port =~ ^[1-9][0-9]{0,4}$ && $port -le 65535 ]]; then
    fail "'$port' is no port"
fi
if [[ -n $directory ]]; then
    [[ -d $directory ]] || fail "no directory '$directory'"
    directory=$(cd "$directory" && pwd)
fi

cd "$(dirname "${BASH_SOURCE[0]}")/.."
program=build/release/examples/filedrop/wendrel-filedrop
work=$(mktemp -d "${TMPDIR:-/tmp}/wendrel-demo.XXXXXX")
server=

stop_server() {
    [[ -n $server ]] || return 0
    local pid=$server
    server=
    kill -TERM "$pid" 2>/dev/null || true
    wait "$pid"
}
clean_up() {
    stop_server || true
    rm -rf "$work"
}
trap clean_up EXIT
trap 'exit 130' INT
trap 'exit 143' TERM

build() {
    if $install; then
        say "Installing the Debian packages that are missing"
        if $check; then scripts/install-deps.sh --demo; else scripts/install-deps.sh; fi
    fi
    say "Building filedrop in build/release"
    local options=(-DWENDREL_BUILD_EXAMPLES=ON)
    # A new build folder needs no test tools; one that has them keeps them.
    [[ -f build/release/CMakeCache.txt ]] || options+=(-DWENDREL_BUILD_TESTS=OFF)
    cmake --preset release "${options[@]}"
    cmake --build --preset release --parallel "$(nproc)" --target wendrel-filedrop
}

accepts_connections() { (exec 3<>"/dev/tcp/127.0.0.1/$1") 2>/dev/null; }

# Waits until filedrop listens on $1; false when it has ended before or not come up in time.
wait_for_server() {
    local tries=150
    while ((tries-- > 0)); do
        kill -0 "$server" 2>/dev/null || return 1
        if accepts_connections "$1"; then return 0; fi
        sleep 0.1
    done
    return 1
}

# Sets port and server. Without a given port several are tried: another program may be faster.
start_server() {
    local candidates=("$port") candidate
    if [[ -z $port ]]; then
        candidates=()
        for _ in 1 2 3 4 5; do candidates+=($((20000 + RANDOM % 12000))); done
    fi
    for candidate in "${candidates[@]}"; do
        if accepts_connections "$candidate"; then
            say "Port $candidate is in use"
            continue
        fi
        "$program" --directory "$directory" --port "$candidate" &
        server=$!
        if wait_for_server "$candidate"; then
            port=$candidate
            return 0
        fi
        stop_server || true
    done
    fail "filedrop did not come up on port ${candidates[*]}"
}

check_transfers() {
    local size=$((256 * 1024 * 1024)) name=wendrel-demo-check.bin
    local source=$work/source.bin copy=$work/copy.bin
    local format='%{http_code} %{size_upload} %{size_download} %{time_total}'
    local up down sent received

    say "Making a file of $size bytes"
    head -c "$size" /dev/urandom >"$source"
    say "Uploading it to $url/files/$name"
    up=$(curl -sS --noproxy '*' -T "$source" -o "$work/answer" -w "$format" "$url/files/$name")
    say "Downloading it again"
    down=$(curl -sS --noproxy '*' -o "$copy" -w "$format" "$url/files/$name")

    sent=$(sha256sum <"$source" | cut -d' ' -f1)
    received=$(sha256sum <"$copy" | cut -d' ' -f1)
    report "uploaded  " "$up" 2
    report "downloaded" "$down" 3
    printf 'SHA-256 sent      %s\nSHA-256 received  %s\n' "$sent" "$received"

    [[ ${up%% *} == 201 || ${up%% *} == 200 ]] || fail "the upload was answered with ${up%% *}"
    [[ ${down%% *} == 200 ]] || fail "the download was answered with ${down%% *}"
    [[ $(stat -c %s "$copy") == "$size" ]] || fail "the file came back with another size"
    [[ $sent == "$received" ]] || fail "the file came back with other bytes"

    curl -sS --noproxy '*' --fail -o /dev/null -X DELETE "$url/files/$name" ||
        fail "the file could not be deleted"
}

# report WORD FIGURES FIELD: size, seconds and rate from curl's figures.
report() {
    awk -v word="$1" -v figures="$2" -v field="$3" 'BEGIN {
        split(figures, f, " ")
        mib = f[field] / 1048576
        printf "%s  %d bytes in %.3f s, %.0f MiB/s\n", word, f[field], f[4], (f[4] > 0 ? mib / f[4] : 0)
    }'
}

build
if [[ -z $directory ]]; then
    directory=$work/files
    mkdir "$directory"
fi
say "Starting filedrop for $directory"
start_server
url=http://127.0.0.1:$port

if $check; then
    check_transfers
    say "Stopping filedrop"
    stop_server || fail "filedrop ended with an error"
    say "All right: $url served $directory"
else
    say "Open $url/ in a browser; Ctrl-C stops it"
    running=$server
    wait "$running"
fi
