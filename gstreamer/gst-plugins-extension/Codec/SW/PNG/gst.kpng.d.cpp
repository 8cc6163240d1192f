// kalpng_dec: collects PNG bytes that arrive in pieces, decodes each complete PNG with the
// system's own engine and pushes it as one RGBA video frame.
#include "gst.kpng.d.h"

#include <sys/mman.h>

#include <memory>

#include "CPNG.h"
#include "kau.h"
#include "mmstream.h"

namespace {

// Module text carried by the errors and reports of the element.
constexpr const char kElementFile[] =
    "middleware/multimedia-framework/media-service/gstreamer/gst-plugins-extension/Codec/SW/PNG/"
    "gst.kpng.d";

// Error positions of the element (all in kElementFile).
constexpr int kErrStreamNotReady = 131;
constexpr int kErrDecode = 132;
constexpr int kErrOutputBuffer = 166;
constexpr int kCatchChain = 236;

// Palette colours without a transparency entry come out opaque.
constexpr unsigned long kDefaultAlpha = 255;

}  // namespace

GST_DEBUG_CATEGORY_STATIC(kalpng_dec_debug);
#define GST_CAT_DEFAULT kalpng_dec_debug

static GstStaticPadTemplate sink_template =
    GST_STATIC_PAD_TEMPLATE("sink", GST_PAD_SINK, GST_PAD_ALWAYS, GST_STATIC_CAPS("image/png"));

// RGBA is the one format produced; RGB is advertised for compatibility only.
static GstStaticPadTemplate src_template = GST_STATIC_PAD_TEMPLATE(
    "src", GST_PAD_SRC, GST_PAD_ALWAYS,
    GST_STATIC_CAPS("video/x-raw, format = (string) RGBA, width = (int) [ 1, max ], "
                    "height = (int) [ 1, max ], framerate = (fraction) [ 0/1, max ]; "
                    "video/x-raw, format = (string) RGB, width = (int) [ 1, max ], "
                    "height = (int) [ 1, max ], framerate = (fraction) [ 0/1, max ]"));

static GstElementClass* parent_class = nullptr;

static gboolean gst_kalpng_dec_setcaps(GstPad* pad, GstCaps* caps);
static gboolean gst_kalpng_dec_sink_event(GstPad* pad, GstObject* parent, GstEvent* event);
static GstFlowReturn gst_kalpng_dec_chain(GstPad* pad, GstObject* parent, GstBuffer* buf);
static GstStateChangeReturn gst_kalpng_dec_change_state(GstElement* element,
                                                        GstStateChange transition);
static void gst_kalpng_dec_finalize(GObject* object);
static void gst_kalpng_dec_replace_pool(GstKalPngDec* dec, GstBufferPool* pool);
static void gst_kalpng_dec_set_pool_flushing(GstKalPngDec* dec, gboolean flushing);

// ---------------------------------------------------------------------------------------------
// Type, class and instance set-up

static void gst_kalpng_dec_base_init(gpointer klass) {
    GstElementClass* element_class = GST_ELEMENT_CLASS(klass);

    gst_element_class_add_static_pad_template(element_class, &sink_template);
    gst_element_class_add_static_pad_template(element_class, &src_template);
    gst_element_class_set_static_metadata(
        element_class, "Vorlane PNG Decoder", "Codec/Decoder/Image",
        "Decode a png video frame to a raw image", "Proprietary Decoder of Vorlane Electronics");
}

static void gst_kalpng_dec_class_init(gpointer klass, gpointer) {
    parent_class = GST_ELEMENT_CLASS(g_type_class_peek_parent(klass));

    G_OBJECT_CLASS(klass)->finalize = gst_kalpng_dec_finalize;
    GST_ELEMENT_CLASS(klass)->change_state = GST_DEBUG_FUNCPTR(gst_kalpng_dec_change_state);

    if (!kalpng_dec_debug) {
        GST_DEBUG_CATEGORY_INIT(kalpng_dec_debug, "kalpng_dec", 0, "Vorlane PNG Decoder");
    }
}

static void gst_kalpng_dec_init(GTypeInstance* instance, gpointer) {
    GstKalPngDec* dec = GST_KALPNG_DEC(instance);

    dec->sinkpad = gst_pad_new_from_static_template(&sink_template, "sink");
    gst_pad_set_chain_function(dec->sinkpad, GST_DEBUG_FUNCPTR(gst_kalpng_dec_chain));
    gst_pad_set_event_function(dec->sinkpad, GST_DEBUG_FUNCPTR(gst_kalpng_dec_sink_event));
    gst_element_add_pad(GST_ELEMENT(dec), dec->sinkpad);

    dec->srcpad = gst_pad_new_from_static_template(&src_template, "src");
    gst_pad_use_fixed_caps(dec->srcpad);
    gst_element_add_pad(GST_ELEMENT(dec), dec->srcpad);

    dec->segment = gst_segment_new();
}

