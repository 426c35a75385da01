#!/usr/bin/env bash
# Changes the code of the library in one place at a time and checks whether a unit test fails.
set -euo pipefail

usage() {
    cat <<'TEXT'
Usage: scripts/mutate.sh [--count N] [--files PATTERN]... [--seed N] [--jobs N] [--resume]
                         [--survivors] [--list] [--folder DIR] [--no-install] [--help]

Changes one operator, constant or statement of src/ at a time, builds and runs the unit tests of
that file, and lists the mutants that no test killed. Works in a copy of the tree. Not counted
are mutants that do not compile, and those whose object code is the original's or another
mutant's. Fails when a survivor has no row in tests/mutation/survivors.md.

  --count N        number of mutants, spread over all functions; 0: all (default: 300)
  --files PATTERN  only files whose path matches, such as 'src/server/*'; may be given several times
  --seed N         seed of the selection (default: 1)
  --jobs N         concurrent mutants (default: the number of processors)
  --resume         continue an earlier run
  --survivors      only the survivors of earlier runs, after a test was added
  --list           only print the mutants
  --folder DIR     directory of copy, build and results (default: build/mutate)
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
