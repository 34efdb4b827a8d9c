#!/usr/bin/env bash
# Compiles every public header on its own, as a host would include it: with
# g++ here, and with the Windows cross compiler after <winsock2.h> and
# <windows.h>, where a name of ours that the system also declares is an error.
# A public header must also reach nothing of src/.
set -euo pipefail
root="$(cd "$(dirname "$0")/.." && pwd)"
flags=(-std=c++20 -Wall -Wextra -Werror -I"$root/include")
mingw=x86_64-w64-mingw32-g++-posix
work="$(mktemp -d)"
trap 'rm -rf "$work"' EXIT

# The system headers once, precompiled; each header's check then takes a
# fraction of a second.
printf '#include <winsock2.h>\n#include <windows.h>\n' >"$work/windows.h"
"$mingw" "${flags[@]}" -x c++-header "$work/windows.h" -o "$work/windows.h.gch"

pids=()
names=()
for header in "$root"/include/vxproxy/*.h; do
  base="$(basename "$header" .h)"
  name="vxproxy/$base.h"
  printf '#include "%s"\n' "$name" >"$work/$base.linux.cpp"
  printf '#include "windows.h"\n#include "%s"\n' "$name" >"$work/$base.windows.cpp"
  g++ "${flags[@]}" -fsyntax-only "$work/$base.linux.cpp" &
  pids+=($!) names+=("$name with g++")
  "$mingw" "${flags[@]}" -fsyntax-only "$work/$base.windows.cpp" &
  pids+=($!) names+=("$name after windows.h")
done
failed=0
for i in "${!pids[@]}"; do
  wait "${pids[$i]}" || { echo "headers: ${names[$i]} does not compile"; failed=1; }
done
if grep -nE '#include "(platform|core|client|http|filter|probe|stats|log|foundation|resources)/' \
    "$root"/include/vxproxy/*.h; then
  echo "headers: a public header includes the module's sources"
  failed=1
fi
[ "$failed" -eq 0 ] && echo "headers: ${#names[@]} checks of $(ls "$root"/include/vxproxy/*.h | wc -l) public headers passed (g++, $mingw)"
exit "$failed"
