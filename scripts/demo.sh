#!/usr/bin/env bash
# Builds an example and runs it on 127.0.0.1; with --check a client uses it once.
set -euo pipefail

usage() {
    cat <<'TEXT'
Usage: scripts/demo.sh [--chat] [--tls] [--check] [--directory DIR] [--port N] [--built DIR]
                       [--no-install] [--help]

Installs the packages that the build needs, builds build/release and runs filedrop, a web service
for the files of one directory, on 127.0.0.1 until Ctrl-C.

  --chat           runs chat instead: rooms on a web page
  --tls            serves HTTPS with a certificate that is made for this run and signed by itself
  --check          uses the service once, stops it, and exits with 0 if everything was right:
                   filedrop by curl, which uploads and downloads a file of 256 MiB; chat by two
                   WebSocket clients in a room
  --directory DIR  the directory that filedrop serves (default: a temporary one, removed at the
                   end)
  --port N         the port to open in a browser (default: a free one)
  --built DIR      runs the programs of this build folder; installs and builds nothing
  --no-install     installs no Debian package
  --help           prints this text

The exit code is 0 after a successful --check, 130 after Ctrl-C, 143 after SIGTERM, 1 otherwise.
TEXT
}

say() { printf '\n==> %s\n' "$*"; }
fail() {
    printf 'demo.sh: %s\n' "$*" >&2
    exit 1
}

example=filedrop
check=false
tls=false
install=true
build=true
directory=
port=
built=build/release
while (($# > 0)); do
    case "$1" in
        --chat) example=chat ;;
        --check) check=true ;;
        --tls) tls=true ;;
        --directory | --port | --built)
            (($# > 1)) || fail "$1 needs a value; see --help"
            case "$1" in
                --directory) directory=$2 ;;
                --port) port=$2 ;;
                --built)
                    built=$2
                    install=false
                    build=false
                    ;;
            esac
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
    fail "'$port' is not a port; give a number from 1 to 65535"
fi
if [[ -n $directory ]]; then
    [[ $example == filedrop ]] || fail "--directory is for filedrop, not for --chat"
    [[ -d $directory ]] || fail "no directory '$directory'"
    directory=$(cd "$directory" && pwd)
fi
if ! $build; then
    [[ -d $built ]] || fail "no directory '$built'"
    built=$(cd "$built" && pwd)
fi

cd "$(dirname "${BASH_SOURCE[0]}")/.."
program=$built/examples/$example/wendrel-$example
python=/usr/bin/python3  # the interpreter that Debian's packages are for
start_limit_seconds=60
work=$(mktemp -d "${TMPDIR:-/tmp}/wendrel-demo.XXXXXX")
server=

# The exit code is that of the process, or 0 if it does not run.
stop() {
    local pid=$1
    [[ -n $pid ]] || return 0
    kill -TERM "$pid" 2>/dev/null || true
    wait "$pid"
}
stop_server() {
    local pid=$server
    server=
    stop "$pid"
}
clean_up() {
    stop_server || true
    rm -rf "$work"
}
trap clean_up EXIT
trap 'exit 130' INT
trap 'exit 143' TERM

install_packages() {
    say "Installing the Debian packages that are missing"
    local options=()
    if $check; then
        options=(--demo)
        [[ $example == filedrop ]] || options=(--chat)
    fi
    scripts/install-deps.sh "${options[@]}"
}

build_program() {
    say "Building $example in $built"
    local options=(-DWENDREL_BUILD_EXAMPLES=ON)
    # A new build folder needs no test tools; one that has them keeps them.
    [[ -f build/release/CMakeCache.txt ]] || options+=(-DWENDREL_BUILD_TESTS=OFF)
    cmake --preset release "${options[@]}"
    cmake --build --preset release --parallel "$(nproc)" --target "wendrel-$example"
}

# need PROGRAM PACKAGE: fails unless the program is there.
need() {
    PATH=$PATH:/usr/sbin command -v "$1" >/dev/null ||
        fail "$1 is not installed; install the package $2, or run without --no-install and --built"
}
check_tools() {
    if $tls; then need openssl openssl; fi
    $check || return 0
    if [[ $example == filedrop ]]; then
        need curl curl
        return 0
    fi
    need "$python" python3
    "$python" -c 'import websocket' 2>/dev/null ||
        fail "$python has no module websocket; install the package python3-websocket"
}

accepts_connections() { (exec 3<>"/dev/tcp/127.0.0.1/$1") 2>/dev/null; }

