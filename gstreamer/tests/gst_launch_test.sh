#!/usr/bin/env bash
# vidramjpegdec in gst-launch-1.0 pipelines, on streams that make_streams.sh made:
#   gst_launch_test.sh STREAMS_DIR CORPUS_DIR
# Exits 77 (skipped) when the streams are absent.
set -euo pipefail
streams=$1
corpus=$2
[ -f "$streams/webcam-480p.avi" ] ||
  { echo "streams absent (no corpus or ffmpeg): skipped"; exit 77; }
unset GST_DEBUG
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT

# Buffers that reach a fakesink at the end of the pipeline.
count_frames() {
  gst-launch-1.0 -v "$@" ! fakesink silent=false 2>"$work/stderr" |
    grep -c 'last-message = chain' || true
}

check() {
  if ! eval "[ $2 ]"; then
    echo "FAIL $1 ($2)"
    cat "$work/stderr"
    exit 1
  fi
  echo "ok   $1 ($2)"
}

frames=$(count_frames filesrc location="$streams/webcam-480p.avi" ! avidemux ! vidramjpegdec)
check "AVI through avidemux" "$frames -eq 12"
frames=$(count_frames filesrc location="$streams/webcam-480p.mjpeg" ! vidramjpegdec)
check "raw MJPEG without a parser" "$frames -eq 12"

# Frames that the library refuses or can't show are dropped between good ones, and its
# reasons go to the debug log, not stderr: a grey frame (refused by the own decoder without the
# fallback; TurboJPEG decodes it) and a cut one (too damaged, or refused by TurboJPEG).
cat "$corpus/webcam-480p/again-00.jpg" "$corpus/reftest/jpg-gray.jpg" \
  "$corpus/damaged/trunc-again-00.jpg" "$corpus/webcam-480p/again-01.jpg" >"$work/bad.mjpeg"
frames=$(count_frames filesrc location="$work/bad.mjpeg" ! vidramjpegdec fallback=false)
check "bad frames between good ones" "$frames -ge 2 -a $frames -le 3 -a ! -s $work/stderr"
