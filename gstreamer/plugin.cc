// The vidramjpeg plugin: the vidramjpegdec element, its damage meta, and the library's log in
// GStreamer's debug system.

#include <gst/gst.h>

#include "gstvidramjpegdec.h"
#include "vidra/log.h"

namespace {

// The library's levels: 1 a broken invariant, 2 why a frame failed, 3 an unhandled marker,
// higher for detail.
GstDebugLevel gstLevel(int level) {
  if (level <= 1) return GST_LEVEL_WARNING;
  if (level == 2) return GST_LEVEL_INFO;
  if (level == 3) return GST_LEVEL_DEBUG;
  return GST_LEVEL_LOG;
}

// Runs on the decoding thread, under the logging library's lock.
void logToGst(void*, int level, const char* channel, const char* file, int line, const char* text) {
  const GstDebugLevel gst_level = gstLevel(level);
  if (gst_level > gst_debug_category_get_threshold(gst_vidra_mjpeg_dec_debug)) return;
  gst_debug_log(gst_vidra_mjpeg_dec_debug, gst_level, file, channel, line, nullptr, "%s", text);
}

gboolean pluginInit(GstPlugin* plugin) {
  GST_DEBUG_CATEGORY_INIT(gst_vidra_mjpeg_dec_debug, "vidramjpegdec", 0,
                          "vidra-mjpeg decoder, and the library's log");
  // The library's log sink is one for the whole process. The plugin takes it when it is loaded
  // (at the first vidramjpegdec of a process), unless the application set one before: refusals
  // then go to the "vidramjpegdec" category instead of stderr.
  vidra::setLogSinkIfUnset(logToGst, nullptr);
  static const gchar* no_tags[] = {nullptr};
  gst_meta_register_custom(GST_VIDRA_MJPEG_DEC_META_NAME, no_tags, nullptr, nullptr, nullptr);
  return GST_ELEMENT_REGISTER(vidramjpegdec, plugin);
}

}  // namespace

#define PACKAGE "vidra-mjpeg"
GST_PLUGIN_DEFINE(GST_VERSION_MAJOR, GST_VERSION_MINOR, vidramjpeg,
                  "MJPEG decoding with the vidra-mjpeg library", pluginInit, VIDRA_MJPEG_VERSION,
                  "unknown", PACKAGE, PACKAGE)