# wait_for_url FIFO PID: sets url to the address that the process prints when it accepts
# connections. False: it has ended before, or has not printed one in time.
wait_for_url() {
    local line output
    exec {output}<"$1"
    while read -r -t "$start_limit_seconds" line <&"$output"; do
        if [[ $line =~ https?://127\.0\.0\.1:[0-9]+ ]]; then
            url=${BASH_REMATCH[0]}
            # The descriptor stays open: the process may print more.
            return 0
        fi
    done
    exec {output}<&-
    return 1
}

# start_program PORT: sets server and url; false if the program did not start there.
start_program() {
    local fifo=$work/server-$1 options=(--port "$1")
    if [[ $example == filedrop ]]; then
        options+=(--directory "$directory")
    fi
    if $tls; then
        options+=(--tls-certificate "$certificate" --tls-key "$work/key.pem")
    fi
    mkfifo "$fifo"
    "$program" "${options[@]}" >"$fifo" &
    server=$!
    if wait_for_url "$fifo"; then return 0; fi
    stop_server || true
    return 1
}

# start_server [PORT]: without a port several free ones are tried, because another program may
# take one in between.
start_server() {
    local candidates=("$@") candidate
    if (($# == 0)); then
        for _ in 1 2 3 4 5; do candidates+=($((20000 + RANDOM % 12000))); done
    fi
    for candidate in "${candidates[@]}"; do
        if accepts_connections "$candidate"; then
            say "Port $candidate is in use"
        elif start_program "$candidate"; then
            return 0
        fi
    done
    fail "cannot start $example on port ${candidates[*]}${port:+ (try another --port)}"
}

# Throw-away, for the address of this host alone.
make_certificate() {
    openssl req -x509 -newkey ec -pkeyopt ec_paramgen_curve:P-256 -nodes -days 2 \
        -subj /CN=127.0.0.1 -addext subjectAltName=IP:127.0.0.1 \
        -keyout "$work/key.pem" -out "$certificate" 2>"$work/openssl.log" ||
        fail "openssl made no certificate: $(cat "$work/openssl.log")"
}

check_transfers() {
    local size=$((256 * 1024 * 1024)) name=wendrel-demo-check.bin
    local source=$work/source.bin copy=$work/copy.bin
    local format='%{http_code} %{size_upload} %{size_download} %{time_total}'
    local up down sent received

    say "Making a file of $size bytes"
    head -c "$size" /dev/urandom >"$source"
    say "Uploading it to $url/files/$name"
    up=$(curl "${curl_options[@]}" -T "$source" -o "$work/response" -w "$format" "$url/files/$name")
    say "Downloading it again"
    down=$(curl "${curl_options[@]}" -o "$copy" -w "$format" "$url/files/$name")

    sent=$(sha256sum <"$source" | cut -d' ' -f1)
    received=$(sha256sum <"$copy" | cut -d' ' -f1)
    report "uploaded  " "$up" 2
    report "downloaded" "$down" 3
    printf 'SHA-256 sent      %s\nSHA-256 received  %s\n' "$sent" "$received"

    [[ ${up%% *} == 201 || ${up%% *} == 200 ]] || fail "the response to the upload is ${up%% *}"
    [[ ${down%% *} == 200 ]] || fail "the response to the download is ${down%% *}"
    [[ $(stat -c %s "$copy") == "$size" ]] || fail "the file came back with another size"
    [[ $sent == "$received" ]] || fail "the file came back with other bytes"

    curl "${curl_options[@]}" --fail -o /dev/null -X DELETE "$url/files/$name" ||
        fail "the file could not be deleted"
}

# report WORD TIMES FIELD: size, seconds and rate from the times that curl printed.
report() {
    awk -v word="$1" -v times="$2" -v field="$3" 'BEGIN {
        split(times, f, " ")
        mib = f[field] / 1048576
        printf "%s  %d bytes in %.3f s, %.0f MiB/s\n", word, f[field], f[4], (f[4] > 0 ? mib / f[4] : 0)
    }'
}

check_chat() {
    say "Letting two clients talk at $url"
    local arguments=("$url")
    if $tls; then arguments+=("$certificate"); fi
    "$python" -B scripts/demo_chat.py "${arguments[@]}" || fail "chat did not pass the check"
}

if $install; then install_packages; fi
if $build; then build_program; fi
[[ -x $program ]] || fail "no program $program; build it with -DWENDREL_BUILD_EXAMPLES=ON"
check_tools

url=
certificate=$work/certificate.pem
curl_options=(-sS --noproxy '*')
if $tls; then
    make_certificate
    curl_options+=(--cacert "$certificate")
fi
if [[ $example == filedrop ]]; then
    if [[ -z $directory ]]; then
        directory=$work/files
        mkdir "$directory"
    fi
    say "Starting filedrop for $directory"
else
    say "Starting chat"
fi
start_server ${port:+"$port"}

if $check; then
    if [[ $example == filedrop ]]; then check_transfers; else check_chat; fi
    say "Stopping $example"
    stop_server || fail "$example ended with an error"
    say "All right: $example at $url passed the check"
else
    say "Open $url/ in a browser; Ctrl-C stops it"
    running=$server
    wait "$running" || true
    server=
    fail "$example has ended by itself"
fi
