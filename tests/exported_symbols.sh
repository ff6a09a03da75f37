#!/usr/bin/env bash
# The shared library exports exactly its public interface: the entry points, the plane
# functions, the globals, the default DHT segment, the MCU kernel, the public operations of
# the two decoder classes, the frame report and header reader, the stream splitter, and the C
# interface. Anything else that leaks out fails this test.
set -euo pipefail
library="$1"
exported=$(nm -D --defined-only "$library" | awk '$2 ~ /^[TDRBVW]$/ {print $3}' | c++filt | sort -u)

allowed='^(vidra::jpeg::(decompressMJPEG|getJPEGImageSize|setForceJPEGTurboDecoder|adaptStrides|resample444To420|resample422To420|interpolateRange|decodeFrame|readFrameHeader|refusalReasonText|automaticDecoder|vectorLevel|frameSizePlausible|findFrame)\(.*\)|vidra::jpeg::(g_force_use_jt_decoder|g_cpu_info_|kMJPGDHTSeg)|vidra::jpeg::SimpleJPEGDecoder::.*|vidra::jpeg::JTDecoder::.*|vidra::jpeg::(MJPEGSplitter|MJPEGStreamSplitter)::.*|decode_mcu_span_sse2_64|vidra_mjpeg_(frame_size_plausible|automatic_decoder|vector_level|version|i420_size|options_init|read_header|decode|reason_text|status_name|set_log_level|set_log_sink|set_force_turbo)|vidra_mjpeg_splitter_(find|new|free|feed|finish|next|pending_junk|total_junk)|_init|_fini|_edata|_end|__bss_start)$'
required=(
  'vidra::jpeg::decompressMJPEG('
  'vidra::jpeg::getJPEGImageSize('
  'vidra::jpeg::setForceJPEGTurboDecoder('
  'vidra::jpeg::adaptStrides('
  'vidra::jpeg::resample444To420('
  'vidra::jpeg::resample422To420('
  'vidra::jpeg::interpolateRange('
  'vidra::jpeg::g_force_use_jt_decoder'
  'vidra::jpeg::g_cpu_info_'
  'vidra::jpeg::kMJPGDHTSeg'
  'vidra::jpeg::SimpleJPEGDecoder::kMinValidMCUs'
  'vidra::jpeg::SimpleJPEGDecoder::decompress('
  'vidra::jpeg::JTDecoder::decompress('
  'decode_mcu_span_sse2_64'
  'vidra::jpeg::decodeFrame('
  'vidra::jpeg::readFrameHeader('
  'vidra::jpeg::refusalReasonText('
  'vidra::jpeg::automaticDecoder('
  'vidra_mjpeg_automatic_decoder'
  'vidra_mjpeg_version'
  'vidra_mjpeg_i420_size'
  'vidra_mjpeg_options_init'
  'vidra_mjpeg_read_header'
  'vidra_mjpeg_decode'
  'vidra_mjpeg_reason_text'
  'vidra_mjpeg_status_name'
  'vidra_mjpeg_set_log_level'
  'vidra_mjpeg_set_log_sink'
  'vidra_mjpeg_set_force_turbo'
  'vidra::jpeg::findFrame('
  'vidra::jpeg::MJPEGSplitter::next('
  'vidra::jpeg::MJPEGStreamSplitter::next('
  'vidra_mjpeg_splitter_find'
  'vidra_mjpeg_splitter_next'
)

status=0
unexpected=$(grep -v -E "$allowed" <<<"$exported" || true)
if [ -n "$unexpected" ]; then
  echo "unexpected exports:"; echo "$unexpected"; status=1
fi
for name in "${required[@]}"; do
  if ! grep -q -F "$name" <<<"$exported"; then echo "missing export: $name"; status=1; fi
done
[ $status -eq 0 ] && echo "exports ok ($(wc -l <<<"$exported") symbols)"
exit $status
