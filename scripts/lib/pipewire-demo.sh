#!/usr/bin/env bash
# Tonavi on a private PipeWire server: two tone clients ("Cello" and "Flute") play on the null sink
# "speakers"; tonavictl changes Cello's volume, mute, equaliser and output, and after every step the
# level of each application's tones is measured at the monitors of "speakers" and "headphones".
#   scripts/lib/pipewire-demo.sh          walk through, then keep running until Ctrl-C
#   scripts/lib/pipewire-demo.sh --once   end after the walk-through
# Nothing touches the user's own audio server or Tonavi settings: everything lives in a temporary folder.
set -euo pipefail
here="$(cd "$(dirname "${BASH_SOURCE[0]}")" && pwd)"
source "$here/../setup.sh"
source "$here/private-pipewire.sh"

once=0
[ "${1:-}" = "--once" ] && once=1

tonavi_install
build="$TONAVI_ROOT/build"
cmake -S "$TONAVI_ROOT" -B "$build" -G Ninja >/dev/null
cmake --build "$build" -j "$(nproc)" --target tonavi-service tonavictl platform_tone_client >/dev/null
bin="$build/bin"
tone="$build/tests/platform_tone_client"

folder="$(mktemp -d /tmp/tonavi-pipewire-demo-XXXXXX)"
service=""
tones=()
stop() {
    trap - INT TERM EXIT
    if [ -n "$service" ] && kill -0 "$service" 2>/dev/null; then
        kill -TERM "$service"
        wait "$service" 2>/dev/null && status=0 || status=$?
        echo "service stopped (status $status)"
    fi
    for pid in "${tones[@]}"; do kill -TERM "$pid" 2>/dev/null && wait "$pid" 2>/dev/null || true; done
    pw_private_stop
    echo "private PipeWire server stopped"
    rm -rf "$folder"
}
trap 'stop; exit 0' INT TERM
trap stop EXIT

echo "== Tonavi on a private PipeWire server (not your own): $folder"
pw_private_start "$folder"
export HOME="$folder/home"
mkdir -p "$HOME" "$XDG_DATA_HOME/Tonavi"
# Rows for both applications, so that tonavictl finds them by name.
cat >"$XDG_DATA_HOME/Tonavi/state.json" <<'JSON'
{"apps":[{"id":"org.tonavi.demo.Cello","displayName":"Cello"},{"id":"org.tonavi.demo.Flute","displayName":"Flute"}]}
JSON

setsid "$tone" org.tonavi.demo.Cello Cello 110+1760 0.25 >"$folder/logs/cello.log" 2>&1 &
tones+=($!)
setsid "$tone" org.tonavi.demo.Flute Flute 880 0.25 >"$folder/logs/flute.log" 2>&1 &
tones+=($!)
TONAVI_AUDIO_BACKEND=pipewire setsid "$bin/tonavi-service" >"$folder/logs/service.log" 2>&1 &
service=$!
_pw_wait 20 "$bin/tonavictl" ping || { echo "the service did not answer (see $XDG_STATE_HOME/Tonavi)" >&2; exit 1; }
echo "service running (pid $service) with TONAVI_AUDIO_BACKEND=pipewire; Cello plays 110 Hz + 1760 Hz, Flute 880 Hz"

show() {
    local sink levels
    echo "-- $1"
    for sink in speakers headphones; do
        read -r -a levels <<<"$(pw_level "$sink" 110 1760 880)"
        printf '   %-10s  Cello %6s dB (110 Hz) %6s dB (1760 Hz)   Flute %6s dB\n' "$sink" "${levels[@]}"
    done
}
ctl() {
    echo "\$ tonavictl $*"
    "$bin/tonavictl" "$@"
}
settle() { sleep 1; } # a change is in the graph within a few hundred milliseconds

settle
show "both play on the speakers, directly"
ctl volume Cello 50%
settle
show "Cello at half volume: 12 dB lower (the cubic volume law), Flute untouched"
ctl mute Cello
settle
show "Cello muted"
ctl unmute Cello
ctl eq Cello bass-reducer
settle
show "Cello unmuted, with the Bass Reducer preset: its 110 Hz partial drops, 1760 Hz stays"
# A third-party LV2 plug-in (swh-lv2, installed by setup.sh) in Cello's chain, run in Cello's worker.
ctl plugins | grep -E "^NAME|^Simple amplifier"
ctl chain Cello add "Simple amplifier" gain=-12
settle
show "swh-lv2's Simple amplifier at -12 dB in Cello's chain: both partials 12 dB lower, Flute untouched"
ctl chain Cello
echo "\$ tonavictl redirect Cello headphones"
if ! "$bin/tonavictl" redirect Cello headphones 2>/dev/null; then
    # The status may not list devices yet; the request itself names the device by its UID.
    ctl send '{"setAppRedirect":{"bundleID":"org.tonavi.demo.Cello","deviceUID":"headphones"}}' >/dev/null
fi
settle
show "Cello redirected to the headphones"
ctl status

if [ "$once" -eq 1 ]; then
    exit 0
fi
echo "running on the private server; try $bin/tonavictl with HOME=$HOME XDG_DATA_HOME=$XDG_DATA_HOME; Ctrl-C stops everything"
wait "$service"
