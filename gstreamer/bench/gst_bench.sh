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
#     REPEAT     each stream is the folder's frames REPEAT times over (default 150: runs of a
#                second or more, since shorter ones are at the mercy of other processes)
#     RUNS       runs per pipeline, taking turns (default 3)
#
# Needs gstreamer1.0-tools, -plugins-good (jpegdec), -plugins-bad (jpegparse), -libav.
set -euo pipefail
root="$(cd "$(dirname "$0")/../.." && pwd)"
build="$(cd "${1:-$root/build/default}" && pwd)"
repeat=${2:-150}
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

decoders=(jpegdec vidramjpegdec avdec_mjpeg "vidramjpegdec, no jpegparse")
printf '%-12s %-28s %7s %9s %9s\n' stream decoder frames frames/s "x jpegdec"
for folder in webcam-480p webcam-720p; do
  stream="$work/$folder.mjpeg"
  frames=0
  for _ in $(seq "$repeat"); do
    for frame in "$corpus/$folder"/*.jpg; do
      cat "$frame" >>"$stream"
      frames=$((frames + 1))
    done
  done
  # Decoders take turns, run after run, so that a machine that gets busier or quieter meanwhile
  # favours none of them; each keeps its best run.
  declare -A best=()
  for _ in $(seq "$runs"); do
    for decoder in "${decoders[@]}"; do
      if [ "$decoder" = "vidramjpegdec, no jpegparse" ]; then
        t=$(run_seconds filesrc location="$stream" ! vidramjpegdec)
      else
        t=$(run_seconds filesrc location="$stream" ! jpegparse ! $decoder)
      fi
      [ -n "$t" ] || { echo "pipeline failed: $decoder" >&2; exit 1; }
      if [ -z "${best[$decoder]:-}" ] || awk -v a="$t" -v b="${best[$decoder]}" 'BEGIN { exit !(a < b) }'; then
        best[$decoder]=$t
      fi
    done
  done
  for decoder in "${decoders[@]}"; do
    printf '%-12s %-28s %7d %9.1f %9.2f\n' "$folder" "$decoder" "$frames" \
      "$(awk -v n="$frames" -v t="${best[$decoder]}" 'BEGIN { print n / t }')" \
      "$(awk -v a="${best[jpegdec]}" -v b="${best[$decoder]}" 'BEGIN { print a / b }')"
  done
  unset best
done
