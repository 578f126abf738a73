#!/bin/bash
# Builds the template Wine prefix that every test or demo run copies. Runs once; the
# stamp records the registry file it was made with, so editing that file rebuilds it.
set -euo pipefail
source "$(dirname "$0")/common.sh"

reg_file=$repo_root/scripts/wine/prefix.reg
recipe=$(sha1sum "$reg_file" | cut -d' ' -f1)
stamp=$wine_template/.stamp
[[ -f $stamp && $(cat "$stamp") == "$recipe" ]] && exit 0

note "creating the template Wine prefix (once)"
tmp=$wine_template.tmp
rm -rf "$tmp" "$wine_template"
mkdir -p "$(dirname "$tmp")"
export WINEPREFIX=$tmp WINEARCH=win64 WINEDEBUG=-all WINEDLLOVERRIDES="mscoree,mshtml="
unset DISPLAY
"$wine64" wineboot -i >/dev/null 2>&1 || die "wineboot failed in $tmp"
"$wine64" regedit /S "$(winepath_of "$reg_file")" >/dev/null 2>&1 || die "importing $reg_file failed"
"$wineserver" -w
grep -q '"Managed"="N"' "$tmp/user.reg" || die "registry settings did not reach the template prefix"
echo "$recipe" > "$tmp/.stamp"
mv "$tmp" "$wine_template"
