#!/bin/bash
# demo-screenshot.sh <program.exe> <shot.png>: inside scripts/with-wine, starts the
# program, waits for its main window to be drawn, takes a screenshot and ends it.
set -euo pipefail
source "$(dirname "$0")/common.sh"

exe=$1 shot=$2
title="QMX Software Ulmora Tools Server"
"$wine64" "$exe" >/dev/null 2>&1 &
program=$!

for _ in $(seq 100); do
  xwininfo -root -tree 2>/dev/null | grep -q "\"$title" && break
  kill -0 "$program" 2>/dev/null || die "$(basename "$exe") ended before showing its window"
  sleep 0.2
done
xwininfo -root -tree | grep -q "\"$title" || die "no window titled \"$title\" appeared"
sleep 1  # let the first paint finish
import -window root "$shot"
kill "$program" 2>/dev/null || true
