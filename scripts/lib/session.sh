#!/usr/bin/env bash
# Tonavi on the user's own PipeWire server: starts the service there and prints what it sees
# (tonavictl status). Its settings and logs live in a temporary folder, so the user's own Tonavi
# settings are not touched, and nothing is engaged until tonavictl asks for it.
#   scripts/lib/session.sh          print the status, then keep running until Ctrl-C
#   scripts/lib/session.sh --once   print the status and stop
set -euo pipefail
here="$(cd "$(dirname "${BASH_SOURCE[0]}")" && pwd)"
source "$here/../setup.sh"

once=0
[ "${1:-}" = "--once" ] && once=1

runtime="${PIPEWIRE_RUNTIME_DIR:-${XDG_RUNTIME_DIR:-/run/user/$(id -u)}}"
if [ ! -S "$runtime/${PIPEWIRE_REMOTE:-pipewire-0}" ]; then
    echo "no PipeWire server of yours answers in $runtime; scripts/lib/pipewire-demo.sh runs a private one" >&2
    exit 1
fi

tonavi_install
build="$TONAVI_ROOT/build"
cmake -S "$TONAVI_ROOT" -B "$build" -G Ninja >/dev/null
cmake --build "$build" -j "$(nproc)" --target tonavi-service tonavictl >/dev/null
bin="$build/bin"

folder="$(mktemp -d /tmp/tonavi-session-XXXXXX)"
export XDG_DATA_HOME="$folder/data" XDG_STATE_HOME="$folder/state"
service=""
stop() {
    trap - INT TERM EXIT
    if [ -n "$service" ] && kill -0 "$service" 2>/dev/null; then
        kill -TERM "$service"
        wait "$service" 2>/dev/null && status=0 || status=$?
        echo "service stopped (status $status)"
    fi
    rm -rf "$folder"
}
trap 'stop; exit 0' INT TERM
trap stop EXIT

echo "== Tonavi on your own PipeWire server ($runtime); settings and logs in $folder"
TONAVI_AUDIO_BACKEND=pipewire setsid "$bin/tonavi-service" >/dev/null 2>&1 &
service=$!
for _ in $(seq 1 200); do
    "$bin/tonavictl" ping >/dev/null 2>&1 && break
    kill -0 "$service" 2>/dev/null || { echo "the service stopped: $(tail -n 3 "$XDG_STATE_HOME"/Tonavi/*.log)" >&2; exit 1; }
    sleep 0.05
done
echo "what the service sees:"
"$bin/tonavictl" status

if [ "$once" -eq 1 ]; then
    exit 0
fi
echo "service running (pid $service); tonavictl needs XDG_DATA_HOME=$XDG_DATA_HOME; Ctrl-C stops it"
wait "$service"
