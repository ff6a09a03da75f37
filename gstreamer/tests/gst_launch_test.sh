#!/usr/bin/env bash
# vidramjpegdec in gst-launch-1.0 pipelines, on streams that make_streams.sh made:
#   gst_launch_test.sh STREAMS_DIR CORPUS_DIR
# Exits 77 (skipped) when the streams are absent.
set -euo pipefail
streams=$1
corpus=$2
if [ ! -f "$streams/webcam-480p.avi" ]; then
  echo "streams absent (no corpus, ffmpeg or cjpeg): skipped"
  exit 77
fi
unset GST_DEBUG
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT

# Runs the pipeline into a fakesink and checks how many buffers reached it.
expect_frames() {
  local name=$1 expected=$2 frames
  shift 2
  frames=$(gst-launch-1.0 -v "$@" ! fakesink silent=false 2>"$work/stderr" |
    grep -c 'last-message = chain' || true)
  if [ "$frames" != "$expected" ]; then
    echo "FAIL $name: $frames frames, expected $expected"
    cat "$work/stderr"
    exit 1
  fi
  echo "ok   $name: $frames frames"
}

expect_frames "AVI through avidemux" 12 \
  filesrc location="$streams/webcam-480p.avi" ! avidemux ! vidramjpegdec
expect_frames "raw MJPEG without a parser" 12 \
  filesrc location="$streams/webcam-480p.mjpeg" ! vidramjpegdec

# A frame that the library refuses is dropped; its reason goes to the debug log, not stderr.
cat "$corpus/webcam-480p/again-00.jpg" "$corpus/reftest/jpg-gray.jpg" \
  "$corpus/webcam-480p/again-01.jpg" >"$work/refused.mjpeg"
expect_frames "a refused frame between two good ones" 2 \
  filesrc location="$work/refused.mjpeg" ! vidramjpegdec fallback=false
if [ -s "$work/stderr" ]; then
  echo "FAIL: the refusal reached stderr:"
  cat "$work/stderr"
  exit 1
fi
