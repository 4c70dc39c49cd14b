// SPDX-License-Identifier: LGPL-2.1-or-later
#include "gstreamer/gstkavrelsrc.h"
#include "gstreamer/kavrelsrcconfig.h"

#include "api/interface.h"

#include <cstring>
#include <string>

GST_DEBUG_CATEGORY_STATIC(gst_kavrel_src_debug);
#define GST_CAT_DEFAULT gst_kavrel_src_debug

namespace {

// A request waits at most this long before the element looks whether it is
// being unlocked, so a state change to NULL never waits for a whole time-out.
const int kRequestSliceMs = 50;
const int kDefaultTimeoutMs = 5000;
const int kPoolMinBuffers = 1;

const char kDefaultConfig[] =
    "<CCDPos>0</CCDPos><PixFmt>1</PixFmt><ROI>0,0</ROI>"
    "<Settings><Gain>8</Gain><Exposure>20000</Exposure><Gamma>1.00</Gamma>"
    "<WhiteBalance>1.00,1.00,1.00</WhiteBalance><TriggerType>Video</TriggerType></Settings>";

enum { PROP_0, PROP_CAMERA, PROP_CONFIG, PROP_TIMEOUT, PROP_TRIGGER };

// KavrelInterface is one object per process: its control calls and its shared
// text buffer need the host to serialise them, across every kavrelsrc in the
// process. A camera also serves one element at a time.
GMutex g_apiLock;
bool g_cameraInUse[2] = {false, false};

const char kSrcCaps[] =
    "video/x-raw, format = (string) { GRAY8, BGR, RGB }, "
    "width = (int) [ 1, 2147483647 ], height = (int) [ 1, 2147483647 ], "
    "framerate = (fraction) 0/1, pixel-aspect-ratio = (fraction) 1/1";

GstStaticPadTemplate g_srcTemplate =
    GST_STATIC_PAD_TEMPLATE("src", GST_PAD_SRC, GST_PAD_ALWAYS, GST_STATIC_CAPS(kSrcCaps));

} // namespace

struct _GstKavrelSrc {
    GstPushSrc parent;

    // Properties (under the object lock).
    GstKavrelCamera eCamera;
    gchar* pszConfig;
    gint nTimeoutMs;
    gboolean bTrigger;

    // Streaming state, set by start/negotiate, read by fill.
    GstKavrelCamera eActiveCamera;
    std::string* pConfig;        // the configuration the element started with
    std::string* pApplied;       // the one negotiation last handed to the camera
    bool bTriggerActive;
    bool bSoftTriggerMode;       // the configuration asks for software triggers
    gint nTimeoutActive;
    bool bConnected;
    bool bStarted;
    bool bSwapRB;                // RGB caps: the library delivers B, G, R
    GstVideoInfo cInfo;
    bool bInfoValid;
    GstBuffer* pHeld;            // the frame negotiation waited for, sent first
    guint64 nOffset;
    gint bFlushing;              // atomic
};

G_DEFINE_TYPE(GstKavrelSrc, gst_kavrel_src, GST_TYPE_PUSH_SRC)

GType gst_kavrel_camera_get_type(void)
{
    static gsize s_type = 0;
    static const GEnumValue s_values[] = {
        {GST_KAVREL_CAMERA_MAIN, "The Main camera", "main"},
        {GST_KAVREL_CAMERA_SLAVER, "The Slaver camera", "slaver"},
        {0, nullptr, nullptr}};
    if (g_once_init_enter(&s_type))
        g_once_init_leave(&s_type, g_enum_register_static("GstKavrelCamera", s_values));
    return s_type;
}

