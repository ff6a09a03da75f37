#!/usr/bin/env bash
# Makes the frames and streams that the GStreamer tests and the benchmark decode, from corpus
# frames:
#   make_streams.sh CORPUS_DIR OUT_DIR
# Without the corpus, ffmpeg or cjpeg it says so and makes nothing; tests that need a missing
# file skip.
set -euo pipefail
corpus=$1
out=$2
if [ ! -d "$corpus/webcam-480p" ] || [ ! -d "$corpus/webcam-720p" ]; then
  echo "corpus absent ($corpus): no streams made"
  exit 0
fi
for tool in ffmpeg cjpeg; do
  if ! command -v "$tool" >/dev/null; then
    echo "$tool missing: no streams made"
    exit 0
  fi
done
mkdir -p "$out"
ff() { ffmpeg -nostdin -v error -y "$@"; }
frame="$corpus/webcam-480p/again-00.jpg"

# 4:2:0 at an odd size, as FFmpeg writes it (luma 2x2).
ff -i "$frame" -vf scale=641:481 -pix_fmt yuvj420p -q:v 3 "$out/odd-641x481.jpg"
# FFmpeg's 4:2:2 (luma 2x2, chroma 1x2): only the TurboJPEG path takes it.
ff -i "$frame" -pix_fmt yuvj422p -q:v 3 "$out/ffmpeg-422.jpg"
# 4:2:0 as libjpeg writes it.
ff -i "$frame" "$out/frame.ppm"
cjpeg -sample 2x2 -quality 85 "$out/frame.ppm" >"$out/cjpeg-420.jpg"
rm "$out/frame.ppm"

# A header that claims 65535 x 65535 for a frame of 288 bytes.
tiny="$corpus/reftest/jpg-size-1x1.jpg"
if [ -f "$tiny" ]; then
  sof=$(LC_ALL=C grep -obUaP '\xFF\xC0' "$tiny" | head -n1 | cut -d: -f1)
  cp "$tiny" "$out/huge-header.jpg"
  printf '\xFF\xFF\xFF\xFF' | dd of="$out/huge-header.jpg" bs=1 seek=$((sof + 5)) conv=notrunc status=none
fi

# Raw MJPEG streams (frames back to back) and an AVI of the 480p frames.
for size in 480p 720p; do
  cat "$corpus/webcam-$size"/*.jpg >"$out/webcam-$size.mjpeg"
done
ff -f mjpeg -framerate 30 -i "$out/webcam-480p.mjpeg" -c:v copy "$out/webcam-480p.avi"
echo "streams made in $out"