static void gst_kalpng_dec_finalize(GObject* object) {
    GstKalPngDec* dec = GST_KALPNG_DEC(object);

    gst_event_replace(&dec->held_segment, nullptr);
    gst_kalpng_dec_replace_pool(dec, nullptr);
    gst_segment_free(dec->segment);

    G_OBJECT_CLASS(parent_class)->finalize(object);
}

GType gst_kalpng_dec_get_type(void) {
    static GType type = 0;
    if (!type) {
        static const GTypeInfo info = {
            sizeof(GstKalPngDecClass),
            gst_kalpng_dec_base_init,
            nullptr,
            gst_kalpng_dec_class_init,
            nullptr,
            nullptr,
            sizeof(GstKalPngDec),
            0,
            gst_kalpng_dec_init,
            nullptr,
        };
        type = g_type_register_static(GST_TYPE_ELEMENT, "GstKalPngDec", &info, GTypeFlags(0));
    }
    return type;
}

// ---------------------------------------------------------------------------------------------
// Sink caps and events

// A "framerate" in the sink caps means the PNGs are a sequence of timed frames. Caps without
// one leave the mode as an earlier caps set it.
static gboolean gst_kalpng_dec_setcaps(GstPad* pad, GstCaps* caps) {
    GstKalPngDec* dec = GST_KALPNG_DEC(GST_OBJECT_PARENT(pad));
    const GstStructure* structure = gst_caps_get_structure(caps, 0);

    gint fps_n, fps_d;
    if (gst_structure_get_fraction(structure, "framerate", &fps_n, &fps_d)) {
        dec->fps_n = fps_n;
        dec->fps_d = fps_d;
        dec->packetized = TRUE;
        GST_INFO("got framerate of %d/%d fps => packetized mode", dec->fps_n, dec->fps_d);
    }
    return TRUE;
}

// Downstream must see caps before a segment, and the source caps are only known once the
// first PNG is decoded: until then a segment waits in held_segment.
static void gst_kalpng_dec_hold_segment(GstKalPngDec* dec, GstEvent* event) {
    gst_event_replace(&dec->held_segment, nullptr);
    dec->held_segment = event;
}

static void gst_kalpng_dec_push_held_segment(GstKalPngDec* dec) {
    if (!dec->held_segment) return;
    GstEvent* event = dec->held_segment;
    dec->held_segment = nullptr;
    gst_pad_push_event(dec->srcpad, event);
}

static void gst_kalpng_dec_update_segment(GstKalPngDec* dec, GstEvent* event) {
    gst_event_copy_segment(event, dec->segment);
    GST_INFO_OBJECT(
        dec, "Got NEWSEGMENT [%" GST_TIME_FORMAT " - %" GST_TIME_FORMAT " / %" GST_TIME_FORMAT "]",
        GST_TIME_ARGS(dec->segment->start), GST_TIME_ARGS(dec->segment->stop),
        GST_TIME_ARGS(dec->segment->position));
}

static gboolean gst_kalpng_dec_sink_event(GstPad* pad, GstObject* parent, GstEvent* event) {
    GstKalPngDec* dec = GST_KALPNG_DEC(parent);
    GST_INFO_OBJECT(dec, "event : %s", gst_event_type_get_name(GST_EVENT_TYPE(event)));

    switch (GST_EVENT_TYPE(event)) {
        case GST_EVENT_CAPS: {
            // The sink caps describe PNG bytes; the source pad gets its own caps per frame.
            GstCaps* caps;
            gst_event_parse_caps(event, &caps);
            gst_kalpng_dec_setcaps(pad, caps);
            gst_event_unref(event);
            return TRUE;
        }
        case GST_EVENT_SEGMENT:
            gst_kalpng_dec_update_segment(dec, event);
            if (!gst_pad_has_current_caps(dec->srcpad)) {
                gst_kalpng_dec_hold_segment(dec, event);
                return TRUE;
            }
            break;
        case GST_EVENT_FLUSH_START:
            // A frame waiting for a buffer of a bounded downstream pool must not hold up the
            // flush.
            gst_kalpng_dec_set_pool_flushing(dec, TRUE);
            break;
        case GST_EVENT_FLUSH_STOP:
            gst_kalpng_dec_set_pool_flushing(dec, FALSE);
            [[fallthrough]];
        case GST_EVENT_EOS:
            // A stream that ends or restarts before its first frame still hands on its segment.
            gst_kalpng_dec_push_held_segment(dec);
            break;
        default:
            break;
    }
    return gst_pad_push_event(dec->srcpad, event);
}

