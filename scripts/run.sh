#!/usr/bin/env bash
# Builds the proxy and runs it on 127.0.0.1:7070 (or the port in the data
# folder's vexilo.ini) with the bundled starter filter list. Ctrl-C stops it.
# Extra arguments go to "vxproxy run", e.g. --upstream HOST:PORT or --trace.
set -euo pipefail
root="$(cd "$(dirname "$0")/.." && pwd)"
"$root/scripts/deps.sh"
"$root/scripts/build.sh" release --target vxproxy vxproxy_module >/dev/null
data="${VXPROXY_DATA:-${XDG_STATE_HOME:-$HOME/.local/state}/vxproxy}"
mkdir -p "$data"
echo "data and logs in $data"
exec "$root/build/release/vxproxy" run --data "$data" --filters "$root/data/default" "$@"
