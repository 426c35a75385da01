#!/usr/bin/env bash
# Writes docs/filedrop.png: the page of the filedrop example in a browser.
set -euo pipefail

usage() {
    cat <<'TEXT'
Usage: scripts/screenshot.sh [--program FILE] [--output FILE] [--help]

Runs filedrop with a directory of sample files, and renders its page with Chromium.

  --program FILE  filedrop (default: build/release/examples/filedrop/wendrel-filedrop)
  --output FILE   the picture (default: docs/filedrop.png)
  --help          this text

The environment variable CHROMIUM names the browser (default: chromium).
TEXT
}

fail() {
    printf 'screenshot.sh: %s\n' "$*" >&2
    exit 1
}

root=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)
program=$root/build/release/examples/filedrop/wendrel-filedrop
output=$root/docs/filedrop.png
while (($# > 0)); do
    case "$1" in
        --program | --output)
            (($# > 1)) || fail "$1 needs a value; see --help"
            if [[ $1 == --program ]]; then program=$2; else output=$2; fi
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
[[ -x $program ]] || fail "no program '$program'; build it, or name it with --program"
browser=$(command -v "${CHROMIUM:-chromium}") || fail "no browser '${CHROMIUM:-chromium}'"

work=$(mktemp -d "${TMPDIR:-/tmp}/wendrel-screenshot.XXXXXX")
server=
clean_up() {
    [[ -z $server ]] || kill -TERM "$server" 2>/dev/null || true
    [[ -z $server ]] || wait "$server" || true
    rm -rf "$work"
}
trap clean_up EXIT

mkdir "$work/files"
make_file() {
    truncate -s "$2" "$work/files/$1"
    touch -d "$3" "$work/files/$1"
}
make_file "holiday film.mp4" 1480M "2026-02-14 18:02"
make_file "minutes 2026-02-16.pdf" 214K "2026-02-16 11:30"
make_file "photos.zip" 96M "2026-02-15 09:12"
make_file "floor plan.svg" 48K "2026-02-17 08:45"
make_file "Übersicht.ods" 31K "2026-02-17 09:20"

port=
for candidate in $((20000 + RANDOM % 6000)) $((26000 + RANDOM % 6000)); do
    "$program" --directory "$work/files" --port "$candidate" >"$work/output" 2>&1 &
    server=$!
    for _ in {1..300}; do
        grep -q "at http" "$work/output" && port=$candidate && break 2
        kill -0 "$server" 2>/dev/null || break
        sleep 0.1
    done
done
[[ -n $port ]] || fail "filedrop did not start: $(cat "$work/output")"

"$browser" --headless=old --no-sandbox --disable-gpu --hide-scrollbars --force-device-scale-factor=1 \
    --user-data-dir="$work/profile" --window-size=900,850 --virtual-time-budget=4000 \
    --screenshot="$work/page.png" "http://127.0.0.1:$port/" >"$work/browser" 2>&1 ||
    fail "the browser failed: $(cat "$work/browser")"
[[ -s $work/page.png ]] || fail "the browser wrote no picture: $(cat "$work/browser")"
mv "$work/page.png" "$output"
printf '%s\n' "$output"
