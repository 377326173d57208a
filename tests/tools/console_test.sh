#!/usr/bin/env bash
# Shows the client a console, as a person has it: console_test.sh PROGRAM. Names that are not ASCII
# come out as they were typed, and a PIN does not come out at all. A terminal of its own makes Wine give
# the program a console; what is drawn there is looked at without the sequences that move the cursor.
set -euo pipefail
root=$(cd "$(dirname "${BASH_SOURCE[0]}")/../.." && pwd)
program=$1
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
readonly attempts=300 # looks, 0.1 seconds apart, until something has to be so

fail() {
    echo "console_test: $*" >&2
    drawn >&2
    exit 1
}

drawn() { sed -E 's/\x1b\[[0-9;?]*[A-Za-z]/ /g' "$work/screen" | tr -d '\r'; }

# open_console WORD ...: runs the client with these words.
open_console() {
    rm -f "$work/keys"
    mkfifo "$work/keys"
    : >"$work/screen"
    TERM=xterm script --quiet --flush --return \
        --command "tty >'$work/terminal'; exec '$root/scripts/in-wine' '$program' $*" \
        "$work/screen" <"$work/keys" >/dev/null &
    console=$!
    exec {keys}>"$work/keys"
}

close_console() {
    exec {keys}>&-
    wait "$console" || true
}

# comes_about COMMAND [ARG ...]: whether it succeeds soon.
comes_about() {
    local attempt
    for ((attempt = 0; attempt < attempts; ++attempt)); do
        ! "$@" || return 0
        sleep 0.1
    done
    return 1
}

is_drawn() { [[ $(drawn) == *"$1"* ]]; }

await() { comes_about is_drawn "$1" || fail "this is not drawn: $1"; }

# Wine takes a terminal's keys for the console at the program's first read: until then the terminal
# draws them itself, a PIN too, and turns the carriage return of a line into a line feed.
keys_are_taken() { [[ $(stty --file "$(<"$work/terminal")" --all) == *-icanon* ]]; }

# The key Return is a carriage return.
type_line() {
    comes_about keys_are_taken || fail "nobody reads what would be typed: $1"
    printf '%s\r' "$1" >&"$keys"
}

open_console watch Lesegerät
await 'there is no reader Lesegerät; --wait'
close_console

open_console shell
await 'pcsc>'
type_line wacht
await 'unknown command: wacht'
type_line 'watch Gerät'
await 'there is no reader Gerät; --wait'
type_line exit
close_console

open_console verify 0
await 'PIN:'
type_line 739146
await 'command'
[[ $(drawn | tr -d ' \n') != *739* ]] || fail 'the PIN is drawn'
close_console

# Asks where a person sees it, and gives a file the object alone.
open_console verify 0 --json ">'$work/object'"
await 'PIN:'
type_line 739146
comes_about test -s "$work/object" || fail 'no object is written'
[[ $(<"$work/object") == '{'* ]] || fail "not only an object: $(<"$work/object")"
close_console
