#!/usr/bin/env bash
# Looks at a timeline of 10,003 calls in a browser without a window: timeline_test.sh PROGRAM BROWSER
# What is done with the page stands in timeline_test.js.
set -euo pipefail
here=$(cd "$(dirname "${BASH_SOURCE[0]}")" && pwd)
program=$1
browser=$2
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT

# log_of PROCESS THREAD COUNT: a thread that transmits to the card, a millisecond each time.
log_of() {
    awk -v process="$1" -v thread="$2" -v count="$3" '
        function line(text) {
            time += 100
            printf "D Nov 22 12:%02d:%02d:%06d %d:%d TEZ (SCardTransmit): %s\n",
                time / 60000000, time / 1000000 % 60, time % 1000000, process, thread, text
        }
        BEGIN {
            for (call = 0; call < count; ++call) {
                line("TRANSMIT IN-PARAMS: 1, 00000002D87B6CD0, 0000000000000000 (65538)")
                if (process == 5 && call == 7) line("the message of one call </script>")
                line("TRANSMIT OUT-PARAMS: 2, 14")
                line("TRANSMIT RV: 0x00000000")
                time += 700
            }
        }'
}

{ log_of 4 40 5000; } >"$work/4.log"
{
    log_of 5 50 4998
    cat <<'LINES'
D Nov 22 12:00:06:000000 5:51 TEZ (SCardConnectA): SCARD_CONNECT IN-PARAMS: 1, Remote Reader <0>, 2, 3, 0, 0
D Nov 22 12:00:06:100000 5:51 TEZ (SCardConnectA): SCARD_CONNECT OUT-PARAMS: 1, 2
D Nov 22 12:00:06:100000 5:51 TEZ (SCardConnectA): SCARD_CONNECT RV: 0x00000000
D Nov 22 12:00:06:200000 5:51 TEZ (SCardTransmit): TRANSMIT IN-PARAMS: 1, 0, 0 (65538)
D Nov 22 12:00:07:000000 5:51 TEZ (SCardTransmit): TRANSMIT RV: 0x00000000
D Nov 22 12:00:07:100000 5:51 TEZ (SCardTransmit): TRANSMIT IN-PARAMS: 1, 0, 0 (65538)
D Nov 22 12:00:08:000000 5:51 TEZ (SCardTransmit): TRANSMIT RV: 0x80100069
D Nov 22 12:00:08:100000 5:51 TEZ (SCardGetStatusChangeA): GET_STATUS_CHANGE IN-PARAMS: 1, 1000, 0, 1
D Nov 22 12:00:09:100000 5:51 TEZ (SCardGetStatusChangeA): GET_STATUS_CHANGE RV: 0x8010000A
D Nov 22 12:00:09:200000 5:51 TEZ (SCardTransmit): TRANSMIT IN-PARAMS: 1, 0, 0 (65538)
D Nov 22 12:00:09:300000 5:51 TEZ (SCardTransmit): Using receive protocol 4294967295
LINES
} >"$work/5.log"

"$here/../../scripts/in-wine" "$program" log "$work/4.log" "$work/5.log" --html "$work/page.html"
{ echo '<script>' && cat "$here/timeline_test.js" && echo '</script>'; } >>"$work/page.html"
# A program of root's has no sandbox to go into; the page is our own.
title=$("$browser" --headless --no-sandbox --window-size=1400,900 --virtual-time-budget=60000 \
    --user-data-dir="$work/profile" --dump-dom "file://$work/page.html" 2>"$work/errors" |
    sed -n 's/.*<title>\(.*\)<\/title>.*/\1/p')
[ "$title" = 'as it should be' ] || { echo "timeline_test: $title" >&2; cat "$work/errors" >&2; exit 1; }