static void gst_kalpng_dec_reset(GstKalPngDec* dec) {
    dec->fps_d = 1;
    dec->last_height = -1;
    dec->next_ts = 0;
    dec->fps_n = 0;
    dec->packetized = FALSE;
    dec->last_fps_d = 0;
    dec->last_fps_n = 0;
    dec->last_width = -1;
    gst_segment_init(dec->segment, GST_FORMAT_UNDEFINED);
    gst_event_replace(&dec->held_segment, nullptr);
    dec->input.Construct();
}

static GstStateChangeReturn gst_kalpng_dec_change_state(GstElement* element,
                                                        GstStateChange transition) {
    GstKalPngDec* dec = GST_KALPNG_DEC(element);

    if (transition == GST_STATE_CHANGE_READY_TO_PAUSED) gst_kalpng_dec_reset(dec);

    GstStateChangeReturn result = parent_class->change_state(element, transition);

    // Only once the pads are deactivated can no chain call be using the input any more.
    if (result == GST_STATE_CHANGE_SUCCESS && transition == GST_STATE_CHANGE_PAUSED_TO_READY) {
        dec->input.Destruct();
        gst_kalpng_dec_replace_pool(dec, nullptr);
    }
    return result;
}

// ---------------------------------------------------------------------------------------------
// Frame decoding and output

namespace {

// A decoded picture; its pixels are released with the frame on every path.
struct DecodedFrame {
    STImageSimple image{};

    DecodedFrame() = default;
    DecodedFrame(const DecodedFrame&) = delete;
    DecodedFrame& operator=(const DecodedFrame&) = delete;
    ~DecodedFrame() {
        if (image.data) kau::mem::Delete(image.data);
    }
};

struct BufferUnref {
    void operator()(GstBuffer* buffer) const { gst_buffer_unref(buffer); }
};
using BufferHolder = std::unique_ptr<GstBuffer, BufferUnref>;

}  // namespace

// Decodes the complete PNG held by the input and starts a fresh input with the bytes that
// followed it. A failed decode leaves the input complete, so the same PNG fails again until
// the next READY to PAUSED.
static void gst_kalpng_dec_decode(GstKalPngDec* dec, DecodedFrame& frame) {
    if (!MMStreamReady(dec->input.stream)) kau::Error::Throw(kElementFile, kErrStreamNotReady);
    if (!DecodePNG(dec->input.stream, kDefaultAlpha, &frame.image)) {
        kau::Error::Throw(kElementFile, kErrDecode);
    }
    dec->input.ResetStreamWithDataAfterIEND();
}

static GstCaps* gst_kalpng_dec_output_caps(const GstKalPngDec* dec) {
    return gst_caps_new_simple("video/x-raw", "format", G_TYPE_STRING, "RGBA", "width", G_TYPE_INT,
                               dec->last_width, "height", G_TYPE_INT, dec->last_height, "framerate",
                               GST_TYPE_FRACTION, dec->last_fps_n, dec->last_fps_d, nullptr);
}

static bool gst_kalpng_dec_start_pool(GstBufferPool* pool, GstCaps* caps, guint size, guint min,
                                      guint max) {
    GstStructure* config = gst_buffer_pool_get_config(pool);
    gst_buffer_pool_config_set_params(config, caps, size, min, max);
    return gst_buffer_pool_set_config(pool, config) && gst_buffer_pool_set_active(pool, TRUE);
}

// Only the streaming thread and state changes replace the pool; the object lock keeps it alive
// for a flush event arriving from another thread.
static void gst_kalpng_dec_replace_pool(GstKalPngDec* dec, GstBufferPool* pool) {
    GST_OBJECT_LOCK(dec);
    GstBufferPool* old = dec->pool;
    dec->pool = pool;
    GST_OBJECT_UNLOCK(dec);
    if (!old) return;
    // Buffers still downstream are freed as they come back to the inactive pool.
    gst_buffer_pool_set_active(old, FALSE);
    gst_object_unref(old);
}

