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
  'vidra::jpeg::'{decompressMJPEG,getJPEGImageSize,setForceJPEGTurboDecoder,adaptStrides}'('
  'vidra::jpeg::'{resample444To420,resample422To420,interpolateRange,decodeFrame}'('
  'vidra::jpeg::'{readFrameHeader,refusalReasonText,automaticDecoder,findFrame}'('
  'vidra::jpeg::'{g_force_use_jt_decoder,g_cpu_info_,kMJPGDHTSeg,SimpleJPEGDecoder::kMinValidMCUs}
  'vidra::jpeg::'{SimpleJPEGDecoder,JTDecoder}'::decompress(' decode_mcu_span_sse2_64
  'vidra::jpeg::'{MJPEGSplitter,MJPEGStreamSplitter}'::next('
  vidra_mjpeg_{automatic_decoder,version,i420_size,options_init,read_header,decode,reason_text}
  vidra_mjpeg_{status_name,set_log_level,set_log_sink,set_force_turbo,splitter_find,splitter_next}
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
