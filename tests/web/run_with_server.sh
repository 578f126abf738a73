#!/bin/bash
# run_with_server.sh <command...>: runs a command while the loopback HTTPS server of the web
# tests runs. The command finds the server through WEB_TEST_STATE, a folder (as Wine sees
# it) with "port" ("<https> <refused> <http>"), the test authority's "ca.der" and "files\",
# which the server serves under /files/. Everything is removed afterwards.
set -uo pipefail
source "$(dirname "$0")/../../scripts/lib/common.sh"

state=$(mktemp -d /tmp/tessel-web.XXXXXX)
mkdir -p "$state/files"
/usr/bin/python3 "$(dirname "$0")/https_server.py" --state "$state" --files "$state/files" >"$state/server.log" 2>&1 &
server=$!
trap 'kill $server 2>/dev/null; wait $server 2>/dev/null; rm -rf "$state"' EXIT
for _ in $(seq 200); do
  [[ -f $state/port ]] && break
  kill -0 $server 2>/dev/null || break
  sleep 0.05
done
[[ -f $state/port ]] || { echo "the test server did not start:"; cat "$state/server.log"; exit 1; }
WEB_TEST_STATE=$(winepath_of "$state")
export WEB_TEST_STATE WEB_TEST_STATE_UNIX=$state
"$@"