static void gst_kalpng_dec_set_pool_flushing(GstKalPngDec* dec, gboolean flushing) {
    GST_OBJECT_LOCK(dec);
    GstBufferPool* pool = dec->pool ? GST_BUFFER_POOL(gst_object_ref(dec->pool)) : nullptr;
    GST_OBJECT_UNLOCK(dec);
    if (!pool) return;
    gst_buffer_pool_set_flushing(pool, flushing);
    gst_object_unref(pool);
}

// The element's own pool maps each buffer's memory straight from the system instead of taking
// it from the C heap. Large blocks share a thread's heap badly: with frame-sized pool buffers in
// the streaming thread's heap, the decoder's output block, freed and allocated again for every
// frame, finds no room to reuse and is faulted in fresh each time.
struct GstKalPngDecPool {
    GstBufferPool pool;
};

struct GstKalPngDecPoolClass {
    GstBufferPoolClass parent_class;
};

namespace {

struct MappedBlock {
    void* data;
    gsize size;
};

void UnmapBlock(gpointer block) {
    const MappedBlock* mapped = static_cast<MappedBlock*>(block);
    munmap(mapped->data, mapped->size);
    g_free(block);
}

}  // namespace

// The buffer size and limits a pool is configured with.
static void gst_kalpng_dec_pool_params(GstBufferPool* pool, guint* size, guint* min, guint* max) {
    GstStructure* config = gst_buffer_pool_get_config(pool);
    gst_buffer_pool_config_get_params(config, nullptr, size, min, max);
    gst_structure_free(config);
}

