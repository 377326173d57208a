# What the demos share; sourced by them, with $work naming a folder for their files and clean_up a
# function that ends what they started.
# shellcheck shell=bash

readonly application=F054455A44454D4F # the demo cards' AID
readonly patience=60                  # seconds until a program that says nothing is given up
readonly attempts=600                 # looks, 0.1 seconds apart, until a change must be there

fail() {
    trap - PIPE
    echo "demo: $*" >&2
    exit 1
}

trap clean_up EXIT
trap 'fail "a program ended before it was told to"' PIPE

heading() { printf '\n== %s\n\n' "$*"; }

# line_of FD: the next line that a program writes, in $line.
line_of() {
    IFS= read -r -t "$patience" line <&"$1" || return 1
    line=${line%$'\r'}
}

# A path as the programs under Wine see it (-w), or back (-u).
wine_path() { scripts/in-wine winepath "$@" | tr -d '\r'; }

fresh_pipes() {
    rm -f "$work/$1.in" "$work/$1.out"
    mkfifo "$work/$1.in" "$work/$1.out"
}

# Lets the client run a line; what it prints comes into $answer. The empty line behind it comes back
# as a bare prompt, which is the end of the answer.
ask() {
    printf '%s\n\n' "$1" >&"$to_client"
    answer=''
    while line_of "$from_client" || fail "the client does not answer: $1"; do
        [ "$line" != 'pcsc> ' ] || return 0
        answer+=$line$'\n'
    done
}

expect() { grep -qF -- "$1" <<<"$answer" || fail "expected \"$1\" in the answer"; }
expect_not() { ! grep -qF -- "$1" <<<"$answer" || fail "did not expect \"$1\" in the answer"; }

# say LINE [EXPECTED ...]: asks, shows the answer, and wants each text in it and no error.
say() {
    ask "$1"
    printf '%s' "$answer"
    shift
    expect_not 'error'
    local text
    for text in "$@"; do
        expect "$text"
    done
}

# await_answer LINE PREDICATE: asks until the answer is as wanted, and shows it.
await_answer() {
    local attempt
    for ((attempt = 0; attempt < attempts; ++attempt)); do
        ask "$1"
        if "$2"; then
            printf '%s' "$answer"
            return
        fi
        sleep 0.1
    done
    printf '%s' "$answer"
    fail "the answer does not become what it should be: $1"
}

# show_lines_to TEXT: shows what the client prints up to a line with the text.
show_lines_to() {
    while line_of "$from_client" || fail "the client does not print: $1"; do
        echo "$line"
        [[ $line != *"$1"* ]] || return 0
    done
}

# start_client [NAME=VALUE ...]: an application that takes lines, with these variables.
start_client() {
    fresh_pipes client
    env "$@" scripts/in-wine build/bin/pcsc-client.exe shell <"$work/client.in" >"$work/client.out" 2>&1 &
    client=$!
    exec {to_client}>"$work/client.in" {from_client}<"$work/client.out"
}

# use_card READER: selects and reads as a signing program does.
use_card() {
    say "connect \"$1\"" "connected to $1"
    say "select \"$1\" $application" '9000 success'
    say "read \"$1\" --file 0101" 'Card holder'
    say "apdu \"$1\" 00B0000005 0084000008" '9000 success'
    say disconnect 'disconnected'
}
