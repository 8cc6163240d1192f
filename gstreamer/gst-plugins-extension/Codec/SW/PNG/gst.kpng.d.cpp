// kalpng_dec: collects PNG bytes that arrive in pieces, decodes each complete PNG with the
// system's own engine straight into an output buffer and pushes it as one video frame, in RGBA
// or in the first of the other formats the decoder writes that downstream accepts.
#include "gst.kpng.d.h"

#include <sys/mman.h>

#include <cstring>
#include <memory>

#include "CPNG.h"
#include "kau.h"
#include "kpng.h"
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

// Stands for the data of an empty buffer, which maps to no memory at all.
constexpr guint8 kNoBytes[1] = {};

// Pixel aspect ratios beyond this, either way, are taken for a broken pHYs chunk.
constexpr gint kMaxAspect = 16;

enum { PROP_0, PROP_MAX_ERRORS, PROP_QOS, PROP_MAX_FRAME_BYTES };

// Property defaults: the first failure ends the stream, late frames are skipped, no size limit.
constexpr gint kDefaultMaxErrors = 0;
constexpr gboolean kDefaultQos = TRUE;
constexpr guint64 kDefaultMaxFrameBytes = 0;

// Palette colours without a transparency entry come out opaque.
constexpr unsigned long kDefaultAlpha = 255;

// The formats the decoder writes, in the order of preference: RGBA whenever downstream takes
// it, since any other costs downstream nothing only when it cannot take RGBA.
struct OutputFormat {
    GstVideoFormat video;
    kpng::OutputFormat decoded;
};
constexpr OutputFormat kOutputFormats[] = {
    {GST_VIDEO_FORMAT_RGBA, kpng::OutputFormat::kRgba},
    {GST_VIDEO_FORMAT_BGRA, kpng::OutputFormat::kBgra},
    {GST_VIDEO_FORMAT_ARGB, kpng::OutputFormat::kArgb},
    {GST_VIDEO_FORMAT_ABGR, kpng::OutputFormat::kAbgr},
    {GST_VIDEO_FORMAT_RGBx, kpng::OutputFormat::kRgbx},
    {GST_VIDEO_FORMAT_BGRx, kpng::OutputFormat::kBgrx},
    {GST_VIDEO_FORMAT_xRGB, kpng::OutputFormat::kXrgb},
    {GST_VIDEO_FORMAT_xBGR, kpng::OutputFormat::kXbgr},
    {GST_VIDEO_FORMAT_RGB, kpng::OutputFormat::kRgb},
    {GST_VIDEO_FORMAT_BGR, kpng::OutputFormat::kBgr},
    {GST_VIDEO_FORMAT_RGB16, kpng::OutputFormat::kRgb16},
    {GST_VIDEO_FORMAT_GRAY8, kpng::OutputFormat::kGray8}};

kpng::OutputFormat DecodedFormat(GstVideoFormat format) {
    for (const OutputFormat& f : kOutputFormats)
        if (f.video == format) return f.decoded;
    return kpng::OutputFormat::kRgba;
}

}  // namespace

GST_DEBUG_CATEGORY_STATIC(kalpng_dec_debug);
#define GST_CAT_DEFAULT kalpng_dec_debug

static GstStaticPadTemplate sink_template =
    GST_STATIC_PAD_TEMPLATE("sink", GST_PAD_SINK, GST_PAD_ALWAYS, GST_STATIC_CAPS("image/png"));

// Colour frames are sRGB; grey frames keep grey's own colorimetry, full-range BT.601 luma,
// which is how the decoder turns colour into grey.
static GstStaticPadTemplate src_template = GST_STATIC_PAD_TEMPLATE(
    "src", GST_PAD_SRC, GST_PAD_ALWAYS,
    GST_STATIC_CAPS("video/x-raw, format = (string) { RGBA, BGRA, ARGB, ABGR, RGBx, BGRx, xRGB, "
                    "xBGR, RGB, BGR, RGB16 }, width = (int) [ 1, max ], "
                    "height = (int) [ 1, max ], framerate = (fraction) [ 0/1, max ], "
                    "interlace-mode = (string) progressive, "
                    "pixel-aspect-ratio = (fraction) [ 1/16, 16/1 ], "
                    "colorimetry = (string) sRGB; "
                    "video/x-raw, format = (string) GRAY8, width = (int) [ 1, max ], "
                    "height = (int) [ 1, max ], framerate = (fraction) [ 0/1, max ], "
                    "interlace-mode = (string) progressive, "
                    "pixel-aspect-ratio = (fraction) [ 1/16, 16/1 ]"));

static GstElementClass* parent_class = nullptr;

static gboolean gst_kalpng_dec_setcaps(GstPad* pad, GstCaps* caps);
static gboolean gst_kalpng_dec_sink_event(GstPad* pad, GstObject* parent, GstEvent* event);
static gboolean gst_kalpng_dec_src_event(GstPad* pad, GstObject* parent, GstEvent* event);
static void gst_kalpng_dec_set_property(GObject* object, guint id, const GValue* value,
                                        GParamSpec* pspec);