namespace {

const char* cameraName(GstKavrelCamera e)
{
    return e == GST_KAVREL_CAMERA_SLAVER ? "Slaver" : "Main";
}

// One camera's operations of KavrelInterface, chosen once.
struct CameraOps {
    void (KavrelInterface::*setConfig)(char*);
    bool (KavrelInterface::*connect)();
    void (KavrelInterface::*disconnect)();
    bool (KavrelInterface::*start)();
    void (KavrelInterface::*stop)();
    bool (KavrelInterface::*click)();
    unsigned char* (KavrelInterface::*request)(int*, int*, int*, int);
    void (KavrelInterface::*release)(unsigned char*);
};

const CameraOps& ops(GstKavrelCamera e)
{
    static const CameraOps s_main = {
        &KavrelInterface::setConfigStringMain, &KavrelInterface::connectMain,
        &KavrelInterface::disconnectMain,      &KavrelInterface::startMain,
        &KavrelInterface::stopMain,            &KavrelInterface::clickMain,
        &KavrelInterface::requestImageMain,    &KavrelInterface::releaseImageMain};
    static const CameraOps s_slaver = {
        &KavrelInterface::setConfigStringSlaver, &KavrelInterface::connectSlaver,
        &KavrelInterface::disconnectSlaver,      &KavrelInterface::startSlaver,
        &KavrelInterface::stopSlaver,            &KavrelInterface::clickSlaver,
        &KavrelInterface::requestImageSlaver,    &KavrelInterface::releaseImageSlaver};
    return e == GST_KAVREL_CAMERA_SLAVER ? s_slaver : s_main;
}

KavrelInterface* api()
{
    return KavrelInterface::getInstance();
}

// getLastError() as a string the caller owns; call with g_apiLock held.
std::string lastError()
{
    const char* psz = api()->getLastError();
    return psz && *psz ? psz : "no reason given";
}

// Closes the camera; call with g_apiLock held.
void closeCamera(GstKavrelSrc* self)
{
    const CameraOps& o = ops(self->eActiveCamera);
    if (self->bStarted)
        (api()->*o.stop)();
    if (self->bConnected)
        (api()->*o.disconnect)();
    self->bStarted = false;
    self->bConnected = false;
}

// Hands the configuration to the camera and opens it (and starts it when
// bStart); posts the library's text as an error message when it fails.
bool openCamera(GstKavrelSrc* self, const std::string& strConfig, bool bStart)
{
    const CameraOps& o = ops(self->eActiveCamera);
    const char* pszCamera = cameraName(self->eActiveCamera);
    g_mutex_lock(&g_apiLock);
    closeCamera(self);
    std::string strCopy = strConfig; // setConfigString takes a char*
    (api()->*o.setConfig)(&strCopy[0]);
    std::string strError;
    if (!(api()->*o.connect)()) {
        strError = lastError();
        g_mutex_unlock(&g_apiLock);
        GST_ELEMENT_ERROR(self, RESOURCE, OPEN_READ, ("Could not connect the %s camera: %s", pszCamera, strError.c_str()),
                          ("configuration: %s", strConfig.c_str()));
        return false;
    }
    self->bConnected = true;
    if (bStart) {
        if (!(api()->*o.start)()) {
            strError = lastError();
            closeCamera(self);
            g_mutex_unlock(&g_apiLock);
            GST_ELEMENT_ERROR(self, RESOURCE, OPEN_READ, ("Could not start the %s camera: %s", pszCamera, strError.c_str()),
                              ("configuration: %s", strConfig.c_str()));
            return false;
        }
        self->bStarted = true;
    }
    g_mutex_unlock(&g_apiLock);
    return true;
}

enum class Wait { Frame, Flushing, TimedOut, Failed };

// Waits for the camera's next frame in slices, so unlock() is noticed within
// one slice; fires the software trigger first when asked to.
Wait waitFrame(GstKavrelSrc* self, unsigned char** ppImage, int* pnWidth, int* pnBytesPerLine, int* pnHeight)
{
    const CameraOps& o = ops(self->eActiveCamera);
    if (self->bTriggerActive) {
        g_mutex_lock(&g_apiLock);
        const bool bClicked = (api()->*o.click)();
        const std::string strError = bClicked ? std::string() : lastError();
        g_mutex_unlock(&g_apiLock);
        if (!bClicked) {
            GST_ELEMENT_ERROR(self, RESOURCE, FAILED,
                              ("The %s camera refused the software trigger: %s", cameraName(self->eActiveCamera),
                               strError.c_str()),
                              (nullptr));
            return Wait::Failed;
        }
    }
    const gint64 tDeadline =
        self->nTimeoutActive > 0 ? g_get_monotonic_time() + gint64(self->nTimeoutActive) * G_TIME_SPAN_MILLISECOND : 0;
    for (;;) {
        if (g_atomic_int_get(&self->bFlushing))
            return Wait::Flushing;
        int nSlice = kRequestSliceMs;
        if (tDeadline) {
            const gint64 nLeft = (tDeadline - g_get_monotonic_time() + G_TIME_SPAN_MILLISECOND - 1) / G_TIME_SPAN_MILLISECOND;
            if (nLeft <= 0)
                return Wait::TimedOut;
            nSlice = int(MIN(nLeft, gint64(kRequestSliceMs)));
        }
        if (unsigned char* p = (api()->*o.request)(pnWidth, pnBytesPerLine, pnHeight, nSlice)) {
            *ppImage = p;
            return Wait::Frame;
        }
    }
}

void postTimeout(GstKavrelSrc* self)
{
    GST_ELEMENT_ERROR(self, RESOURCE, READ,
                      ("No frame from the %s camera within %d ms", cameraName(self->eActiveCamera),
                       self->nTimeoutActive),
                      ("%s", self->bSoftTriggerMode && !self->bTriggerActive
                                 ? "the camera is in software-trigger mode: set trigger=true"
                                 : "see the timeout property"));
}

// One copy from the lent image into the buffer: line by line when the strides
// differ, swapping red and blue for RGB.
bool copyImage(GstKavrelSrc* self, const unsigned char* pImage, int nBytesPerLine, GstBuffer* pBuf)
{
    GstVideoFrame cFrame;
    if (!gst_video_frame_map(&cFrame, &self->cInfo, pBuf, GST_MAP_WRITE))
        return false;
    const int nWidth = GST_VIDEO_FRAME_WIDTH(&cFrame);
    const int nHeight = GST_VIDEO_FRAME_HEIGHT(&cFrame);
    const int nStride = GST_VIDEO_FRAME_PLANE_STRIDE(&cFrame, 0);
    const int nPixelBytes = GST_VIDEO_FRAME_COMP_PSTRIDE(&cFrame, 0);
    const size_t nLine = size_t(nWidth) * size_t(nPixelBytes);
    guint8* pOut = static_cast<guint8*>(GST_VIDEO_FRAME_PLANE_DATA(&cFrame, 0));
    if (self->bSwapRB) {
        kavrel_gst_copy_swap_rb(pImage, nBytesPerLine, pOut, nStride, nWidth, nHeight);
    } else if (nStride == nBytesPerLine && size_t(nStride) == nLine) {
        std::memcpy(pOut, pImage, nLine * size_t(nHeight));
    } else {
        for (int y = 0; y < nHeight; ++y)
            std::memcpy(pOut + size_t(y) * nStride, pImage + size_t(y) * nBytesPerLine, nLine);
    }
    gst_video_frame_unmap(&cFrame);
    return true;
}

// Running time of the pipeline clock now, the moment a frame has arrived.
GstClockTime captureTime(GstKavrelSrc* self)
{
    GstClockTime t = GST_CLOCK_TIME_NONE;
    GST_OBJECT_LOCK(self);
    GstClock* pClock = GST_ELEMENT_CLOCK(self);
    if (pClock) {
        const GstClockTime tBase = GST_ELEMENT_CAST(self)->base_time;
        const GstClockTime tNow = gst_clock_get_time(pClock);
        t = tNow > tBase ? tNow - tBase : 0;
    }
    GST_OBJECT_UNLOCK(self);
    return t;
}

bool sameGeometry(GstKavrelSrc* self, int nWidth, int nBytesPerLine, int nHeight)
{
    const int nPixelBytes = GST_VIDEO_INFO_COMP_PSTRIDE(&self->cInfo, 0);
    return nWidth == GST_VIDEO_INFO_WIDTH(&self->cInfo) && nHeight == GST_VIDEO_INFO_HEIGHT(&self->cInfo) &&
           nBytesPerLine >= nWidth * nPixelBytes;
}

void postGeometryError(GstKavrelSrc* self, int nWidth, int nBytesPerLine, int nHeight)
{
    GST_ELEMENT_ERROR(self, STREAM, FORMAT,
                      ("The %s camera delivered %d x %d (%d bytes per line), not the negotiated %d x %d %s",
                       cameraName(self->eActiveCamera), nWidth, nHeight, nBytesPerLine,
                       GST_VIDEO_INFO_WIDTH(&self->cInfo), GST_VIDEO_INFO_HEIGHT(&self->cInfo),
                       GST_VIDEO_INFO_NAME(&self->cInfo)),
                      ("a camera that refuses a size keeps the window it had"));
}

} // namespace

