#!/usr/bin/env bash
# Idle CPU of the service on a private PipeWire server, with and without a focus source: 30 s each,
# from /proc/<pid>/stat, the service on a private home with two players and follow-me on. With the
# focus source, an Xvfb display with openbox and a window is the session; without, DISPLAY is empty.
#   scripts/lib/desktop-figures.sh   (after a build; prints one line per case)
set -euo pipefail
root="$(cd "$(dirname "$0")/../.." && pwd)"
bin="$root/build/bin" tone="$root/build/tests/platform_tone_client" window="$root/build/tests/platform_window_client"
folder="$(mktemp -d /tmp/tonavi-desktop-figures.XXXXXX)"
source "$root/scripts/lib/private-pipewire.sh"
pids=()
cleanup() {
    for pid in "${pids[@]}"; do kill "$pid" 2>/dev/null || true; wait "$pid" 2>/dev/null || true; done
    pw_private_stop
    rm -rf "$folder"
}
trap cleanup EXIT
pw_private_start "$folder"
exec 3< <(exec Xvfb -noreset -nolisten tcp -displayfd 1 2>/dev/null)
pids+=($!) # the process substitution's pid: this script's own Xvfb
read -r -t 10 number <&3
display=":$number"
DISPLAY=$display setsid openbox --sm-disable >/dev/null 2>&1 &
pids+=($!)
sleep 1
DISPLAY=$display setsid "$window" "Desk" >/dev/null 2>&1 &
pids+=($!)
for app in Low:4000 High:880; do
    setsid "$tone" "org.tonavi.${app%%:*}" "${app%%:*}" "${app##*:}" 0.1 >/dev/null 2>&1 &
    pids+=($!)
done
ticks() { awk '{print $14 + $15}' "/proc/$1/stat"; }
measure() { # <label> <DISPLAY value>
    local home="$folder/home-$1"
    mkdir -p "$home/.local/share/Tonavi"
    echo '{"smart":{"followMe":true,"followMeBackgroundPercent":25}}' >"$home/.local/share/Tonavi/state.json"
    HOME="$home" XDG_DATA_HOME="" XDG_STATE_HOME="" DISPLAY="$2" TONAVI_AUDIO_BACKEND=pipewire \
        setsid "$bin/tonavi-service" >/dev/null 2>&1 &
    local service=$!
    sleep 8 # past the warm-up, the first smart pass and the first taps
    local t0 s0 t1
    t0=$(ticks "$service"); s0=$SECONDS
    sleep 30
    t1=$(ticks "$service")
    python3 -c "print('$1: %.2f %% of one core over %d s' % (100.0 * ($t1 - $t0) / $(getconf CLK_TCK) / ($SECONDS - $s0), $SECONDS - $s0))"
    kill "$service"; wait "$service" 2>/dev/null || true
}
measure "without a focus source" ""
measure "with the X focus source" "$display"