static void gst_kalpng_dec_get_property(GObject* object, guint id, GValue* value,
                                        GParamSpec* pspec);
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

    GObjectClass* object_class = G_OBJECT_CLASS(klass);
    object_class->finalize = gst_kalpng_dec_finalize;
    object_class->set_property = gst_kalpng_dec_set_property;
    object_class->get_property = gst_kalpng_dec_get_property;
    const auto flags = GParamFlags(G_PARAM_READWRITE | G_PARAM_STATIC_STRINGS);
    g_object_class_install_property(
        object_class, PROP_MAX_ERRORS,
        g_param_spec_int("max-errors", "Maximum errors",
                         "Failed PNGs in a row that are skipped with a warning before one ends "
                         "the stream (0: the first does; -1: none does)",
                         -1, G_MAXINT, kDefaultMaxErrors, flags));
    g_object_class_install_property(
        object_class, PROP_QOS,
        g_param_spec_boolean("qos", "QoS", "Skip decoding frames that downstream reports late",
                             kDefaultQos, flags));
    g_object_class_install_property(
        object_class, PROP_MAX_FRAME_BYTES,
        g_param_spec_uint64("max-frame-bytes", "Maximum frame bytes",
                            "Largest decoded frame, and largest PNG, in bytes (0: no limit)", 0,
                            G_MAXUINT64, kDefaultMaxFrameBytes, flags));
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
    gst_pad_set_event_function(dec->srcpad, GST_DEBUG_FUNCPTR(gst_kalpng_dec_src_event));
    gst_pad_use_fixed_caps(dec->srcpad);
    gst_element_add_pad(GST_ELEMENT(dec), dec->srcpad);

    dec->segment = gst_segment_new();
    dec->max_errors = kDefaultMaxErrors;
    dec->qos = kDefaultQos;
    dec->max_frame_bytes = kDefaultMaxFrameBytes;
}

static void gst_kalpng_dec_set_property(GObject* object, guint id, const GValue* value,
                                        GParamSpec* pspec) {
    GstKalPngDec* dec = GST_KALPNG_DEC(object);
    GST_OBJECT_LOCK(dec);
    switch (id) {
        case PROP_MAX_ERRORS:
            dec->max_errors = g_value_get_int(value);
            break;
        case PROP_QOS:
            dec->qos = g_value_get_boolean(value);
            break;
        case PROP_MAX_FRAME_BYTES:
            dec->max_frame_bytes = g_value_get_uint64(value);
            break;
        default:
            G_OBJECT_WARN_INVALID_PROPERTY_ID(object, id, pspec);
            break;
    }
    GST_OBJECT_UNLOCK(dec);
}

static void gst_kalpng_dec_get_property(GObject* object, guint id, GValue* value,
                                        GParamSpec* pspec) {
    GstKalPngDec* dec = GST_KALPNG_DEC(object);
    GST_OBJECT_LOCK(dec);
    switch (id) {
        case PROP_MAX_ERRORS:
            g_value_set_int(value, dec->max_errors);
            break;
        case PROP_QOS:
            g_value_set_boolean(value, dec->qos);
            break;
        case PROP_MAX_FRAME_BYTES:
            g_value_set_uint64(value, dec->max_frame_bytes);
            break;
        default:
            G_OBJECT_WARN_INVALID_PROPERTY_ID(object, id, pspec);
            break;
    }
    GST_OBJECT_UNLOCK(dec);
}

namespace {

// The properties as one streaming pass sees them.
struct Settings {
    gint max_errors;
    gboolean qos;
    guint64 max_frame_bytes;

    bool Tolerant() const { return max_errors != 0; }
};

}  // namespace

