#!/usr/bin/env bash
# The frame pump under load: plays the built show for a few seconds on a small Xvfb screen with
# lavapipe and reports the share of display ticks that became frames and the main thread's
# processor time per frame, frames drawn per second and, under --scale auto (the player's default
# with any argument), the render scales it drew at (counters the player prints at exit with
# --frame-pump-stats). Further arguments go to the player: `--start 145` measures the finale,
# `--scale 1` renders at the full 1920 x 1080.
# Usage: BUILD=build bash bench/app/frame_pump.sh [seconds] [player options]
set -euo pipefail
build=${BUILD:-build}
seconds=${1:-8}
shift $(( $# > 0 ? 1 : 0 ))
options=""
[ $# -eq 0 ] || options=$(printf ' %q' "$@")
player="$build/app/brisvale"
show="$build/app/demo.dat"
if [ ! -x "$player" ] || [ ! -f "$show" ]; then
  echo "frame_pump: $player or $show is not built; skipped"
  exit 0
fi

bundle=$(mktemp -d)
trap 'rm -rf "$bundle"' EXIT
cp "$player" "$show" "$bundle/"

run() {
  eval "set -- $options"
  "$bundle/brisvale" --frame-pump-stats "$@" 2>"$bundle/stderr.txt" &
  local pid=$!
  sleep "$seconds"
  # SDL turns SIGTERM into a quit request: the player ends cleanly and prints its counters.
  kill -TERM "$pid" 2>/dev/null || true
  wait "$pid" || true
  grep '^frame pump:' "$bundle/stderr.txt" || { echo "frame_pump: no counters"; cat "$bundle/stderr.txt"; return 1; }
}
# A small screen: the full-screen window is small, the drawable stays 1920 x 1080.
export bundle seconds options
# With an argument the player keeps a pipeline cache: in the scratch folder, not the user's.
SDL_AUDIODRIVER=dummy XDG_CACHE_HOME="$bundle/cache" \
  VK_ICD_FILENAMES=/usr/share/vulkan/icd.d/lvp_icd.x86_64.json \
  xvfb-run -a -s "-screen 0 640x360x24" bash -c "$(declare -f run); run"
