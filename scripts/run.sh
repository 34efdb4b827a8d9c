#!/usr/bin/env bash
# Builds the proxy and runs it on 127.0.0.1:7070 (or the port in the data
# folder's vexilo.ini). Ctrl-C stops it. The folders are the program's own
# defaults (~/.local/share/vxproxy for settings and filters.txt, where the
# first run installs the bundled starter list, ~/.local/state/vxproxy for the
# logs); with VXPROXY_DATA set everything goes to that folder instead.
# Extra arguments go to "vxproxy run", e.g. --upstream HOST:PORT or --trace.
set -euo pipefail
root="$(cd "$(dirname "$0")/.." && pwd)"
"$root/scripts/deps.sh"
"$root/scripts/build.sh" release --target vxproxy vxproxy_module >/dev/null
if [ -n "${VXPROXY_DATA:-}" ]; then
  echo "data and logs in $VXPROXY_DATA"
  exec "$root/build/release/vxproxy" run --data "$VXPROXY_DATA" "$@"
fi
exec "$root/build/release/vxproxy" run "$@"
