#!/usr/bin/env bash
# Frames per second of MJPEG decoders in GStreamer pipelines, on streams made from corpus frames:
#
#   filesrc ! jpegparse ! {vidramjpegdec | jpegdec | avdec_mjpeg} ! fakesink sync=false
#
# and vidramjpegdec on the raw stream without jpegparse (its own splitter). Each pipeline runs
# RUNS times; the best run counts. Ratios are against jpegdec.
#
#   gstreamer/bench/gst_bench.sh [BUILD_DIR] [REPEAT] [RUNS]
#     BUILD_DIR  build tree with the plugin (default build/default)
#     REPEAT     each stream is the folder's frames REPEAT times over (default 40)
#     RUNS       runs per pipeline (default 3)
#
# Needs gstreamer1.0-tools, -plugins-good (jpegdec), -plugins-bad (jpegparse), -libav.
set -euo pipefail
root="$(cd "$(dirname "$0")/../.." && pwd)"
build="$(cd "${1:-$root/build/default}" && pwd)"
repeat=${2:-40}
runs=${3:-3}
corpus="$root/../shared/corpus"
if [ ! -d "$corpus/webcam-480p" ]; then
  echo "corpus absent ($corpus): nothing to measure" >&2
  exit 1
fi
export GST_PLUGIN_PATH_1_0="$build/gstreamer"
export GST_REGISTRY_1_0="$build/gstreamer/bench-registry.bin"
unset GST_DEBUG
gst-inspect-1.0 vidramjpegdec >/dev/null
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT

# Seconds from PLAYING to EOS, as gst-launch-1.0 reports them ("Execution ended after 0:00:01.2").
run_seconds() {
  gst-launch-1.0 "$@" ! fakesink sync=false 2>&1 |
    sed -n 's/^Execution ended after \([0-9]*\):\([0-9]*\):\([0-9.]*\)$/\1 \2 \3/p' |
    awk '{ printf "%.6f\n", $1 * 3600 + $2 * 60 + $3 }'
}

best_seconds() {
  local best="" t
  for _ in $(seq "$runs"); do
    t=$(run_seconds "$@")
    [ -n "$t" ] || { echo "pipeline failed: $*" >&2; exit 1; }
    if [ -z "$best" ] || awk -v a="$t" -v b="$best" 'BEGIN { exit !(a < b) }'; then best=$t; fi
  done
  echo "$best"
}

printf '%-12s %-30s %8s %10s %9s\n' stream decoder frames frames/s "x jpegdec"
for folder in webcam-480p webcam-720p; do
  stream="$work/$folder.mjpeg"
  frames=0
  for _ in $(seq "$repeat"); do
    for frame in "$corpus/$folder"/*.jpg; do
      cat "$frame" >>"$stream"
      frames=$((frames + 1))
    done
  done
  declare -A fps=()
  for decoder in jpegdec vidramjpegdec avdec_mjpeg "vidramjpegdec (no jpegparse)"; do
    if [ "$decoder" = "vidramjpegdec (no jpegparse)" ]; then
      t=$(best_seconds filesrc location="$stream" ! vidramjpegdec)
    else
      t=$(best_seconds filesrc location="$stream" ! jpegparse ! $decoder)
    fi
    fps[$decoder]=$(awk -v n="$frames" -v t="$t" 'BEGIN { printf "%.1f", n / t }')
    printf '%-12s %-30s %8d %10s %9s\n' "$folder" "$decoder" "$frames" "${fps[$decoder]}" \
      "$(awk -v a="${fps[$decoder]}" -v b="${fps[jpegdec]}" 'BEGIN { printf "%.2f", a / b }')"
  done
  unset fps
done