// --- GObject -------------------------------------------------------------------

static void gst_kavrel_src_set_property(GObject* object, guint prop_id, const GValue* value, GParamSpec* pspec)
{
    GstKavrelSrc* self = GST_KAVREL_SRC(object);
    GST_OBJECT_LOCK(self);
    switch (prop_id) {
    case PROP_CAMERA:
        self->eCamera = static_cast<GstKavrelCamera>(g_value_get_enum(value));
        break;
    case PROP_CONFIG:
        g_free(self->pszConfig);
        self->pszConfig = g_value_dup_string(value);
        if (!self->pszConfig)
            self->pszConfig = g_strdup(kDefaultConfig);
        break;
    case PROP_TIMEOUT:
        self->nTimeoutMs = g_value_get_int(value);
        break;
    case PROP_TRIGGER:
        self->bTrigger = g_value_get_boolean(value);
        break;
    default:
        G_OBJECT_WARN_INVALID_PROPERTY_ID(object, prop_id, pspec);
        break;
    }
    GST_OBJECT_UNLOCK(self);
}

static void gst_kavrel_src_get_property(GObject* object, guint prop_id, GValue* value, GParamSpec* pspec)
{
    GstKavrelSrc* self = GST_KAVREL_SRC(object);
    GST_OBJECT_LOCK(self);
    switch (prop_id) {
    case PROP_CAMERA:
        g_value_set_enum(value, self->eCamera);
        break;
    case PROP_CONFIG:
        g_value_set_string(value, self->pszConfig);
        break;
    case PROP_TIMEOUT:
        g_value_set_int(value, self->nTimeoutMs);
        break;
    case PROP_TRIGGER:
        g_value_set_boolean(value, self->bTrigger);
        break;
    default:
        G_OBJECT_WARN_INVALID_PROPERTY_ID(object, prop_id, pspec);
        break;
    }
    GST_OBJECT_UNLOCK(self);
}

