#!/usr/bin/env bash
# Makes the frames and streams that the GStreamer tests decode, from corpus frames:
#   make_streams.sh CORPUS_DIR OUT_DIR
# Without the corpus or ffmpeg it says so and makes nothing; tests that need a missing file skip.
set -euo pipefail
corpus=$1
out=$2
[ -d "$corpus/webcam-480p" ] || { echo "corpus absent ($corpus): no streams made"; exit 0; }
command -v ffmpeg >/dev/null || { echo "ffmpeg missing: no streams made"; exit 0; }
mkdir -p "$out"
ff() { ffmpeg -nostdin -v error -y "$@"; }
frame="$corpus/webcam-480p/again-00.jpg"

# 4:2:0 at an odd size, as FFmpeg writes it (luma 2x2).
ff -i "$frame" -vf scale=641:481 -pix_fmt yuvj420p -q:v 3 "$out/odd-641x481.jpg"
# FFmpeg's 4:2:2 (luma 2x2, chroma 1x2): only the TurboJPEG path takes it.
ff -i "$frame" -pix_fmt yuvj422p -q:v 3 "$out/ffmpeg-422.jpg"

# A header that claims 65535 x 65535 for a frame of 288 bytes.
tiny="$corpus/reftest/jpg-size-1x1.jpg"
if [ -f "$tiny" ]; then
  sof=$(LC_ALL=C grep -obUaP '\xFF\xC0' "$tiny" | head -n1 | cut -d: -f1)
  cp "$tiny" "$out/huge-header.jpg"
  printf '\xFF\xFF\xFF\xFF' | dd of="$out/huge-header.jpg" bs=1 seek=$((sof + 5)) conv=notrunc status=none
fi

# A raw MJPEG stream (frames back to back) and an AVI of the 480p frames.
cat "$corpus/webcam-480p"/*.jpg >"$out/webcam-480p.mjpeg"
ff -f mjpeg -framerate 30 -i "$out/webcam-480p.mjpeg" -c:v copy "$out/webcam-480p.avi"
echo "streams made in $out"
