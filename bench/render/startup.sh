#!/usr/bin/env bash
# Start-up of the default show on lavapipe, from main to the first frame finished at 1920 x 1080:
# a first start with empty caches (the pipeline cache and Mesa's own shader cache), a second
# start with what the first left, and a second start with Mesa's cache off (the pipeline cache
# alone). The goal is 1.0 s or less on the first start.
# Usage: BUILD=build bash bench/render/startup.sh [render_startup flags]
set -euo pipefail
build=${BUILD:-build}
bench="$build/bench/render/render_startup"
if [ ! -x "$bench" ]; then
  echo "startup: $bench is not built; skipped"
  exit 0
fi

work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
export VK_ICD_FILENAMES=/usr/share/vulkan/icd.d/lvp_icd.x86_64.json
export VK_DRIVER_FILES=/usr/share/vulkan/icd.d/lvp_icd.x86_64.json
export MESA_SHADER_CACHE_DIR="$work/mesa"

echo "-- first start: no pipeline cache, Mesa's shader cache empty"
"$bench" --cache "$work/brisvale" "$@"
echo "-- second start: both caches of the first"
"$bench" --cache "$work/brisvale" "$@"
echo "-- second start: the pipeline cache alone (Mesa's cache off)"
MESA_SHADER_CACHE_DISABLE=true "$bench" --cache "$work/brisvale" "$@"