static void gst_kavrel_src_finalize(GObject* object)
{
    GstKavrelSrc* self = GST_KAVREL_SRC(object);
    g_free(self->pszConfig);
    delete self->pConfig;
    delete self->pApplied;
    gst_buffer_replace(&self->pHeld, nullptr);
    G_OBJECT_CLASS(gst_kavrel_src_parent_class)->finalize(object);
}

// --- GstBaseSrc ------------------------------------------------------------------

static gboolean gst_kavrel_src_start(GstBaseSrc* src)
{
    GstKavrelSrc* self = GST_KAVREL_SRC(src);
    GST_OBJECT_LOCK(self);
    self->eActiveCamera = self->eCamera;
    *self->pConfig = self->pszConfig ? self->pszConfig : kDefaultConfig;
    self->bTriggerActive = self->bTrigger;
    self->nTimeoutActive = self->nTimeoutMs;
    GST_OBJECT_UNLOCK(self);

    g_mutex_lock(&g_apiLock);
    const bool bBusy = g_cameraInUse[self->eActiveCamera];
    g_cameraInUse[self->eActiveCamera] = true;
    g_mutex_unlock(&g_apiLock);
    if (bBusy) {
        GST_ELEMENT_ERROR(self, RESOURCE, BUSY,
                          ("The %s camera is already in use by another kavrelsrc", cameraName(self->eActiveCamera)),
                          (nullptr));
        return FALSE;
    }
    self->bInfoValid = false;
    self->nOffset = 0;
    // Connecting here reports a missing camera at the state change already;
    // negotiation then sets the format and size the caps chose.
    if (!openCamera(self, *self->pConfig, false)) {
        g_mutex_lock(&g_apiLock);
        g_cameraInUse[self->eActiveCamera] = false;
        g_mutex_unlock(&g_apiLock);
        return FALSE;
    }
    return TRUE;
}

static gboolean gst_kavrel_src_stop(GstBaseSrc* src)
{
    GstKavrelSrc* self = GST_KAVREL_SRC(src);
    g_mutex_lock(&g_apiLock);
    closeCamera(self);
    g_cameraInUse[self->eActiveCamera] = false;
    g_mutex_unlock(&g_apiLock);
    gst_buffer_replace(&self->pHeld, nullptr);
    self->bInfoValid = false;
    return TRUE;
}

