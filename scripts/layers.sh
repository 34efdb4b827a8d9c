#!/usr/bin/env bash
# Prints which layer includes which (one "from -> to  (files)" line per pair,
# counted over the quoted includes of src/<layer>/, host/ and include/vxproxy/)
# and fails when the layers depend on each other in a cycle.
#
#   scripts/layers.sh          the graph, then "no cycle" or the cycle
#   scripts/layers.sh --check  only the verdict (for the test command)
set -euo pipefail
root="$(cd "$(dirname "$0")/.." && pwd)"
cd "$root"

layer_of_file() {
  case "$1" in
    src/*) echo "$1" | cut -d/ -f2 ;;
    host/*) echo host ;;
    include/vxproxy/*) echo public ;;
  esac
}

layer_of_include() {
  case "$1" in
    vxproxy/*) echo public ;;
    */*) echo "$1" | cut -d/ -f1 ;;
    *) echo "" ;;  # a file beside the includer
  esac
}

edges="$(
  find src host include/vxproxy -type f \( -name '*.cpp' -o -name '*.h' \) | sort |
    while read -r file; do
      from="$(layer_of_file "$file")"
      grep -oE '^#include "[^"]+"' "$file" | sed -E 's/^#include "([^"]+)"/\1/' |
        while read -r included; do
          to="$(layer_of_include "$included")"
          if [ -n "$to" ] && [ "$to" != "$from" ]; then echo "$from $to $file"; fi
        done
    done
)"

if [ "${1:-}" != "--check" ]; then
  echo "$edges" | awk 'NF { n[$1 " -> " $2]++ } END { for (e in n) printf "%-28s (%d files)\n", e, n[e] }' | sort
fi

# tsort names the members of a loop on stderr and exits non-zero.
if loop="$(echo "$edges" | awk 'NF { print $1, $2 }' | sort -u | tsort 2>&1 >/dev/null)"; then
  echo "layers: no cycle"
else
  echo "layers: cycle between layers:"
  echo "$loop" | sed 's/^tsort: /  /'
  exit 1
fi
