#!/usr/bin/env bash
# check-install.sh BUILD_DIR SOURCE_DIR: installs the build into a scratch prefix with
# `cmake --install` and checks what a show's author finds there: exactly the expected files,
# every program runnable, a manual page per program that carries every option of its --help,
# a desktop entry and a show file type that agree, the show and the shader interface.
set -euo pipefail
build=$1
src=$2
prefix=$(mktemp -d)
trap 'rm -rf "$prefix"' EXIT
failures=0
fail() { echo "check-install: $*" >&2; failures=$((failures + 1)); }

cmake --install "$build" --prefix "$prefix" >/dev/null

programs=(brisvale brisvale-pack brisvale-capture brisvale-play)
expected=(share/applications/brisvale.desktop share/brisvale/demo.dat share/doc/brisvale/shader-interface.md
          share/doc/brisvale/frame.glsl share/mime/packages/brisvale.xml)
for program in "${programs[@]}"; do expected+=("bin/$program" "share/man/man1/$program.1"); done
installed=$(cd "$prefix" && find . -type f -printf '%P\n' | sort)
wanted=$(printf '%s\n' "${expected[@]}" | sort)
[ "$installed" = "$wanted" ] || fail "installed files differ from the expected ones:
$(diff <(echo "$wanted") <(echo "$installed") || true)"

# [programs and manual pages]
for program in "${programs[@]}"; do
  page="$prefix/share/man/man1/$program.1"
  help=$("$prefix/bin/$program" --help) || fail "$program --help failed"
  [ -s "$page" ] || { fail "no manual page for $program"; continue; }
  grep -q '^\.SH SYNOPSIS' "$page" || fail "$program.1 has no synopsis: --help lacks its usage line"
  grep -q '^\.SH DESCRIPTION' "$page" || fail "$program.1 has no description"
  # Every long option --help lists is in the page (help2man writes "--" as "\-\-").
  for option in $(grep -oE '^  (-[a-z], )?--[a-z][a-z-]*' <<<"$help" | grep -oE -- '--[a-z][a-z-]*'); do
    grep -qF -- "${option//-/\\-}" "$page" || fail "$program.1 lacks $option"
  done
done
version=$("$prefix/bin/brisvale" --version)
grep -qF "\"$version\"" "$prefix/share/man/man1/brisvale.1" || fail "brisvale.1 is not of '$version'"

# [the show and the documents]
[ "$(head -c 4 "$prefix/share/brisvale/demo.dat")" = BDAT ] || fail "share/brisvale/demo.dat is no show file"
cmp -s "$src/docs/shader-interface.md" "$prefix/share/doc/brisvale/shader-interface.md" \
  || fail "share/doc/brisvale/shader-interface.md differs from docs/shader-interface.md"
cmp -s "$src/show/shaders/lib/frame.glsl" "$prefix/share/doc/brisvale/frame.glsl" \
  || fail "share/doc/brisvale/frame.glsl differs from show/shaders/lib/frame.glsl"

# [desktop entry and show file type]
desktop="$prefix/share/applications/brisvale.desktop"
grep -qx 'Exec=brisvale %f' "$desktop" || fail "the desktop entry does not open a file with the player"
type=$(sed -n 's/.*<mime-type type="\([^"]*\)".*/\1/p' "$prefix/share/mime/packages/brisvale.xml")
grep -qx "MimeType=$type;" "$desktop" || fail "the desktop entry does not open '$type'"
# The file type as the desktop's database reads it: known by its magic, "BDAT" at offset 0.
update-mime-database "$prefix/share/mime" || fail "update-mime-database refused brisvale.xml"
[ -f "$prefix/share/mime/$type.xml" ] || fail "update-mime-database did not take '$type'"
grep -qa 'BDAT' "$prefix/share/mime/magic" || fail "the show file type has no BDAT magic"

[ "$failures" -eq 0 ] || exit 1
echo "install layout: ${#expected[@]} files, as expected"