static gboolean gst_kavrel_src_negotiate(GstBaseSrc* src)
{
    GstKavrelSrc* self = GST_KAVREL_SRC(src);
    GstPad* pPad = GST_BASE_SRC_PAD(src);
    GstCaps* pTemplate = gst_pad_get_pad_template_caps(pPad);
    GstCaps* pPeer = gst_pad_peer_query_caps(pPad, pTemplate);
    gst_caps_unref(pTemplate);
    if (!pPeer || gst_caps_is_empty(pPeer)) {
        if (pPeer)
            gst_caps_unref(pPeer);
        GST_ELEMENT_ERROR(self, STREAM, FORMAT, ("Downstream accepts none of GRAY8, BGR and RGB video"), (nullptr));
        return FALSE;
    }

    const KavrelSrcConfig cConfig = kavrel_gst_parse_config(*self->pConfig);
    self->bSoftTriggerMode = cConfig.bSoftTrigger;
    KavrelSrcChoice cChoice;
    if (!kavrel_gst_choose(pPeer, cConfig, &cChoice)) {
        gchar* pszPeer = gst_caps_to_string(pPeer);
        GST_ELEMENT_ERROR(self, STREAM, FORMAT, ("Downstream accepts no video this camera can deliver"),
                          ("downstream caps: %s", pszPeer));
        g_free(pszPeer);
        gst_caps_unref(pPeer);
        return FALSE;
    }
    GST_DEBUG_OBJECT(self, "format %s, size %d x %d (0: the sensor's)", cChoice.pszFormat, cChoice.nWidth,
                     cChoice.nHeight);
    const std::string strApplied = kavrel_gst_config_for(cChoice, *self->pConfig);
    if (self->bStarted && self->bInfoValid && strApplied == *self->pApplied) {
        // A reconfigure that changes nothing (a display's window, say) keeps
        // the camera running and the caps as they are, if still accepted.
        GstCaps* pCurrent = gst_video_info_to_caps(&self->cInfo);
        if (gst_caps_can_intersect(pCurrent, pPeer)) {
            gst_caps_unref(pPeer);
            const gboolean bSet = gst_base_src_set_caps(src, pCurrent);
            gst_caps_unref(pCurrent);
            return bSet;
        }
        gst_caps_unref(pCurrent);
    }
    if (!openCamera(self, strApplied, true)) {
        gst_caps_unref(pPeer);
        return FALSE;
    }
    *self->pApplied = strApplied;
    self->bSwapRB = cChoice.bSwapRB;

    int nWidth = cChoice.nWidth;
    int nHeight = cChoice.nHeight;
    gst_buffer_replace(&self->pHeld, nullptr);
    unsigned char* pImage = nullptr;
    int nFrameWidth = 0, nFrameBpl = 0, nFrameHeight = 0;
    if (nWidth == 0 || nHeight == 0) {
        // The sensor decides the size: the first frame tells it, and is kept.
        switch (waitFrame(self, &pImage, &nFrameWidth, &nFrameBpl, &nFrameHeight)) {
        case Wait::Frame:
            break;
        case Wait::TimedOut:
            postTimeout(self);
            /* fall through */
        case Wait::Failed:
        case Wait::Flushing:
            gst_caps_unref(pPeer);
            return FALSE;
        }
        nWidth = nFrameWidth;
        nHeight = nFrameHeight;
    }

    GstVideoInfo cInfo;
    if (nWidth <= 0 || nHeight <= 0 ||
        !gst_video_info_set_format(&cInfo, gst_video_format_from_string(cChoice.pszFormat), guint(nWidth),
                                   guint(nHeight))) {
        if (pImage)
            (api()->*ops(self->eActiveCamera).release)(pImage);
        gst_caps_unref(pPeer);
        GST_ELEMENT_ERROR(self, STREAM, FORMAT,
                          ("The %s camera delivered an image of %d x %d, which GStreamer cannot describe",
                           cameraName(self->eActiveCamera), nWidth, nHeight),
                          (nullptr));
        return FALSE;
    }
    GST_VIDEO_INFO_FPS_N(&cInfo) = 0;
    GST_VIDEO_INFO_FPS_D(&cInfo) = 1;
    GstCaps* pCaps = gst_video_info_to_caps(&cInfo);
    const bool bAccepted = gst_caps_can_intersect(pCaps, pPeer);
    gst_caps_unref(pPeer);
    self->cInfo = cInfo;
    self->bInfoValid = true;
    if (pImage && !sameGeometry(self, nFrameWidth, nFrameBpl, nFrameHeight)) {
        (api()->*ops(self->eActiveCamera).release)(pImage);
        postGeometryError(self, nFrameWidth, nFrameBpl, nFrameHeight);
        gst_caps_unref(pCaps);
        return FALSE;
    }
    if (pImage) {
        self->pHeld = gst_buffer_new_allocate(nullptr, GST_VIDEO_INFO_SIZE(&cInfo), nullptr);
        gst_buffer_add_video_meta_full(self->pHeld, GST_VIDEO_FRAME_FLAG_NONE, GST_VIDEO_INFO_FORMAT(&cInfo),
                                       GST_VIDEO_INFO_WIDTH(&cInfo), GST_VIDEO_INFO_HEIGHT(&cInfo), 1, cInfo.offset,
                                       cInfo.stride);
        const bool bCopied = copyImage(self, pImage, nFrameBpl, self->pHeld);
        (api()->*ops(self->eActiveCamera).release)(pImage);
        if (bCopied)
            GST_BUFFER_PTS(self->pHeld) = captureTime(self);
        else
            gst_buffer_replace(&self->pHeld, nullptr);
    }
    if (!bAccepted) {
        gchar* pszCaps = gst_caps_to_string(pCaps);
        GST_ELEMENT_ERROR(self, STREAM, FORMAT, ("The %s camera delivers %s, which downstream does not accept",
                                                 cameraName(self->eActiveCamera), pszCaps),
                          (nullptr));
        g_free(pszCaps);
        gst_caps_unref(pCaps);
        return FALSE;
    }
    const gboolean bSet = gst_base_src_set_caps(src, pCaps);
    gst_caps_unref(pCaps);
    return bSet;
}

