#!/bin/sh
# Runs a command with DISPLAY at a private Xvfb server of its own (1280x1024, 24 bits), and
# ends the server afterwards; the command's status is returned. The server picks a free display
# number itself (-displayfd), so that tests running side by side never share or race for one.
tmp=$(mktemp -d "${TMPDIR:-/tmp}/align-xvfb-XXXXXX") || exit 1
Xvfb -displayfd 3 -screen 0 1280x1024x24 -nolisten tcp 3>"$tmp/display" >"$tmp/log" 2>&1 &
server=$!
tries=0
while [ ! -s "$tmp/display" ]; do
    tries=$((tries + 1))
    if [ "$tries" -gt 200 ] || ! kill -0 "$server" 2>/dev/null; then
        echo "with_xvfb.sh: Xvfb did not start" >&2
        cat "$tmp/log" >&2
        kill "$server" 2>/dev/null
        rm -rf "$tmp"
        exit 1
    fi
    sleep 0.05
done
DISPLAY=":$(head -n 1 "$tmp/display")" "$@"
status=$?
kill "$server" 2>/dev/null
wait "$server" 2>/dev/null
rm -rf "$tmp"
exit "$status"
