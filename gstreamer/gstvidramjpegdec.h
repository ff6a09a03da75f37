// vidramjpegdec: decodes (M)JPEG frames to I420 with the vidra-mjpeg library, concealing
// damaged restart spans and flagging the frames that needed it.
#pragma once

#include <gst/gst.h>
#include <gst/video/gstvideodecoder.h>
#include <gst/video/video.h>

G_BEGIN_DECLS

#define GST_TYPE_VIDRA_MJPEG_DEC (gst_vidra_mjpeg_dec_get_type())
G_DECLARE_FINAL_TYPE(GstVidraMjpegDec, gst_vidra_mjpeg_dec, GST, VIDRA_MJPEG_DEC, GstVideoDecoder)

// A custom meta (gst_buffer_get_custom_meta()) on every frame that went out damaged: a
// structure of that name with "status" ("concealed" or "failed"), "total-mcus", "valid-mcus"
// (ints) and "path" ("own", "turbo", "turbo-fallback").
#define GST_VIDRA_MJPEG_DEC_META_NAME "VidraMjpegDecodeMeta"

GST_ELEMENT_REGISTER_DECLARE(vidramjpegdec);
GST_DEBUG_CATEGORY_EXTERN(gst_vidra_mjpeg_dec_debug);

G_END_DECLS