static gboolean gst_kavrel_src_decide_allocation(GstBaseSrc* src, GstQuery* query)
{
    GstCaps* pCaps = nullptr;
    gst_query_parse_allocation(query, &pCaps, nullptr);
    GstVideoInfo cInfo;
    if (!pCaps || !gst_video_info_from_caps(&cInfo, pCaps))
        return FALSE;

    GstBufferPool* pPool = nullptr;
    guint nSize = 0, nMin = 0, nMax = 0;
    const bool bUpdate = gst_query_get_n_allocation_pools(query) > 0;
    if (bUpdate)
        gst_query_parse_nth_allocation_pool(query, 0, &pPool, &nSize, &nMin, &nMax);
    if (!pPool)
        pPool = gst_video_buffer_pool_new();
    nSize = MAX(nSize, guint(GST_VIDEO_INFO_SIZE(&cInfo)));
    nMin = MAX(nMin, guint(kPoolMinBuffers));
    if (nMax != 0 && nMax < nMin)
        nMax = nMin;

    GstStructure* pConfig = gst_buffer_pool_get_config(pPool);
    gst_buffer_pool_config_set_params(pConfig, pCaps, nSize, nMin, nMax);
    if (gst_query_find_allocation_meta(query, GST_VIDEO_META_API_TYPE, nullptr))
        gst_buffer_pool_config_add_option(pConfig, GST_BUFFER_POOL_OPTION_VIDEO_META);
    if (!gst_buffer_pool_set_config(pPool, pConfig)) {
        // A downstream pool may change the parameters; take them if they fit.
        pConfig = gst_buffer_pool_get_config(pPool);
        if (!gst_buffer_pool_config_validate_params(pConfig, pCaps, nSize, nMin, nMax)) {
            gst_structure_free(pConfig);
            gst_object_unref(pPool);
            pPool = gst_video_buffer_pool_new();
            pConfig = gst_buffer_pool_get_config(pPool);
            gst_buffer_pool_config_set_params(pConfig, pCaps, nSize, nMin, nMax);
        }
        if (!gst_buffer_pool_set_config(pPool, pConfig)) {
            gst_object_unref(pPool);
            GST_ELEMENT_ERROR(src, RESOURCE, SETTINGS, ("Could not configure a buffer pool"), (nullptr));
            return FALSE;
        }
    }
    if (bUpdate)
        gst_query_set_nth_allocation_pool(query, 0, pPool, nSize, nMin, nMax);
    else
        gst_query_add_allocation_pool(query, pPool, nSize, nMin, nMax);
    gst_object_unref(pPool);
    return TRUE;
}

