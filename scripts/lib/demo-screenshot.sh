#!/bin/bash
# demo-screenshot.sh <program.exe> <folder>: inside scripts/with-wine with the substitute
# server registered, shows the program as a user meets it and saves screenshots of the
# main window, the share dialog, the server settings dialog and the about box, in English
# and German, at 96 and 144 dpi, and the tooltip of the first device's name:
# <folder>/<language>-<dpi>-{main,tooltip,share,settings,about}.png.
set -euo pipefail
source "$(dirname "$0")/common.sh"

exe=$1 out=$2
driver=$(dirname "$exe")/ui_driver.exe
title="QMX Software Ulmora Tools Server"
settings_key='HKCU\Software\QMX Software\Ulmora Tools\ServerCfg'
mkdir -p "$out"

drive() { "$wine64" "$driver" "$@" 2>/dev/null; }

# The X window of a Wine top-level window with this exact title.
x_window() { xwininfo -root -tree | grep -F "\"$1\"" | head -1 | awk '{print $1}'; }

shoot() {  # shoot <title> <file>
  local id
  id=$(x_window "$1")
  [[ -n $id ]] || die "no window titled \"$1\" to take a picture of"
  import -window "$id" "$2"
}

for dpi in 96 144; do
  "$wine64" reg add 'HKCU\Control Panel\Desktop' /v LogPixels /t REG_DWORD /d "$dpi" /f >/dev/null 2>&1
  for language in en de; do
    "$wine64" reg add "$settings_key" /v language /t REG_SZ /d "$language" /f >/dev/null 2>&1
    if [[ $language == de ]]; then
      share_title="Gerät freigeben" settings_title="Servereinstellungen" about_title="Info"
    else
      share_title="Share Device" settings_title="Server Settings" about_title="About"
    fi
    prefix=$out/$language-$dpi
    "$wine64" "$exe" >/dev/null 2>&1 &
    program=$!
    main=$(drive wait "$title" 1003 20000) || die "the main window did not appear ($language, $dpi dpi)"
    # The tree has its rows once the screen-reader interface lists them; the first paint
    # (Direct2D starting up under a software renderer) takes a moment more.
    for _ in $(seq 50); do
      [[ -n $(drive rows "$main" 1003 || true) ]] && break
      sleep 0.2
    done
    # The pointer off the window, so that no tooltip covers a row (a picture of one
    # window shows another window over it as a black box).
    xdotool mousemove 0 0
    sleep 2
    shoot "$title" "$prefix-main.png"

    # The flash drive's name with its tooltip, which tells the device apart. The tooltip
    # is a window of its own: the picture is the whole screen.
    if drive hover "$main" 1003 0; then
      sleep 2
      import -window root "$prefix-tooltip.png"
    else
      note "no row to point at ($language, $dpi dpi)"
    fi

    # The share dialog of the first device that is not shared: the hub.
    row=$( (drive rows "$main" 1003 || true) | grep -n "Generic USB 3.0 Hub" | head -1 | cut -d: -f1 || true)
    if [[ -n $row ]]; then
      drive select "$main" 1003 $((row - 1)) || true
      drive key "$main" 1003 13 || true
      if share=$(drive wait "$share_title" 1006 5000); then
        sleep 0.5
        shoot "$share_title" "$prefix-share.png"
        drive click "$share" 2 || true
      else
        note "no share dialog appeared ($language, $dpi dpi)"
      fi
    fi

    drive click "$main" 1005 || true
    if settings=$(drive wait "$settings_title" 1019 5000); then
      sleep 1  # the server's settings arrive after 400 ms
      shoot "$settings_title" "$prefix-settings.png"
      drive click "$settings" 2 || true
    else
      note "no settings dialog appeared ($language, $dpi dpi)"
    fi

    # The about box is modal: the click returns once it has closed, so it runs aside.
    drive click "$main" 1004 &
    clicker=$!
    if about=$(drive wait "$about_title" 1003 5000); then
      sleep 0.5
      shoot "$about_title" "$prefix-about.png"
      drive click "$about" 1 || true
    else
      note "no about box appeared ($language, $dpi dpi)"
    fi
    wait "$clicker" 2>/dev/null || true
    sleep 0.3
    drive close "$main" || true
    wait "$program" 2>/dev/null || true
  done
done
"$wine64" reg add 'HKCU\Control Panel\Desktop' /v LogPixels /t REG_DWORD /d 96 /f >/dev/null 2>&1