static GstFlowReturn gst_kalpng_dec_pool_alloc_buffer(GstBufferPool* pool, GstBuffer** buffer,
                                                      GstBufferPoolAcquireParams*) {
    guint size = 0;
    gst_kalpng_dec_pool_params(pool, &size, nullptr, nullptr);
    void* data = mmap(nullptr, size, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    if (data == MAP_FAILED) return GST_FLOW_ERROR;
    MappedBlock* block = g_new(MappedBlock, 1);
    *block = {data, size};
    *buffer =
        gst_buffer_new_wrapped_full(GstMemoryFlags(0), data, size, 0, size, block, UnmapBlock);
    return GST_FLOW_OK;
}

static void gst_kalpng_dec_pool_class_init(gpointer klass, gpointer) {
    GST_BUFFER_POOL_CLASS(klass)->alloc_buffer = gst_kalpng_dec_pool_alloc_buffer;
}

// Streaming threads of several elements may ask for the type at once.
static GType gst_kalpng_dec_pool_get_type(void) {
    static gsize type = 0;
    if (g_once_init_enter(&type)) {
        static const GTypeInfo info = {
            sizeof(GstKalPngDecPoolClass),
            nullptr,
            nullptr,
            gst_kalpng_dec_pool_class_init,
            nullptr,
            nullptr,
            sizeof(GstKalPngDecPool),
            0,
            nullptr,
            nullptr,
        };
        g_once_init_leave(&type, g_type_register_static(GST_TYPE_BUFFER_POOL, "GstKalPngDecPool",
                                                        &info, GTypeFlags(0)));
    }
    return type;
}

static GstBufferPool* gst_kalpng_dec_pool_new() {
    return GST_BUFFER_POOL(
        gst_object_ref_sink(g_object_new(gst_kalpng_dec_pool_get_type(), nullptr)));
}

// The element's own pool keeps serving frames that fit in its buffers, so a stream whose frames
// change size keeps the memory of its largest frame instead of mapping fresh memory for each
// size. The caps in its configuration are those of the frame that sized it.
static bool gst_kalpng_dec_own_pool_fits(GstKalPngDec* dec, guint size, guint min, guint max) {
    if (!dec->pool || !G_TYPE_CHECK_INSTANCE_TYPE(dec->pool, gst_kalpng_dec_pool_get_type())) {
        return false;
    }
    guint pool_size = 0, pool_min = 0, pool_max = 0;
    gst_kalpng_dec_pool_params(dec->pool, &pool_size, &pool_min, &pool_max);
    return size <= pool_size && min == pool_min && max == pool_max;
}

// Output buffers come from a pool so that frames reuse memory instead of faulting in fresh
// pages for every frame. Downstream may offer its own pool and its limits through the
// allocation query; an offered pool that refuses these caps or this size gives way to a pool
// of the element's own.
static void gst_kalpng_dec_decide_pool(GstKalPngDec* dec, guint size) {
    GstCaps* caps = gst_kalpng_dec_output_caps(dec);
    GstQuery* query = gst_query_new_allocation(caps, TRUE);
    GstBufferPool* pool = nullptr;
    guint min = 0, max = 0;
    if (gst_pad_peer_query(dec->srcpad, query) && gst_query_get_n_allocation_pools(query) > 0) {
        guint proposed_size;
        gst_query_parse_nth_allocation_pool(query, 0, &pool, &proposed_size, &min, &max);
    }
    gst_query_unref(query);
    // A pool in use takes no new configuration until it is deactivated.
    if (pool && pool == dec->pool) gst_kalpng_dec_replace_pool(dec, nullptr);
    if (pool && !gst_kalpng_dec_start_pool(pool, caps, size, min, max)) {
        GST_INFO_OBJECT(dec, "downstream pool refused %u-byte frames, using our own", size);
        gst_clear_object(&pool);
    }
    if (!pool && gst_kalpng_dec_own_pool_fits(dec, size, min, max)) {
        gst_caps_unref(caps);
        return;
    }
    if (!pool) {
        pool = gst_kalpng_dec_pool_new();
        if (!gst_kalpng_dec_start_pool(pool, caps, size, min, max)) gst_clear_object(&pool);
    }
    gst_caps_unref(caps);
    gst_kalpng_dec_replace_pool(dec, pool);
    if (!pool) kau::Error::Throw(kElementFile, kErrOutputBuffer);
}

// Sets new source caps when the frame's size or the frame rate changed, and agrees on a new
// pool then or when downstream asks for renegotiation.
static void gst_kalpng_dec_negotiate(GstKalPngDec* dec, const STImageSimple& image) {
    const gint width = gint(image.width);
    const gint height = gint(image.height);
    const bool reconfigure = gst_pad_check_reconfigure(dec->srcpad);
    const bool changed = width != dec->last_width || height != dec->last_height ||
                         dec->fps_n != dec->last_fps_n || dec->fps_d != dec->last_fps_d;
    if (changed) {
        if (dec->fps_d == 0) {
            dec->fps_n = 0;
            dec->fps_d = 1;
        }
        dec->last_width = width;
        dec->last_height = height;
        dec->last_fps_n = dec->fps_n;
        dec->last_fps_d = dec->fps_d;
        GstCaps* caps = gst_kalpng_dec_output_caps(dec);
        gst_pad_set_caps(dec->srcpad, caps);
        gst_caps_unref(caps);
        gst_kalpng_dec_push_held_segment(dec);
    }
    if (changed || reconfigure || !dec->pool) gst_kalpng_dec_decide_pool(dec, image.dataSize);
}

static BufferHolder gst_kalpng_dec_allocate(GstKalPngDec* dec, const STImageSimple& image) {
    GstBuffer* out = nullptr;
    if (gst_buffer_pool_acquire_buffer(dec->pool, &out, nullptr) != GST_FLOW_OK || !out) {
        kau::Error::Throw(kElementFile, kErrOutputBuffer);
    }
    BufferHolder holder(out);
    if (gst_buffer_get_size(out) < image.dataSize)
        kau::Error::Throw(kElementFile, kErrOutputBuffer);
    gst_buffer_set_size(out, image.dataSize);
    return holder;
}

// Output timing: the incoming timestamp when there is one, then in packetized mode each
// frame follows the previous one by the incoming duration or one frame period.
static void gst_kalpng_dec_stamp(GstKalPngDec* dec, GstBuffer* out, GstBuffer* in) {
    GST_BUFFER_PTS(out) = dec->next_ts;

    GstClockTime duration = GST_CLOCK_TIME_NONE;
    if (dec->packetized && GST_CLOCK_TIME_IS_VALID(dec->next_ts)) {
        if (GST_BUFFER_DURATION_IS_VALID(in)) {
            duration = GST_BUFFER_DURATION(in);
        } else if (dec->fps_n != 0) {
            duration = gst_util_uint64_scale(GST_SECOND, dec->fps_d, dec->fps_n);
        }
    }
    GST_BUFFER_DURATION(out) = duration;
    dec->next_ts =
        GST_CLOCK_TIME_IS_VALID(duration) ? dec->next_ts + duration : GST_CLOCK_TIME_NONE;
}

// Cuts the frame to a TIME segment. A frame without duration counts as a zero-length span
// at its timestamp. Answers false when the frame lies outside the segment.
static bool gst_kalpng_dec_clip(GstKalPngDec* dec, GstBuffer* out) {
    const GstClockTime start = GST_BUFFER_PTS(out);
    const GstClockTime duration = GST_BUFFER_DURATION(out);
    const GstClockTime stop = GST_CLOCK_TIME_IS_VALID(duration) ? start + duration : start;

    guint64 clip_start, clip_stop;
    if (!gst_segment_clip(dec->segment, GST_FORMAT_TIME, start, stop, &clip_start, &clip_stop)) {
        GST_WARNING_OBJECT(dec, "Outgoing buffer is outside configured segment");
        return false;
    }
    GST_LOG_OBJECT(dec, "Clipping start to %" GST_TIME_FORMAT, GST_TIME_ARGS(clip_start));
    GST_BUFFER_PTS(out) = clip_start;
    if (GST_CLOCK_TIME_IS_VALID(duration)) {
        GST_LOG_OBJECT(dec, "Clipping duration to %" GST_TIME_FORMAT,
                       GST_TIME_ARGS(clip_stop - clip_start));
        GST_BUFFER_DURATION(out) = clip_stop - clip_start;
    }
    return true;
}

static void gst_kalpng_dec_fill(GstKalPngDec* dec, GstBuffer* out, const STImageSimple& image) {
    // A buffer that cannot be written is as unusable as one that could not be allocated.
    GstMapInfo map;
    if (!gst_buffer_map(out, &map, GST_MAP_WRITE)) {
        kau::Error::Throw(kElementFile, kErrOutputBuffer);
    }
    kau::mem::Copy8(map.data, image.data, image.dataSize);
    gst_buffer_unmap(out, &map);
    GST_INFO_OBJECT(
        dec, "ready to push an output buffer, ts=%" GST_TIME_FORMAT ", dur=%" GST_TIME_FORMAT,
        GST_TIME_ARGS(GST_BUFFER_PTS(out)), GST_TIME_ARGS(GST_BUFFER_DURATION(out)));
}

// Pushes the buffer's bytes into the input and sends out the frame they complete, if any.
// One buffer yields at most one frame: after a frame the input is pushed zero bytes, which
// always asks for more, so a second PNG already held waits for the next buffer.
static GstFlowReturn gst_kalpng_dec_chain(GstPad*, GstObject* parent, GstBuffer* buf) {
    GstKalPngDec* dec = GST_KALPNG_DEC(parent);
    if (GST_BUFFER_PTS_IS_VALID(buf)) dec->next_ts = GST_BUFFER_PTS(buf);

    GstMapInfo in;
    const bool mapped = gst_buffer_map(buf, &in, GST_MAP_READ);
    const guint8* bytes = mapped ? in.data : nullptr;
    unsigned long count = mapped ? in.size : 0;

    GstFlowReturn flow = GST_FLOW_OK;
    try {
        while (dec->input.Push(bytes, count) == 0) {
            DecodedFrame frame;
            gst_kalpng_dec_decode(dec, frame);
            gst_kalpng_dec_negotiate(dec, frame.image);
            BufferHolder out = gst_kalpng_dec_allocate(dec, frame.image);
            gst_kalpng_dec_stamp(dec, out.get(), buf);
            if (dec->segment->format == GST_FORMAT_TIME && !gst_kalpng_dec_clip(dec, out.get())) {
                break;
            }
            gst_kalpng_dec_fill(dec, out.get(), frame.image);

            flow = gst_pad_push(dec->srcpad, out.release());
            if (flow != GST_FLOW_OK) {
                GST_ERROR_OBJECT(dec, "could not push output buffer");
                break;
            }
            count = 0;
        }
    } catch (...) {
        kau::ReportCurrentException(kElementFile, kCatchChain);
        flow = GST_FLOW_ERROR;
    }

    if (mapped) gst_buffer_unmap(buf, &in);
    gst_buffer_unref(buf);
    return flow;
}

// ---------------------------------------------------------------------------------------------
// Plug-in

static gboolean plugin_init(GstPlugin* plugin) {
    return gst_element_register(plugin, "kalpng_dec", GST_RANK_PRIMARY, GST_TYPE_KALPNG_DEC);
}

// The descriptor's source-module field.
#define PACKAGE "gstreamer"

GST_PLUGIN_DEFINE(GST_VERSION_MAJOR, GST_VERSION_MINOR, kalpng, "Vorlane PNG Codecs", plugin_init,
                  "0.10.20", "Proprietary", "GStreamer source release",
                  "https://gstreamer.freedesktop.org/")