static gboolean gst_kavrel_src_unlock(GstBaseSrc* src)
{
    g_atomic_int_set(&GST_KAVREL_SRC(src)->bFlushing, 1);
    return TRUE;
}

static gboolean gst_kavrel_src_unlock_stop(GstBaseSrc* src)
{
    g_atomic_int_set(&GST_KAVREL_SRC(src)->bFlushing, 0);
    return TRUE;
}

static gboolean gst_kavrel_src_query(GstBaseSrc* src, GstQuery* query)
{
    if (GST_QUERY_TYPE(query) == GST_QUERY_LATENCY) {
        // Frames are stamped when they arrive, so they carry no latency of
        // their own; with no frame rate there is no upper bound either.
        gst_query_set_latency(query, TRUE, 0, GST_CLOCK_TIME_NONE);
        return TRUE;
    }
    return GST_BASE_SRC_CLASS(gst_kavrel_src_parent_class)->query(src, query);
}

static GstFlowReturn gst_kavrel_src_fill(GstPushSrc* psrc, GstBuffer* buf)
{
    GstKavrelSrc* self = GST_KAVREL_SRC(psrc);
    if (!self->bInfoValid)
        return GST_FLOW_NOT_NEGOTIATED;

    GstClockTime tCapture;
    if (self->pHeld) {
        GstBuffer* pHeld = self->pHeld;
        self->pHeld = nullptr;
        GstVideoFrame cIn, cOut;
        bool bCopied = false;
        if (gst_video_frame_map(&cIn, &self->cInfo, pHeld, GST_MAP_READ)) {
            if (gst_video_frame_map(&cOut, &self->cInfo, buf, GST_MAP_WRITE)) {
                bCopied = gst_video_frame_copy(&cOut, &cIn);
                gst_video_frame_unmap(&cOut);
            }
            gst_video_frame_unmap(&cIn);
        }
        tCapture = GST_BUFFER_PTS(pHeld);
        gst_buffer_unref(pHeld);
        if (!bCopied)
            return GST_FLOW_ERROR;
    } else {
        unsigned char* pImage = nullptr;
        int nWidth = 0, nBytesPerLine = 0, nHeight = 0;
        switch (waitFrame(self, &pImage, &nWidth, &nBytesPerLine, &nHeight)) {
        case Wait::Frame:
            break;
        case Wait::Flushing:
            return GST_FLOW_FLUSHING;
        case Wait::TimedOut:
            postTimeout(self);
            return GST_FLOW_ERROR;
        case Wait::Failed:
            return GST_FLOW_ERROR;
        }
        tCapture = captureTime(self);
        const CameraOps& o = ops(self->eActiveCamera);
        if (!sameGeometry(self, nWidth, nBytesPerLine, nHeight)) {
            (api()->*o.release)(pImage);
            postGeometryError(self, nWidth, nBytesPerLine, nHeight);
            return GST_FLOW_ERROR;
        }
        const bool bCopied = copyImage(self, pImage, nBytesPerLine, buf);
        // Released at once: the camera's next frame may not wait for downstream.
        (api()->*o.release)(pImage);
        if (!bCopied)
            return GST_FLOW_ERROR;
    }
    GST_BUFFER_PTS(buf) = tCapture;
    GST_BUFFER_DTS(buf) = GST_CLOCK_TIME_NONE;
    GST_BUFFER_DURATION(buf) = GST_CLOCK_TIME_NONE;
    GST_BUFFER_OFFSET(buf) = self->nOffset;
    GST_BUFFER_OFFSET_END(buf) = ++self->nOffset;
    return GST_FLOW_OK;
}

// --- registration ----------------------------------------------------------------