static Settings gst_kalpng_dec_settings(GstKalPngDec* dec) {
    GST_OBJECT_LOCK(dec);
    const Settings settings{dec->max_errors, dec->qos, dec->max_frame_bytes};
    GST_OBJECT_UNLOCK(dec);
    return settings;
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

// The element's own segment records what came, so that only a time segment clips; downstream
// gets that segment, or for any other format a time segment from 0 with its rate and flags,
// since raw video travels in time.
static GstEvent* gst_kalpng_dec_update_segment(GstKalPngDec* dec, GstEvent* event) {
    gst_event_copy_segment(event, dec->segment);
    GST_INFO_OBJECT(
        dec, "Got NEWSEGMENT [%" GST_TIME_FORMAT " - %" GST_TIME_FORMAT " / %" GST_TIME_FORMAT "]",
        GST_TIME_ARGS(dec->segment->start), GST_TIME_ARGS(dec->segment->stop),
        GST_TIME_ARGS(dec->segment->position));
    if (dec->segment->format == GST_FORMAT_TIME) {
        gst_segment_copy_into(dec->segment, &dec->out_segment);
        return event;
    }
    gst_segment_init(&dec->out_segment, GST_FORMAT_TIME);
    dec->out_segment.rate = dec->segment->rate;
    dec->out_segment.applied_rate = dec->segment->applied_rate;
    dec->out_segment.flags = dec->segment->flags;
    GstEvent* replacement = gst_event_new_segment(&dec->out_segment);
    gst_event_set_seqnum(replacement, gst_event_get_seqnum(event));
    gst_event_unref(event);
    GST_DEBUG_OBJECT(dec, "sending a time segment downstream instead of the %s one",
                     gst_format_get_name(dec->segment->format));
    return replacement;
}

static void gst_kalpng_dec_drain(GstKalPngDec* dec);
static void gst_kalpng_dec_discard_input(GstKalPngDec* dec);

static void gst_kalpng_dec_forget_qos(GstKalPngDec* dec) {
    GST_OBJECT_LOCK(dec);
    dec->earliest_time = GST_CLOCK_TIME_NONE;
    GST_OBJECT_UNLOCK(dec);
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
            event = gst_kalpng_dec_update_segment(dec, event);
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
            gst_kalpng_dec_forget_qos(dec);
            // A stream that tolerates bad input starts over cleanly after a seek.
            if (gst_kalpng_dec_settings(dec).Tolerant()) gst_kalpng_dec_discard_input(dec);
            gst_kalpng_dec_push_held_segment(dec);
            break;
        case GST_EVENT_EOS:
            gst_kalpng_dec_drain(dec);
            // A stream that ends before its first frame still hands on its segment.
            gst_kalpng_dec_push_held_segment(dec);
            break;
        default:
            break;
    }
    return gst_pad_push_event(dec->srcpad, event);
}

// Downstream's QoS events say how late frames arrive there; a frame whose end lies before
// the reported time plus the lateness is late too.
static gboolean gst_kalpng_dec_src_event(GstPad* pad, GstObject* parent, GstEvent* event) {
    GstKalPngDec* dec = GST_KALPNG_DEC(parent);
    if (GST_EVENT_TYPE(event) == GST_EVENT_QOS) {
        GstQOSType type;
        gdouble proportion;
        GstClockTimeDiff diff;
        GstClockTime timestamp;
        gst_event_parse_qos(event, &type, &proportion, &diff, &timestamp);
        GST_OBJECT_LOCK(dec);
        dec->earliest_time = GST_CLOCK_TIME_IS_VALID(timestamp) && diff > 0
                                 ? timestamp + 2 * GstClockTime(diff)
                                 : GST_CLOCK_TIME_NONE;
        GST_OBJECT_UNLOCK(dec);
    }
    return gst_pad_event_default(pad, parent, event);
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
    gst_segment_init(&dec->out_segment, GST_FORMAT_TIME);
    gst_event_replace(&dec->held_segment, nullptr);
    dec->last_par_n = dec->last_par_d = 1;
    dec->last_format = GST_VIDEO_FORMAT_UNKNOWN;
    dec->errors = 0;
    dec->failed = FALSE;
    dec->processed = dec->dropped = 0;
    gst_kalpng_dec_forget_qos(dec);
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

// What the PNG's header says of the frame, read before it is decoded.
struct FrameHeader {
    guint32 width = 0;
    guint32 height = 0;
    gint par_n = 1;
    gint par_d = 1;
};

struct BufferUnref {
    void operator()(GstBuffer* buffer) const { gst_buffer_unref(buffer); }
};
using BufferHolder = std::unique_ptr<GstBuffer, BufferUnref>;

// An output buffer mapped as a video frame while the decoder writes into it.
struct MappedFrame {
    GstVideoFrame frame{};
    bool mapped = false;

    MappedFrame() = default;
    MappedFrame(const MappedFrame&) = delete;
    MappedFrame& operator=(const MappedFrame&) = delete;
    ~MappedFrame() {
        if (mapped) gst_video_frame_unmap(&frame);
    }
};

}  // namespace

// The pixel aspect ratio of a pHYs chunk in pixels per metre, reduced; 1/1 without one, with
// another unit, or with a ratio beyond what any display means. Reads the chunk headers of a
// complete PNG, stopping wherever they end early, and puts the stream back where it was.
static void gst_kalpng_dec_read_aspect(MMStream* stream, FrameHeader& frame) {
    unsigned long resume = 0;
    if (!MMStreamTell(stream, &resume) || !MMStreamSeek(stream, 8, MMStreamSeekFromBegin)) return;
    guint8 head[8];
    unsigned long at = 8;
    while (MMStreamGet(stream, head, 8) == 8 && memcmp(head + 4, "IDAT", 4) != 0) {
        const guint32 length = GST_READ_UINT32_BE(head);
        guint8 phys[9];
        if (memcmp(head + 4, "pHYs", 4) == 0) {
            if (length == 9 && MMStreamGet(stream, phys, 9) == 9 && phys[8] == 1) {
                const guint64 x = GST_READ_UINT32_BE(phys), y = GST_READ_UINT32_BE(phys + 4);
                if (x && y && x <= kMaxAspect * y && y <= kMaxAspect * x) {
                    // The width of a pixel over its height.
                    const guint64 divisor = gst_util_greatest_common_divisor_int64(x, y);
                    if (y / divisor <= G_MAXINT && x / divisor <= G_MAXINT) {
                        frame.par_n = gint(y / divisor);
                        frame.par_d = gint(x / divisor);
                    } else {
                        gst_util_double_to_fraction(double(y) / double(x), &frame.par_n,
                                                    &frame.par_d);
                    }
                }
            }
            break;
        }
        at += 8 + guint64(length) + 4;
        if (!MMStreamSeek(stream, long(at), MMStreamSeekFromBegin)) break;
    }
    MMStreamSeek(stream, long(resume), MMStreamSeekFromBegin);
}

