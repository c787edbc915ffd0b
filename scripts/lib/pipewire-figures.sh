#!/usr/bin/env bash
# Figures of the service on a private PipeWire server, printed for the record:
#   - the latency PipeWire reports for a tapped application's nodes (its tap sink and IO stream);
#   - CPU of the tap worker at quantum 256, from /proc/<pid>/stat over 20 s, then with swh-lv2's amplifier
#     in its chain, against lv2bench running the amplifier alone;
#   - tonavictl status with 30 applications playing;
#   - stage mode releasing 24 live taps (apps 0 to 23 are configured at half volume), and 12.
# Assumes a built tree (build/); takes about a minute.
set -euo pipefail
here="$(cd "$(dirname "${BASH_SOURCE[0]}")" && pwd)"
root="$(cd "$here/../.." && pwd)"
source "$here/private-pipewire.sh"
bin="$root/build/bin"
tone="$root/build/tests/platform_tone_client"

folder="$(mktemp -d /tmp/tonavi-pipewire-figures-XXXXXX)"
pids=()
cleanup() {
    for pid in "${pids[@]}"; do kill -TERM "$pid" 2>/dev/null && wait "$pid" 2>/dev/null || true; done
    pw_private_stop
    rm -rf "$folder"
}
trap cleanup EXIT
trap 'echo "failed at line $LINENO; the service log: $(tail -5 "$XDG_STATE_HOME/Tonavi/Tonavi-service.log" 2>/dev/null)" >&2' ERR
pw_private_start "$folder"
export HOME="$folder/home"
mkdir -p "$HOME" "$XDG_DATA_HOME/Tonavi"
{
    printf '{"apps":[{"id":"org.tonavi.fig.App0","displayName":"App0","volume":0.5}'
    for i in $(seq 1 29); do
        printf ',{"id":"org.tonavi.fig.App%d","displayName":"App%d"%s}' "$i" "$i" "$( [ "$i" -lt 24 ] && echo ',"volume":0.5')"
    done
    printf ']}\n'
} >"$XDG_DATA_HOME/Tonavi/state.json"

pw-metadata -n settings 0 clock.force-quantum 256 >/dev/null
setsid "$tone" org.tonavi.fig.App0 App0 440 0.25 >/dev/null 2>&1 &
pids+=($!)
TONAVI_AUDIO_BACKEND=pipewire setsid "$bin/tonavi-service" >/dev/null 2>&1 &
service=$!
pids=("$service" "${pids[@]}")
_pw_wait 20 "$bin/tonavictl" ping
_pw_wait 10 pgrep -P "$service" -f -- --tonavi-tap-worker
worker="$(pgrep -P "$service" -f -- --tonavi-tap-worker)"
sleep 1

echo "== latency PipeWire reports for the tapped application's nodes (quantum 256 at 48 kHz)"
# Port Latency params (quantum, rate and ns parts, as PipeWire adds them up along a path).
pw-dump | python3 -c '
import json, sys
objs = json.load(sys.stdin)
names = {o["id"]: o["info"]["props"].get("node.name", "") for o in objs if o.get("type") == "PipeWire:Interface:Node"}
for o in objs:
    if o.get("type") != "PipeWire:Interface:Port":
        continue
    name = names.get(o["info"]["props"].get("node.id"), "")
    if name.startswith("tonavi.tap."):
        for p in o["info"].get("params", {}).get("Latency", []):
            print("  %-10s %-14s %-6s quantum %s..%s rate %s..%s ns %s..%s" % ("io stream" if name.endswith(".io") else "tap sink",
                  o["info"]["props"].get("port.name"), p["direction"], p["minQuantum"], p["maxQuantum"],
                  p["minRate"], p["maxRate"], p["minNs"], p["maxNs"]))
'

echo "== CPU of the worker (pid $worker) over 20 s at quantum 256"
ticks() { awk '{print $14 + $15}' "/proc/$1/stat"; }
hz=$(getconf CLK_TCK)
cpu() { # $1: pid; the share of one core over 20 s
    local t0 t1 s0
    t0=$(ticks "$1"); s0=$SECONDS
    sleep 20
    t1=$(ticks "$1")
    python3 -c "print('%.2f' % (100.0 * ($t1 - $t0) / $hz / ($SECONDS - $s0)))"
}
echo "  $(cpu "$worker") % of one core"

echo "== CPU of the worker with swh-lv2's amplifier in the chain, against lv2bench running it alone"
"$bin/tonavictl" chain App0 add "Simple amplifier" gain=-6 >/dev/null
sleep 1
now="$(pgrep -n -P "$service" -f -- --tonavi-tap-worker)"
[ "$now" = "$worker" ] || echo "  (the worker changed: $worker -> $now)"
echo "  worker with the amplifier: $(cpu "$now") % of one core"
# Stereo runs the mono amplifier twice: two instances' worth of 20 s at 48 kHz in blocks of 256.
alone=$(lv2bench -b 256 -n 960000 http://plugin.org.uk/swh-plugins/amp | awk '{print $1}')
python3 -c "print('  lv2bench, the amplifier alone: %.4f %% of one core (two instances)' % (100.0 * 2 * $alone / 20))"

echo "== tonavictl status with 30 applications playing"
for i in $(seq 1 29); do
    setsid "$tone" "org.tonavi.fig.App$i" "App$i" $((300 + 10 * i)) 0.01 >/dev/null 2>&1 &
    pids+=($!)
done
sleep 2
"$bin/tonavictl" status >/dev/null
start=$(date +%s%N)
for _ in $(seq 1 10); do "$bin/tonavictl" status --json >/dev/null; done
echo "  $(( ($(date +%s%N) - start) / 10000000 )) ms a status read (tonavictl process included, mean of 10)"
echo "  $("$bin/tonavictl" status | grep -c 'org.tonavi.fig') applications listed"

echo "== stage mode releasing live taps"
stage() { # $1: taps expected live first
    for _ in $(seq 1 100); do
        [ "$(pgrep -c -P "$service" -f -- --tonavi-tap-worker)" -ge "$1" ] && break
        sleep 0.2
    done
    local live start
    live=$(pgrep -c -P "$service" -f -- --tonavi-tap-worker)
    start=$(date +%s%N)
    "$bin/tonavictl" stage on >/dev/null
    echo "  $(( ($(date +%s%N) - start) / 1000000 )) ms for stage on to release $live taps (tonavictl included); $(pgrep -c -P "$service" -f -- --tonavi-tap-worker || true) left"
    pgrep -a -P "$service" -f -- --tonavi-tap-worker | sed 's/^/    still running: /' || true
    "$bin/tonavictl" stage off >/dev/null
}
stage 24
for i in $(seq 12 23); do "$bin/tonavictl" reset "org.tonavi.fig.App$i" >/dev/null; done
sleep 1
stage 12
