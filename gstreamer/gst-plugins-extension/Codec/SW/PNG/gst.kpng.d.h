// The PNG decoder element kalpng_dec: PNG bytes in ("image/png"), raw video frames out, RGBA
// unless downstream asks for another format.
#pragma once

#include <gst/gst.h>
#include <gst/video/video.h>

#include "kpng.h"

#define GST_TYPE_KALPNG_DEC (gst_kalpng_dec_get_type())
#define GST_KALPNG_DEC(obj) (G_TYPE_CHECK_INSTANCE_CAST((obj), GST_TYPE_KALPNG_DEC, GstKalPngDec))
#define GST_IS_KALPNG_DEC(obj) (G_TYPE_CHECK_INSTANCE_TYPE((obj), GST_TYPE_KALPNG_DEC))

struct GstKalPngDec {
    GstElement element;

    GstPad* sinkpad;
    GstPad* srcpad;

    // Collects the PNG bytes; constructed on READY to PAUSED, destroyed on PAUSED to READY.
    kpng::Input input;
    GstSegment* segment;

    // Frame rate of the sink caps; a "framerate" field there means one PNG per frame.
    gint32 fps_n;
    gint32 fps_d;
    gboolean packetized;
    GstClockTime next_ts;

    // What the caps last set on the source pad said.
    gint32 last_fps_n;
    gint32 last_fps_d;
    gint32 last_width;
    gint32 last_height;

    // A segment that arrived before the source pad had caps; it follows the first caps.
    GstEvent* held_segment;

    // Output buffers of the current caps, agreed with downstream; null until the first frame.
    GstBufferPool* pool;

    // The segment sent downstream: always in time, even when upstream's is not.
    GstSegment out_segment;
    // Pixel aspect ratio in the caps last set.
    gint32 last_par_n;
    gint32 last_par_d;
    // The output format chosen with downstream, and the layout of the caps last set.
    GstVideoFormat last_format;
    GstVideoInfo out_info;

    // Properties, under the object lock.
    gint max_errors;
    gboolean qos;
    guint64 max_frame_bytes;

    // Failed PNGs in a row; a failure that ended the stream leaves its PNG held and this set.
    gint errors;
    gboolean failed;

    // Running time before which a frame is too late to be worth decoding, from downstream's QoS
    // events (under the object lock); frames decoded and skipped since READY to PAUSED.
    GstClockTime earliest_time;
    guint64 processed;
    guint64 dropped;
};

struct GstKalPngDecClass {
    GstElementClass parent_class;
};

G_BEGIN_DECLS
GType gst_kalpng_dec_get_type(void);
G_END_DECLS
