#!/usr/bin/env bash
# The default show's shader cost per pixel in each phase (intro, middle, finale) on lavapipe,
# single-threaded, against the same show packed with an older commit's shaders. Prints
# render_show_cost's table: ns per pixel net of a plain show, the cost of one 1920 x 1080 frame,
# and how many times cheaper than the baseline (the goal is 3x or more in every phase).
# Usage: BUILD=build [BASELINE=<commit>] bash bench/render/show_cost.sh [benchmark flags]
# BASELINE defaults to the last commit before the shaders were made cheaper; BASELINE=none
# measures the current show alone.
set -euo pipefail
build=${BUILD:-build}
baseline=${BASELINE:-c289481}
bench="$build/bench/render/render_show_cost"
stage="$build/show/stage"
pack="$build/tools/pack/brisvale-pack"
if [ ! -x "$bench" ] || [ ! -d "$stage" ] || [ ! -x "$pack" ]; then
  echo "show_cost: $bench, $stage or $pack is not built; skipped"
  exit 0
fi

work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
baselineShow=
if [ "$baseline" != none ] && git cat-file -e "$baseline^{commit}" 2>/dev/null; then
  # The built show's stage (images, music, manifests) with the older commit's shaders.
  cp -r "$stage" "$work/stage"
  rm -rf "$work/stage/shaders"
  git archive "$baseline" show/shaders | tar -x -C "$work"
  mv "$work/show/shaders" "$work/stage/shaders"
  "$pack" -o "$work/baseline.dat" "$work/stage" >/dev/null
  baselineShow="$work/baseline.dat"
  echo "show_cost: baseline is show/shaders at $baseline"
elif [ "$baseline" != none ]; then
  echo "show_cost: commit $baseline not found; measuring the current show alone"
fi

BRISVALE_BENCH_BASELINE_SHOW="$baselineShow" LP_NUM_THREADS=0 \
  VK_ICD_FILENAMES=/usr/share/vulkan/icd.d/lvp_icd.x86_64.json \
  VK_DRIVER_FILES=/usr/share/vulkan/icd.d/lvp_icd.x86_64.json \
  "$bench" "$@"