// The frame's size from the PNG's header, and its aspect. False when the header is not there to
// read or gives a frame that the decoder will refuse before writing a pixel (a size of 0 or of
// 2^31 and more, or over max-frame-bytes) or that no buffer can hold.
static bool gst_kalpng_dec_read_header(GstKalPngDec* dec, const Settings& settings,
                                       GstVideoFormat format, FrameHeader& frame) {
    MMStream* stream = dec->input.stream;
    guint8 ihdr[16];
    unsigned long resume = 0;
    if (!MMStreamTell(stream, &resume) || !MMStreamSeek(stream, 8, MMStreamSeekFromBegin))
        return false;
    const bool read = MMStreamGet(stream, ihdr, 16) == 16;
    MMStreamSeek(stream, long(resume), MMStreamSeekFromBegin);
    if (!read || memcmp(ihdr + 4, "IHDR", 4) != 0) return false;
    frame.width = GST_READ_UINT32_BE(ihdr + 8);
    frame.height = GST_READ_UINT32_BE(ihdr + 12);
    if (frame.width - 1 >= G_MAXINT32 || frame.height - 1 >= G_MAXINT32) return false;
    const guint64 bytes =
        guint64(frame.width) * kpng::BytesPerPixel(DecodedFormat(format)) * frame.height;
    if (settings.max_frame_bytes && bytes > settings.max_frame_bytes) return false;
    GstVideoInfo info;
    if (!gst_video_info_set_format(&info, format, frame.width, frame.height) ||
        info.size > G_MAXUINT32) {
        return false;
    }
    gst_kalpng_dec_read_aspect(stream, frame);
    return true;
}

// Decodes the complete PNG held by the input into the mapped frame (or, with none, nowhere: the
// decoder then refuses it at its header) and starts a fresh input with the bytes that followed
// it. A failed decode leaves the input complete.
static void gst_kalpng_dec_decode(GstKalPngDec* dec, const Settings& settings,
                                  GstVideoFormat format, MappedFrame& out) {
    if (!MMStreamReady(dec->input.stream)) kau::Error::Throw(kElementFile, kErrStreamNotReady);
    kpng::DecodeOptions options;
    options.maxOutputBytes = settings.max_frame_bytes;
    options.format = DecodedFormat(format);
    if (out.mapped) {
        options.destination = static_cast<unsigned char*>(GST_VIDEO_FRAME_PLANE_DATA(&out.frame, 0));
        options.stride = guint32(GST_VIDEO_FRAME_PLANE_STRIDE(&out.frame, 0));
    }
    STImageSimple image = {};
    if (!DecodePNG(dec->input.stream, kDefaultAlpha, &image, options)) {
        kau::Error::Throw(kElementFile, kErrDecode);
    }
    // A PNG whose header promised no frame has no buffer to go to.
    if (!out.mapped) {
        kau::mem::Delete(image.data);
        kau::Error::Throw(kElementFile, kErrOutputBuffer);
    }
    GST_DEBUG_OBJECT(dec, "decoded a PNG of %u bytes: %ux%u", dec->input.pngSize, image.width,
                     image.height);
    dec->input.ResetStreamWithDataAfterIEND();
}

// The format of the next frames: the first that downstream accepts, RGBA when it accepts
// anything or nothing.
static GstVideoFormat gst_kalpng_dec_choose_format(GstKalPngDec* dec) {
    GstCaps* peer = gst_pad_peer_query_caps(dec->srcpad, nullptr);
    GstVideoFormat chosen = GST_VIDEO_FORMAT_RGBA;
    for (const OutputFormat& f : kOutputFormats) {
        GstCaps* caps = gst_caps_new_simple("video/x-raw", "format", G_TYPE_STRING,
                                            gst_video_format_to_string(f.video), nullptr);
        const bool accepted = gst_caps_can_intersect(peer, caps);
        gst_caps_unref(caps);
        if (accepted) {
            chosen = f.video;
            break;
        }
    }
    gst_caps_unref(peer);
    return chosen;
}

static GstCaps* gst_kalpng_dec_output_caps(GstKalPngDec* dec) {
    GstVideoInfo& info = dec->out_info;
    gst_video_info_set_format(&info, dec->last_format, guint(dec->last_width),
                              guint(dec->last_height));
    info.fps_n = dec->last_fps_n;
    info.fps_d = dec->last_fps_d;
    info.par_n = dec->last_par_n;
    info.par_d = dec->last_par_d;
    info.interlace_mode = GST_VIDEO_INTERLACE_MODE_PROGRESSIVE;
    if (GST_VIDEO_INFO_IS_RGB(&info))
        gst_video_colorimetry_from_string(&info.colorimetry, GST_VIDEO_COLORIMETRY_SRGB);
    return gst_video_info_to_caps(&info);
}

