#!/usr/bin/env bash
# The decoder's log lines carry the source line of their site, so a line added or removed above
# a JPEG_CHECK, VIDRA_LOG or VIDRA_CHECK changes what the decoder logs. This compares every site
# with tests/log_sites.txt; after a deliberate change, write that file anew with
#   tests/log_sites.sh --write
set -euo pipefail
root="$(cd "$(dirname "$0")/.." && pwd)"
cd "$root"
sites() { grep -nE 'JPEG_CHECK|VIDRA_LOG|VIDRA_CHECK' video-codec/mjpeg/*.cc /dev/null | grep -v '^/dev'; }
if [ "${1:-}" = "--write" ]; then
  sites >tests/log_sites.txt
  exit 0
fi
diff -u tests/log_sites.txt <(sites) || {
  echo "a decoder log site moved or changed (see tests/log_sites.sh)" >&2
  exit 1
}
