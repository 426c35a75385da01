#!/usr/bin/env bash
# Changes the library's code in one place at a time and looks whether a unit test notices.
set -euo pipefail

usage() {
    cat <<'TEXT'
Usage: scripts/mutate.sh [--count N] [--files PATTERN]... [--seed N] [--jobs N] [--resume]
                         [--survivors] [--list] [--folder DIR] [--no-install] [--help]

Changes one operator, constant or statement of src/ at a time, builds and runs the unit tests of
that file, and lists the mutants that no test killed. Works in a copy of the tree. Not counted
are mutants that do not compile, and those whose object code is the original's or another
mutant's. Fails when a survivor has no row in tests/mutation/survivors.md.

  --count N        as many mutants, spread over all functions; 0: all there are (default: 300)
  --files PATTERN  only files whose path matches, such as 'src/server/*'; may be given several times
  --seed N         which mutants are taken (default: 1)
  --jobs N         mutants at a time (default: the number of processors)
  --resume         go on where an earlier run was ended
  --survivors      try only the survivors of the earlier runs again, after a test was added
  --list           only print the mutants
  --folder DIR     where the copy, its build and the results are (default: build/mutate)
  --no-install     no Debian packages are installed
  --help           this text
TEXT
}

install=true
arguments=()
for argument in "$@"; do
    case "$argument" in
        --no-install) install=false ;;
        --help)
            usage
            exit 0
            ;;
        *) arguments+=("$argument") ;;
    esac
done

cd "$(dirname "${BASH_SOURCE[0]}")/.."
if $install; then
    scripts/install-deps.sh --tests
fi
exec nice python3 -B tests/mutation/mutate.py "${arguments[@]}"