// Frames carry their layout (GstVideoMeta) wherever the pool can add it, so that a pool with
// rows of its own stride can serve them.
static bool gst_kalpng_dec_start_pool(GstBufferPool* pool, GstCaps* caps, guint size, guint min,
                                      guint max) {
    GstStructure* config = gst_buffer_pool_get_config(pool);
    gst_buffer_pool_config_set_params(config, caps, size, min, max);
    if (gst_buffer_pool_has_option(pool, GST_BUFFER_POOL_OPTION_VIDEO_META))
        gst_buffer_pool_config_add_option(config, GST_BUFFER_POOL_OPTION_VIDEO_META);
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
        GST_DEBUG_OBJECT(dec, "keeping our own pool for %u-byte frames", size);
        gst_caps_unref(caps);
        return;
    }
    if (pool) {
        GST_DEBUG_OBJECT(dec, "using downstream's pool for %u-byte frames", size);
    } else {
        GST_DEBUG_OBJECT(dec, "using a pool of our own for %u-byte frames", size);
        pool = gst_kalpng_dec_pool_new();
        if (!gst_kalpng_dec_start_pool(pool, caps, size, min, max)) gst_clear_object(&pool);
    }
    gst_caps_unref(caps);
    gst_kalpng_dec_replace_pool(dec, pool);
    if (!pool) kau::Error::Throw(kElementFile, kErrOutputBuffer);
}

// Sets new source caps when the frame's size, aspect, format or the frame rate changed, and
// agrees on a new pool then or when downstream asks for renegotiation.
static void gst_kalpng_dec_negotiate(GstKalPngDec* dec, const FrameHeader& frame,
                                     GstVideoFormat format, bool reconfigure) {
    const gint width = gint(frame.width);
    const gint height = gint(frame.height);
    const bool changed = width != dec->last_width || height != dec->last_height ||
                         frame.par_n != dec->last_par_n || frame.par_d != dec->last_par_d ||
                         dec->fps_n != dec->last_fps_n || dec->fps_d != dec->last_fps_d ||
                         format != dec->last_format;
    if (changed) {
        if (dec->fps_d == 0) {
            dec->fps_n = 0;
            dec->fps_d = 1;
        }
        dec->last_width = width;
        dec->last_height = height;
        dec->last_par_n = frame.par_n;
        dec->last_par_d = frame.par_d;
        dec->last_fps_n = dec->fps_n;
        dec->last_fps_d = dec->fps_d;
        dec->last_format = format;
        GstCaps* caps = gst_kalpng_dec_output_caps(dec);
        gst_pad_set_caps(dec->srcpad, caps);
        gst_caps_unref(caps);
        gst_kalpng_dec_push_held_segment(dec);
    }
    if (changed || reconfigure || !dec->pool) gst_kalpng_dec_decide_pool(dec, guint(dec->out_info.size));
}

// A pool that is flushing answers GST_FLOW_FLUSHING, which ends the call quietly: during a
// flushing seek that is the normal state, not a failure. A buffer without a layout of its own
// (GstVideoMeta) holds the frame in the caps' layout; the element's own pool gives its buffers
// that layout as a GstVideoMeta too.
static GstFlowReturn gst_kalpng_dec_allocate(GstKalPngDec* dec, BufferHolder& holder,
                                             MappedFrame& mapped) {
    GstBuffer* out = nullptr;
    const GstFlowReturn flow = gst_buffer_pool_acquire_buffer(dec->pool, &out, nullptr);
    if (flow == GST_FLOW_FLUSHING) {
        GST_DEBUG_OBJECT(dec, "the pool is flushing");
        return flow;
    }
    if (flow != GST_FLOW_OK || !out) kau::Error::Throw(kElementFile, kErrOutputBuffer);
    holder.reset(out);
    GstVideoInfo& info = dec->out_info;
    if (!gst_buffer_get_video_meta(out)) {
        if (gst_buffer_get_size(out) < info.size) kau::Error::Throw(kElementFile, kErrOutputBuffer);
        gst_buffer_set_size(out, info.size);
        if (G_TYPE_CHECK_INSTANCE_TYPE(dec->pool, gst_kalpng_dec_pool_get_type())) {
            gst_buffer_add_video_meta_full(out, GST_VIDEO_FRAME_FLAG_NONE,
                                           GST_VIDEO_INFO_FORMAT(&info), GST_VIDEO_INFO_WIDTH(&info),
                                           GST_VIDEO_INFO_HEIGHT(&info), 1, info.offset,
                                           info.stride);
        }
    }
    // A buffer that cannot be written is as unusable as one that could not be allocated.
    mapped.mapped = gst_video_frame_map(&mapped.frame, &info, out, GST_MAP_WRITE);
    if (!mapped.mapped) kau::Error::Throw(kElementFile, kErrOutputBuffer);
    return GST_FLOW_OK;
}