static void gst_kavrel_src_class_init(GstKavrelSrcClass* klass)
{
    GObjectClass* gobject_class = G_OBJECT_CLASS(klass);
    GstElementClass* element_class = GST_ELEMENT_CLASS(klass);
    GstBaseSrcClass* basesrc_class = GST_BASE_SRC_CLASS(klass);
    GstPushSrcClass* pushsrc_class = GST_PUSH_SRC_CLASS(klass);

    gobject_class->set_property = gst_kavrel_src_set_property;
    gobject_class->get_property = gst_kavrel_src_get_property;
    gobject_class->finalize = gst_kavrel_src_finalize;

    const GParamFlags eFlags =
        GParamFlags(G_PARAM_READWRITE | G_PARAM_STATIC_STRINGS | GST_PARAM_MUTABLE_READY);
    g_object_class_install_property(
        gobject_class, PROP_CAMERA,
        g_param_spec_enum("camera", "Camera", "Which camera of the library: main or slaver", GST_TYPE_KAVREL_CAMERA,
                          GST_KAVREL_CAMERA_MAIN, eFlags));
    g_object_class_install_property(
        gobject_class, PROP_CONFIG,
        g_param_spec_string("config", "Configuration",
                            "The camera's configuration string (see the Kavrel README). A setting left out reads "
                            "as 0 (exposure 0 gives black frames), so start from the default. Caps with a format "
                            "or a size override its <PixFmt> and <ROI>",
                            kDefaultConfig, eFlags));
    g_object_class_install_property(
        gobject_class, PROP_TIMEOUT,
        g_param_spec_int("timeout", "Time-out",
                         "Milliseconds to wait for one frame before posting an error; 0 waits for ever "
                         "(for example for a hardware trigger)",
                         0, G_MAXINT, kDefaultTimeoutMs, eFlags));
    g_object_class_install_property(
        gobject_class, PROP_TRIGGER,
        g_param_spec_boolean("trigger", "Software trigger",
                             "Fire a software trigger before each frame (for <TriggerType>soft</TriggerType>)",
                             FALSE, eFlags));

    gst_element_class_set_static_metadata(element_class, "Kavrel camera source", "Source/Video",
                                          "Frames of a Kavrel camera (Main or Slaver) through libKavrel",
                                          "Kavrel developers <kavrel-devel@example.org>");
    gst_element_class_add_static_pad_template(element_class, &g_srcTemplate);

    basesrc_class->start = gst_kavrel_src_start;
    basesrc_class->stop = gst_kavrel_src_stop;
    basesrc_class->negotiate = gst_kavrel_src_negotiate;
    basesrc_class->decide_allocation = gst_kavrel_src_decide_allocation;
    basesrc_class->unlock = gst_kavrel_src_unlock;
    basesrc_class->unlock_stop = gst_kavrel_src_unlock_stop;
    basesrc_class->query = gst_kavrel_src_query;
    pushsrc_class->fill = gst_kavrel_src_fill;

    gst_type_mark_as_plugin_api(GST_TYPE_KAVREL_CAMERA, GstPluginAPIFlags(0));
    GST_DEBUG_CATEGORY_INIT(gst_kavrel_src_debug, "kavrelsrc", 0, "Kavrel camera source");
}

static void gst_kavrel_src_init(GstKavrelSrc* self)
{
    self->eCamera = GST_KAVREL_CAMERA_MAIN;
    self->pszConfig = g_strdup(kDefaultConfig);
    self->nTimeoutMs = kDefaultTimeoutMs;
    self->bTrigger = FALSE;
    self->eActiveCamera = GST_KAVREL_CAMERA_MAIN;
    self->pConfig = new std::string();
    self->pApplied = new std::string();
    self->bTriggerActive = false;
    self->bSoftTriggerMode = false;
    self->nTimeoutActive = kDefaultTimeoutMs;
    self->bConnected = false;
    self->bStarted = false;
    self->bSwapRB = false;
    self->bInfoValid = false;
    self->pHeld = nullptr;
    self->nOffset = 0;
    self->bFlushing = 0;
    gst_base_src_set_live(GST_BASE_SRC(self), TRUE);
    gst_base_src_set_format(GST_BASE_SRC(self), GST_FORMAT_TIME);
}

static gboolean plugin_init(GstPlugin* plugin)
{
    return gst_element_register(plugin, "kavrelsrc", GST_RANK_NONE, GST_TYPE_KAVREL_SRC);
}

#define PACKAGE "kavrel"
GST_PLUGIN_DEFINE(GST_VERSION_MAJOR, GST_VERSION_MINOR, kavrel, "Kavrel cameras as a GStreamer source", plugin_init,
                  KAVREL_VERSION, "LGPL", "Kavrel", "https://example.org/kavrel")
