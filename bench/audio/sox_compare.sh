#!/usr/bin/env bash
# Side by side with sox on one minute of 48 kHz stereo: our ten-band equaliser against sox's
# `equalizer` with the same bands, and our whole chain against the same equaliser plus `compand`.
# Both sides read and write raw float files, so each time includes the same kind of file work.
# Run by hand after a build:  bench/audio/sox_compare.sh [BUILD_DIR]
set -euo pipefail

build=${1:-build}
render=$build/bin/tonavi-render
[[ -x $render ]] || { echo "no $render: build the tonavi-render target first" >&2; exit 1; }
command -v sox >/dev/null || { echo "sox is not installed" >&2; exit 1; }

work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
raw=(-t f32 -r 48000 -c 2)
sox -n "${raw[@]}" "$work/in.f32" synth 60 pinknoise vol 0.5

# The "Rock" preset, as the renderer's equaliser uses it: Q 1.1 on every band.
frequencies=(32 64 125 250 500 1000 2000 4000 8000 16000)
gains=(5 4 3 1.5 -0.5 -1 0.5 2.5 3.5 4.5)
equalizer=()
for i in "${!frequencies[@]}"; do
    equalizer+=(equalizer "${frequencies[$i]}" 1.1q "${gains[$i]}")
done
# Roughly the chain's compressor at 0.6: 8 dB knee, threshold -19.2 dB, ratio 4.
compand=(compand 0.018,0.22 8:-80,-80,-19.2,-19.2,0,-15.2 0)

# CPU seconds (user + system) of one command: the machine may be shared, and wall time would
# count the waits for a core as work.
seconds() {
    local TIMEFORMAT='%U + %S'
    { time "$@" >/dev/null 2>&1; } 2>&1 | bc -l
}

compare() {
    local name=$1 ours=$2 theirs
    theirs=$(seconds sox -V1 "${raw[@]}" "$work/in.f32" "${raw[@]}" "$work/sox.f32" "${@:3}")
    ours=$(seconds "$render" "$ours" "$work/in.f32" "$work/ours.f32")
    printf '%-28s tonavi %7.3f s CPU   sox %7.3f s CPU   sox/tonavi %6.2fx\n' "$name" "$ours" "$theirs" \
        "$(echo "$theirs / $ours" | bc -l)"
}

compare "EQ10 vs equalizer x10" eq10 "${equalizer[@]}"
compare "chain vs equalizer+compand" chain "${equalizer[@]}" "${compand[@]}"