// The duration of the next frame: in packetized mode the incoming one or one frame period.
static GstClockTime gst_kalpng_dec_duration(const GstKalPngDec* dec, GstClockTime in_duration) {
    if (!dec->packetized || !GST_CLOCK_TIME_IS_VALID(dec->next_ts)) return GST_CLOCK_TIME_NONE;
    if (GST_CLOCK_TIME_IS_VALID(in_duration)) return in_duration;
    if (dec->fps_n == 0) return GST_CLOCK_TIME_NONE;
    return gst_util_uint64_scale(GST_SECOND, dec->fps_d, dec->fps_n);
}

// Output timing: the incoming timestamp when there is one, then in packetized mode each
// frame follows the previous one by the incoming duration or one frame period. Answers the
// frame's duration; its timestamp is next_ts as it was.
static GstClockTime gst_kalpng_dec_advance(GstKalPngDec* dec, GstClockTime in_duration) {
    const GstClockTime duration = gst_kalpng_dec_duration(dec, in_duration);
    dec->next_ts =
        GST_CLOCK_TIME_IS_VALID(duration) ? dec->next_ts + duration : GST_CLOCK_TIME_NONE;
    return duration;
}

static void gst_kalpng_dec_stamp(GstKalPngDec* dec, GstBuffer* out, GstClockTime in_duration) {
    GST_BUFFER_PTS(out) = dec->next_ts;
    GST_BUFFER_DURATION(out) = gst_kalpng_dec_advance(dec, in_duration);
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

// ---------------------------------------------------------------------------------------------
// Failures, skipped frames and the end of the stream

// Tells the application why, besides the printed reports: the reason in words, and where the
// first report was printed ("kpng +576") for whoever reads the debug text.
static void gst_kalpng_dec_post(GstKalPngDec* dec, bool fatal, const char* words,
                                const char* debug) {
    GST_WARNING_OBJECT(dec, "%s (%s)", words, debug);
    if (fatal) {
        GST_ELEMENT_ERROR(dec, STREAM, DECODE, ("%s", words), ("%s", debug));
    } else {
        GST_ELEMENT_WARNING(dec, STREAM, DECODE, ("%s", words), ("%s", debug));
    }
}

static void gst_kalpng_dec_post_report(GstKalPngDec* dec, bool fatal,
                                       const kau::FirstReport& first) {
    const char* file = first.FileName();
    const char* module = strrchr(file, '/');
    gchar* debug = g_strdup_printf("%s +%d", module ? module + 1 : file, first.Position());
    gst_kalpng_dec_post(dec, fatal, kpng::DescribeFailure(file, first.Position()), debug);
    g_free(debug);
}

static void gst_kalpng_dec_discard_input(GstKalPngDec* dec) {
    if (dec->input.pngSize) {
        GST_DEBUG_OBJECT(dec, "discarding %u bytes of an unfinished PNG", dec->input.pngSize);
    }
    dec->input.Destruct();
    dec->input.Construct();
}

// Drops the complete PNG the input holds and keeps every byte stored after it: from the end of
// the stream, the input's carry-over takes them all.
static void gst_kalpng_dec_discard_png(GstKalPngDec* dec) {
    GST_DEBUG_OBJECT(dec, "discarding a PNG of %u bytes", dec->input.pngSize);
    if (!MMStreamSeek(dec->input.stream, 0, MMStreamSeekFromEnd)) {
        gst_kalpng_dec_discard_input(dec);
        return;
    }
    dec->input.ResetStreamWithDataAfterIEND();
}

// One more failed PNG in a row. Within max-errors it is dropped with a warning and decoding
// goes on with the bytes after it; beyond, the stream ends with an error, and the PNG stays
// held as it was.
static GstFlowReturn gst_kalpng_dec_failed(GstKalPngDec* dec, const Settings& settings) {
    ++dec->errors;
    if (settings.max_errors >= 0 && dec->errors > settings.max_errors) {
        dec->failed = TRUE;
        return GST_FLOW_ERROR;
    }
    if (dec->input.Complete()) {
        gst_kalpng_dec_discard_png(dec);
    } else {
        gst_kalpng_dec_discard_input(dec);
    }
    return GST_FLOW_OK;
}

static GstFlowReturn gst_kalpng_dec_bad_png(GstKalPngDec* dec, const Settings& settings,
                                            const kau::FirstReport& first) {
    const GstFlowReturn flow = gst_kalpng_dec_failed(dec, settings);
    gst_kalpng_dec_post_report(dec, flow != GST_FLOW_OK, first);
    return flow;
}

// A PNG left unfinished where it can have no more bytes: by a new buffer in packetized mode
// when bad input is tolerated, or by the end of the stream.
static GstFlowReturn gst_kalpng_dec_unfinished_png(GstKalPngDec* dec, const Settings& settings,
                                                   bool at_end) {
    gchar* debug = g_strdup_printf("%u bytes discarded", dec->input.pngSize);
    const char* words = "a PNG ends early";
    GstFlowReturn flow = GST_FLOW_OK;
    if (at_end) {
        gst_kalpng_dec_discard_input(dec);
    } else {
        flow = gst_kalpng_dec_failed(dec, settings);
    }
    gst_kalpng_dec_post(dec, flow != GST_FLOW_OK, words, debug);
    g_free(debug);
    return flow;
}

// Whether the frame the held PNG would give ends before the earliest time downstream can
// still show it.
static bool gst_kalpng_dec_late(GstKalPngDec* dec, GstClockTime in_duration) {
    GST_OBJECT_LOCK(dec);
    const GstClockTime earliest = dec->earliest_time;
    GST_OBJECT_UNLOCK(dec);
    if (!GST_CLOCK_TIME_IS_VALID(earliest) || !GST_CLOCK_TIME_IS_VALID(dec->next_ts)) return false;
    const GstClockTime duration = gst_kalpng_dec_duration(dec, in_duration);
    const GstClockTime end = dec->next_ts + (GST_CLOCK_TIME_IS_VALID(duration) ? duration : 0);
    const GstClockTime running =
        gst_segment_to_running_time(&dec->out_segment, GST_FORMAT_TIME, end);
    return GST_CLOCK_TIME_IS_VALID(running) && running < earliest;
}

// The late frame's bytes are consumed and its time passes as if it had been sent.
static void gst_kalpng_dec_skip_late(GstKalPngDec* dec, GstClockTime in_duration) {
    const GstClockTime pts = dec->next_ts;
    const GstClockTime duration = gst_kalpng_dec_advance(dec, in_duration);
    gst_kalpng_dec_discard_png(dec);
    ++dec->dropped;
    GST_DEBUG_OBJECT(dec, "skipped a late frame at %" GST_TIME_FORMAT, GST_TIME_ARGS(pts));
    GstMessage* message = gst_message_new_qos(
        GST_OBJECT(dec), FALSE,
        gst_segment_to_running_time(&dec->out_segment, GST_FORMAT_TIME, pts),
        gst_segment_to_stream_time(&dec->out_segment, GST_FORMAT_TIME, pts), pts, duration);
    gst_message_set_qos_stats(message, GST_FORMAT_BUFFERS, dec->processed, dec->dropped);
    gst_element_post_message(GST_ELEMENT(dec), message);
}

// ---------------------------------------------------------------------------------------------
// The chain

// Negotiates and takes the output buffer the frame is decoded into. Answers GST_FLOW_FLUSHING
// when the pool is flushing: the PNG is then dropped, as a frame decoded during a flush would be.
static GstFlowReturn gst_kalpng_dec_prepare(GstKalPngDec* dec, const FrameHeader& header,
                                            GstVideoFormat format, bool reconfigure,
                                            BufferHolder& out, MappedFrame& mapped) {
    gst_kalpng_dec_negotiate(dec, header, format, reconfigure);
    const GstFlowReturn flow = gst_kalpng_dec_allocate(dec, out, mapped);
    if (flow != GST_FLOW_OK) gst_kalpng_dec_discard_png(dec);
    return flow;
}

static GstFlowReturn gst_kalpng_dec_send(GstKalPngDec* dec, BufferHolder& out,
                                         GstClockTime in_duration) {
    gst_kalpng_dec_stamp(dec, out.get(), in_duration);
    if (dec->segment->format == GST_FORMAT_TIME && !gst_kalpng_dec_clip(dec, out.get())) {
        return GST_FLOW_OK;
    }
    GST_INFO_OBJECT(
        dec, "ready to push an output buffer, ts=%" GST_TIME_FORMAT ", dur=%" GST_TIME_FORMAT,
        GST_TIME_ARGS(GST_BUFFER_PTS(out.get())), GST_TIME_ARGS(GST_BUFFER_DURATION(out.get())));
    const GstFlowReturn flow = gst_pad_push(dec->srcpad, out.release());
    if (flow != GST_FLOW_OK) GST_ERROR_OBJECT(dec, "could not push output buffer");
    return flow;
}

// Turns the complete PNG the input holds into a frame, decoded straight into the output
// buffer, or skips it when it is already late. A buffer that cannot be had ends the stream; a
// PNG that fails leaves nothing downstream, its buffer is dropped.
static GstFlowReturn gst_kalpng_dec_frame(GstKalPngDec* dec, const Settings& settings,
                                          GstClockTime in_duration) {
    kau::FirstReport first;
    if (settings.qos && gst_kalpng_dec_late(dec, in_duration)) {
        gst_kalpng_dec_skip_late(dec, in_duration);
        return GST_FLOW_OK;
    }
    const bool reconfigure = gst_pad_check_reconfigure(dec->srcpad);
    const GstVideoFormat format = reconfigure || dec->last_format == GST_VIDEO_FORMAT_UNKNOWN
                                      ? gst_kalpng_dec_choose_format(dec)
                                      : dec->last_format;
    FrameHeader header;
    BufferHolder out;
    MappedFrame mapped;
    if (gst_kalpng_dec_read_header(dec, settings, format, header)) {
        try {
            const GstFlowReturn flow =
                gst_kalpng_dec_prepare(dec, header, format, reconfigure, out, mapped);
            if (flow != GST_FLOW_OK) return flow;
        } catch (...) {
            kau::ReportCurrentException(kElementFile, kCatchChain);
            dec->failed = TRUE;
            gst_kalpng_dec_post_report(dec, true, first);
            return GST_FLOW_ERROR;
        }
    }
    try {
        gst_kalpng_dec_decode(dec, settings, format, mapped);
    } catch (...) {
        kau::ReportCurrentException(kElementFile, kCatchChain);
        return gst_kalpng_dec_bad_png(dec, settings, first);
    }
    dec->errors = 0;
    ++dec->processed;
    gst_video_frame_unmap(&mapped.frame);
    mapped.mapped = false;
    return gst_kalpng_dec_send(dec, out, in_duration);
}

// Where a PNG can start in a stream that tolerates bad input: at the signature, or at a piece
// of it that the end of the bytes cuts off.
static unsigned long gst_kalpng_dec_signature_offset(const guint8* bytes, unsigned long count) {
    for (unsigned long i = 0; i < count; ++i) {
        const unsigned long n = count - i < 8 ? count - i : 8;
        if (memcmp(bytes + i, kpng::kpngSignature, n) == 0) return i;
    }
    return count;
}

// Pushes the bytes into the input and answers whether they completed a PNG.
static GstFlowReturn gst_kalpng_dec_collect(GstKalPngDec* dec, const Settings& settings,
                                            const guint8* bytes, unsigned long count,
                                            bool* complete) {
    kau::FirstReport first;
    try {
        if (settings.Tolerant() && dec->input.signatureCount == 0) {
            const unsigned long skipped = gst_kalpng_dec_signature_offset(bytes, count);
            if (skipped) GST_DEBUG_OBJECT(dec, "skipping %lu bytes before a PNG", skipped);
            bytes += skipped;
            count -= skipped;
        }
        *complete = dec->input.Push(bytes, count) == 0;
        dec->input.CheckSize(settings.max_frame_bytes);
        return GST_FLOW_OK;
    } catch (...) {
        kau::ReportCurrentException(kElementFile, kCatchChain);
        *complete = false;
        return gst_kalpng_dec_bad_png(dec, settings, first);
    }
}

// Pushes the buffer's bytes into the input and sends out the frame they complete, if any.
// One buffer yields at most one frame: a second PNG already held waits for the next buffer.
static GstFlowReturn gst_kalpng_dec_chain(GstPad*, GstObject* parent, GstBuffer* buf) {
    GstKalPngDec* dec = GST_KALPNG_DEC(parent);
    const Settings settings = gst_kalpng_dec_settings(dec);
    if (GST_BUFFER_PTS_IS_VALID(buf)) dec->next_ts = GST_BUFFER_PTS(buf);

    GstMapInfo in;
    const bool mapped = gst_buffer_map(buf, &in, GST_MAP_READ);
    // An empty buffer maps to no memory: it is a push of nothing, which asks for more.
    const guint8* bytes = mapped && in.data ? in.data : kNoBytes;
    const unsigned long count = mapped ? in.size : 0;

    GstFlowReturn flow = GST_FLOW_OK;
    // Tolerating bad input, each buffer of a packetized stream that opens with a signature
    // starts a PNG, so that one cut short cannot take the next one for its missing bytes.
    if (settings.Tolerant() && dec->packetized && !dec->failed && dec->input.pngSize &&
        !dec->input.Complete() && count >= sizeof kpng::kpngSignature &&
        memcmp(bytes, kpng::kpngSignature, sizeof kpng::kpngSignature) == 0) {
        flow = gst_kalpng_dec_unfinished_png(dec, settings, false);
    }
    bool complete = false;
    if (flow == GST_FLOW_OK) flow = gst_kalpng_dec_collect(dec, settings, bytes, count, &complete);
    if (flow == GST_FLOW_OK && complete) {
        flow = gst_kalpng_dec_frame(dec, settings, GST_BUFFER_DURATION(buf));
    }

    if (mapped) gst_buffer_unmap(buf, &in);
    gst_buffer_unref(buf);
    return flow;
}

// At the end of the stream every complete PNG still held becomes a frame, in order; the bytes
// of an unfinished one are discarded with a warning. A stream that failed keeps what it holds.
static void gst_kalpng_dec_drain(GstKalPngDec* dec) {
    const Settings settings = gst_kalpng_dec_settings(dec);
    GstFlowReturn flow = GST_FLOW_OK;
    while (flow == GST_FLOW_OK && !dec->failed && dec->input.Complete()) {
        flow = gst_kalpng_dec_frame(dec, settings, GST_CLOCK_TIME_NONE);
    }
    if (flow == GST_FLOW_OK && !dec->failed && dec->input.pngSize) {
        gst_kalpng_dec_unfinished_png(dec, settings, true);
    }
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
