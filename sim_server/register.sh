#!/bin/bash
# register.sh [--unregister] [path/to/UlmoraSimServer.dll]
# register.sh --with <command...>
# Registers the substitute server in the current Wine prefix (or removes it again), so
# that the program's CoCreateInstance finds it. --with registers the build's DLL, runs the
# command and unregisters afterwards, whatever the command does; its exit code is the
# command's. Run inside scripts/with-wine, or with WINEPREFIX set to the prefix the
# program will run in. The DLL defaults to the one in the build folder
# ($TESSEL_BUILD_DIR, else build/).
set -euo pipefail
source "$(dirname "$0")/../scripts/lib/common.sh"

[[ -n ${WINEPREFIX:-} ]] || die "WINEPREFIX is not set: run inside scripts/with-wine"
default_dll=$build_dir/bin/UlmoraSimServer.dll

regsvr() {  # regsvr register|unregister <dll>
  local args=(/s)
  [[ $1 == unregister ]] && args+=(/u)
  [[ -f $2 ]] || die "$2 does not exist; build the sim_server target first"
  # regsvr32 /s reports failure only through its exit code.
  "$wine64" regsvr32 "${args[@]}" "$(winepath_of "$2")" </dev/null || die "regsvr32 could not $1 $2"
}

case ${1:-} in
  --with)
    shift
    (($#)) || die "usage: register.sh --with <command...>"
    regsvr register "$default_dll"
    trap 'regsvr unregister "$default_dll"' EXIT
    rc=0
    "$@" || rc=$?
    exit $rc
    ;;
  --unregister)
    regsvr unregister "${2:-$default_dll}"
    ;;
  *)
    regsvr register "${1:-$default_dll}"
    ;;
esac
