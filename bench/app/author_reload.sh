#!/usr/bin/env bash
# Author mode on lavapipe. Edit to picture: from the rename that saves an edited shader to the
# end of the first frame drawn with the new pipelines (the player's own "Reloaded FILE in N ms"
# line), for the test show's small shader (goal: 150 ms or less) and for the default show's
# shaders. A move through time: from the key to the first frame drawn at the new time (the
# player's --timings line; goal: the next display tick).
# Usage: BUILD=build bash bench/app/author_reload.sh [edits]
set -euo pipefail
build=${BUILD:-build}
edits=${1:-8}
player="$build/app/brisvale"
pack="$build/tools/pack/brisvale-pack"
small="$build/tests/app/test-show"
default="$build/app/demo.dat"
for needed in "$player" "$pack" "$default" "$small/demo.ini"; do
  if [ ! -e "$needed" ]; then
    echo "author_reload: $needed is not built; skipped"
    exit 0
  fi
done

# The measuring runs on a display of its own.
if [ -z "${AUTHOR_RELOAD_DISPLAY:-}" ]; then
  exec xvfb-run -a -s "-screen 0 1920x1080x24" env AUTHOR_RELOAD_DISPLAY=1 bash "$0" "$@"
fi

work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
cp -r "$small" "$work/small"
"$pack" --extract "$default" "$work/default" >/dev/null
export SDL_AUDIODRIVER=dummy VK_ICD_FILENAMES=/usr/share/vulkan/icd.d/lvp_icd.x86_64.json
# Fresh caches in the scratch folder: nothing of an earlier run helps, the user's stay untouched.
export XDG_CACHE_HOME="$work/cache" MESA_SHADER_CACHE_DIR="$work/mesa"

# Waits up to $2 seconds for the command $1 to succeed.
wait_for() {
  local tries=$(($2 * 20))
  while ! eval "$1" >/dev/null 2>&1; do
    tries=$((tries - 1))
    [ "$tries" -gt 0 ] || return 1
    sleep 0.05
  done
}

# min, median and max of the numbers on standard input
summary() {
  sort -n | awk '{ v[NR] = $1 } END { if (NR == 0) { print "none"; exit }
    printf "min %s, median %s, max %s (%d runs)\n", v[1], v[int((NR + 1) / 2)], v[NR], NR }'
}

# measure NAME SHOW FILE OLD NEW MOVES [player arguments]: plays SHOW, saves FILE `edits` times
# with OLD replaced by NEW (its "@" by the edit's number, so that no compile is one seen
# before), then presses Right and Left MOVES times in turn.
measure() {
  local name=$1 show=$2 file=$3 old=$4 new=$5 moves=$6
  shift 6
  local err="$work/$name.err"
  "$player" --timings "$@" "$show" 2>"$err" &
  local pid=$!
  if ! wait_for "xdotool search --name '^Brisvale Metal - '" 120; then
    echo "$name: the player did not start"; cat "$err"; kill "$pid" 2>/dev/null || true; return 1
  fi
  local original
  original=$(<"$show/$file")
  for i in $(seq 1 "$edits"); do
    local before
    before=$(grep -c '^Reloaded ' "$err" || true)
    printf '%s\n' "${original//"$old"/"${new//@/$i}"}" >"$show/$file.tmp"
    mv "$show/$file.tmp" "$show/$file"
    if ! wait_for "[ \$(grep -c '^Reloaded ' '$err') -gt $before ]" 60; then
      echo "$name: edit $i was not reloaded"; cat "$err"; kill "$pid" 2>/dev/null || true; return 1
    fi
    sleep 0.3
  done
  local window
  window=$(xdotool search --name '^Brisvale Metal - ' | head -n 1)
  xdotool windowfocus --sync "$window" 2>/dev/null || true
  for i in $(seq 1 "$moves"); do
    if [ $((i % 2)) -eq 1 ]; then xdotool key Right; else xdotool key Left; fi
    sleep 0.4
  done
  # SDL turns SIGTERM into a quit request: the player ends cleanly.
  kill -TERM "$pid" 2>/dev/null || true
  wait "$pid" || true
  echo "-- $name: edit of $file to its first frame, ms: $(sed -n 's/^Reloaded .* in \([0-9]*\) ms.*/\1/p' "$err" | summary)"
  grep '^Reloaded ' "$err" | tail -n 1 | sed 's/^/   last: /'
  if [ "$moves" -gt 0 ]; then
    echo "-- $name: key to the first frame at the new time, ms: $(sed -n 's/.*key to frame \([0-9.]*\) ms.*/\1/p' "$err" | summary)"
    echo "   display ticks between them: $(sed -n 's/.*ms, \([0-9]*\) display tick.*/\1/p' "$err" | sort -n | uniq -c | awk '{ printf "%s%s x %s", sep, $2, $1; sep = ", " }')"
  fi
}

measure "small shader" "$work/small" shaders/phases.glsl \
  "outColour = vec4(1.0, 1.0, 0.0, 1.0);" "outColour = vec4(1.0, 1.0, 0.0@, 1.0);" 12
measure "default show" "$work/default" shaders/main.glsl \
  "clamp(picture + dither, 0.0, 1.0)" "clamp(picture * 1.0@ + dither, 0.0, 1.0)" 12 --start 30
