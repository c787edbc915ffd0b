#!/usr/bin/env bash
# Shared by scripts/run and scripts/test: install what is missing, then configure and build.
# Usage: source scripts/setup.sh; tonavi_install; tonavi_build <build-dir> [cmake args...]
set -euo pipefail

TONAVI_ROOT="$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)"
# The PipeWire backend builds on libpipewire; its tests run a private server and measure it. The terminal
# mixer draws with ncurses, and its end-to-end test runs it in tmux. The settings import reads property
# lists with libplist.
TONAVI_PACKAGES=(cmake ninja-build g++ pkg-config libgtest-dev libgmock-dev libbenchmark-dev nlohmann-json3-dev
                 libpipewire-0.3-dev pipewire pipewire-bin wireplumber pipewire-pulse pulseaudio-utils dbus sox
                 libncurses-dev tmux libxcb1-dev libsystemd-dev xvfb openbox xdotool x11-utils libplist-dev
                 liblilv-dev lv2-dev lilv-utils swh-lv2)

tonavi_install() {
    local missing=()
    for p in "${TONAVI_PACKAGES[@]}"; do
        dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q "install ok installed" || missing+=("$p")
    done
    if [ ${#missing[@]} -gt 0 ]; then
        echo "installing: ${missing[*]}"
        local sudo=""
        [ "$(id -u)" -eq 0 ] || sudo="sudo"
        export DEBIAN_FRONTEND=noninteractive
        $sudo apt-get update -qq
        $sudo apt-get install -y -qq "${missing[@]}"
    fi
}

tonavi_build() {
    local dir="$1"; shift
    cmake -S "$TONAVI_ROOT" -B "$dir" -G Ninja "$@" >/dev/null
    cmake --build "$dir" -j "$(nproc)"
}
