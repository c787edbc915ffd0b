#!/usr/bin/env bash
# A private PipeWire server for demos: a session bus, pipewire, wireplumber and pipewire-pulse under
# a private XDG_RUNTIME_DIR, with null sinks "speakers" and "headphones". Sourced, not run.
#   pw_private_start <folder>   exports the environment that points every tool at it
#   pw_private_stop             stops what pw_private_start started, newest first
#   pw_level <sink> <Hz>...     the level (dBFS of the tone's amplitude) of each frequency at the sink's monitor

PW_PRIVATE_PIDS=()

_pw_wait() { # <seconds> <command...>: polls a condition until it holds or the time runs out
    local deadline=$((SECONDS + $1)); shift
    until "$@" >/dev/null 2>&1; do
        [ "$SECONDS" -ge "$deadline" ] && return 1
        sleep 0.05
    done
}

_pw_sinks_ready() {
    local sinks
    sinks="$(pactl list short sinks 2>/dev/null)" || return 1
    grep -qw speakers <<<"$sinks" && grep -qw headphones <<<"$sinks" &&
        [ -n "$(pactl get-default-sink 2>/dev/null)" ]
}

pw_private_start() {
    local folder="$1" program
    for program in dbus-daemon pipewire wireplumber pipewire-pulse pactl parec; do
        command -v "$program" >/dev/null || { echo "$program is not installed (scripts/setup.sh installs it)" >&2; return 1; }
    done
    mkdir -p "$folder/run" "$folder/config/pipewire/pipewire.conf.d" "$folder/state" "$folder/data" "$folder/logs"
    chmod 700 "$folder/run"
    cat >"$folder/config/pipewire/pipewire.conf.d/tonavi-sinks.conf" <<'CONF'
context.objects = [
  { factory = adapter
    args = { factory.name = support.null-audio-sink node.name = "speakers" node.description = "Speakers"
             media.class = "Audio/Sink" audio.position = [ FL FR ] object.linger = true
             monitor.channel-volumes = true priority.session = 2000 } }
  { factory = adapter
    args = { factory.name = support.null-audio-sink node.name = "headphones" node.description = "Headphones"
             media.class = "Audio/Sink" audio.position = [ FL FR ] object.linger = true
             monitor.channel-volumes = true priority.session = 1000 } }
]
CONF
    export XDG_RUNTIME_DIR="$folder/run" PIPEWIRE_RUNTIME_DIR="$folder/run"
    export XDG_CONFIG_HOME="$folder/config" XDG_STATE_HOME="$folder/state" XDG_DATA_HOME="$folder/data"
    export DBUS_SESSION_BUS_ADDRESS="unix:path=$folder/run/bus"
    unset PIPEWIRE_REMOTE PULSE_SERVER
    # Each in a session of its own, so that Ctrl-C reaches only the script, which stops them in order.
    setsid dbus-daemon --session --nofork --address="$DBUS_SESSION_BUS_ADDRESS" >"$folder/logs/dbus.log" 2>&1 &
    PW_PRIVATE_PIDS+=($!)
    _pw_wait 5 test -S "$folder/run/bus" || { echo "the session bus did not start" >&2; return 1; }
    setsid pipewire >"$folder/logs/pipewire.log" 2>&1 &
    PW_PRIVATE_PIDS+=($!)
    _pw_wait 5 test -S "$folder/run/pipewire-0" || { echo "pipewire did not start (see $folder/logs)" >&2; return 1; }
    setsid wireplumber >"$folder/logs/wireplumber.log" 2>&1 &
    PW_PRIVATE_PIDS+=($!)
    setsid pipewire-pulse >"$folder/logs/pipewire-pulse.log" 2>&1 &
    PW_PRIVATE_PIDS+=($!)
    _pw_wait 10 _pw_sinks_ready || { echo "the session manager or pipewire-pulse did not come up (see $folder/logs)" >&2; return 1; }
}

pw_private_stop() {
    local i pid
    for ((i = ${#PW_PRIVATE_PIDS[@]} - 1; i >= 0; i--)); do
        pid="${PW_PRIVATE_PIDS[$i]}"
        kill -TERM "$pid" 2>/dev/null && wait "$pid" 2>/dev/null
    done
    PW_PRIVATE_PIDS=()
}

# 0.5 s of the monitor (after 0.2 s to settle), mono; each frequency's amplitude by correlation, in dBFS.
pw_level() {
    local sink="$1"; shift
    timeout 3 parec --latency-msec=20 --device="$sink.monitor" --raw --format=float32le --rate=48000 \
        --channels=1 2>/dev/null | head -c $((4 * 48000 * 7 / 10)) |
        python3 -c '
import math, struct, sys
data = sys.stdin.buffer.read()
samples = struct.unpack("<%df" % (len(data) // 4), data[: len(data) // 4 * 4])[9600:]
out = []
for f in sys.argv[1:]:
    w = 2 * math.pi * float(f) / 48000
    s = sum(x * math.sin(w * i) for i, x in enumerate(samples))
    c = sum(x * math.cos(w * i) for i, x in enumerate(samples))
    a = 2 * math.hypot(s, c) / max(len(samples), 1)
    out.append("%.1f" % (20 * math.log10(a)) if a > 1e-5 else "-inf")
print(" ".join(out))' "$@"
}
