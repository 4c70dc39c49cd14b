// SPDX-License-Identifier: LGPL-2.1-or-later
// Simulated camera: stands in for the vendor's libtorvane.so so that the
// library, its hosts and its tests run without hardware.
//
// One camera (number 0) behind one mutex and one condition variable. Frames
// are generated on demand from a cached, brightness-scaled base picture that is
// scrolled sideways with the frame number; the counter is drawn on top and also
// written machine-readably into the first eight pixels.
//
// Lifetime of a frame handed out by get_frame_timeout: it lives in a buffer of
// the calling thread, so it stays valid until the same thread's next
// get_frame_timeout call (or the thread's end). Other threads, and every other
// SDK or control call, never touch it, so two users can fetch and read frames
// at the same time. The strict mode instead keeps the SDK's documented
// lifetime to the letter: one buffer for all, valid until the next SDK call.

#include "torvane.h"
#include "torvanesim.h"

#include <algorithm>
#include <chrono>
#include <climits>
#include <cmath>
#include <condition_variable>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <deque>
#include <memory>
#include <mutex>
#include <vector>

namespace {

using Clock = std::chrono::steady_clock;

constexpr int kDefaultWidth = 1280;
constexpr int kDefaultHeight = 960;
constexpr int kDefaultBpp = 3;
constexpr double kDefaultFps = 30.0;
constexpr int kDefaultExposure = 20000;
constexpr int kLogCapacity = 10000;
constexpr int kLogEntrySize = 80; // the longest entry we format is about 60 characters
constexpr std::chrono::milliseconds kStarveCap{50};

// Frames that cannot be held in memory (byte count beyond int, or empty) point here.
unsigned char gDummyFrame[64];

// Byte count of a frame, or -1 when it is not a positive number that fits an int.
long long frameBytes(int width, int height, int bpp)
{
    if (width < 1 || height < 1 || bpp < 1)
        return -1;
    long long n = static_cast<long long>(width) * height;
    if (n > INT_MAX)
        return -1;
    n *= bpp; // both factors are below 2^31: no overflow in 64 bits
    return n <= INT_MAX ? n : -1;
}

// ---------------------------------------------------------------- test pattern

// Base picture for one geometry, exposure and gain. Immutable once built, so
// renderers read it without a lock.
struct Base {
    int width, height, bpp, exposure, gain;
    std::vector<unsigned char> pixels;
};

unsigned char scaleLut(int v, double factor)
{
    const double x = v * factor;
    if (!(x > 0.0))
        return 0;
    return x >= 255.0 ? 255 : static_cast<unsigned char>(x);
}

std::shared_ptr<const Base> buildBase(int width, int height, int bpp, int exposure, int gain)
{
    // Brightness follows exposure and gain: exposure 20000 and gain 0 give the
    // pattern as drawn; everything saturates at 255.
    const double factor = exposure / 20000.0 * (1.0 + gain / 16.0);
    unsigned char lut[256];
    for (int v = 0; v < 256; ++v)
        lut[v] = scaleLut(v, factor);

    // Eight colour bars (B, G, R) over the top two thirds, darkening downwards;
    // a grey ramp below them.
    static const unsigned char bars[8][3] = {
        {255, 255, 255}, {0, 255, 255}, {255, 255, 0}, {0, 255, 0},
        {255, 0, 255},   {0, 0, 255},   {255, 0, 0},   {0, 0, 0}};

    auto base = std::make_shared<Base>();
    *base = Base{width, height, bpp, exposure, gain, {}};
    base->pixels.resize(static_cast<size_t>(width) * height * bpp);
    const long long barsEnd = static_cast<long long>(height) * 2 / 3;
    for (int y = 0; y < height; ++y) {
        unsigned char *row = base->pixels.data() + static_cast<size_t>(y) * width * bpp;
        const int shade = y < barsEnd ? 255 - static_cast<int>(y * 128LL / barsEnd) : 0;
        for (int x = 0; x < width; ++x) {
            int b, g, r;
            if (y < barsEnd) {
                const unsigned char *c = bars[static_cast<long long>(x) * 8 / width];
                b = c[0] * shade / 255;
                g = c[1] * shade / 255;
                r = c[2] * shade / 255;
            } else {
                b = g = r = width > 1 ? static_cast<int>(x * 255LL / (width - 1)) : 128;
            }
            const unsigned char grey = lut[(29 * b + 150 * g + 77 * r) >> 8];
            unsigned char *px = row + static_cast<size_t>(x) * bpp;
            if (bpp >= 3) {
                px[0] = lut[b];
                px[1] = lut[g];
                px[2] = lut[r];
                for (int c = 3; c < bpp; ++c)
                    px[c] = grey;
            } else {
                for (int c = 0; c < bpp; ++c)
                    px[c] = grey;
            }
        }
    }
    return base;
}

// The most recent base picture; benchmarks keep hitting it. Never destroyed,
// like the state: host threads may still be rendering while the process exits.
struct BaseCache {
    std::mutex m;
    std::shared_ptr<const Base> base;
};

BaseCache &baseCache()
{
    static BaseCache *c = new BaseCache;
    return *c;
}

std::shared_ptr<const Base> baseFor(int width, int height, int bpp, int exposure, int gain)
{
    BaseCache &c = baseCache();
    std::lock_guard<std::mutex> lock(c.m);
    if (!c.base || c.base->width != width || c.base->height != height || c.base->bpp != bpp ||
        c.base->exposure != exposure || c.base->gain != gain)
        c.base = buildBase(width, height, bpp, exposure, gain);
    return c.base;
}

void fillRect(unsigned char *out, int width, int height, int bpp, long long x, long long y,
              long long w, long long h, unsigned char value)
{
    const long long x0 = std::max(0LL, x), y0 = std::max(0LL, y);
    const long long x1 = std::min<long long>(width, x + w), y1 = std::min<long long>(height, y + h);
    if (x0 >= x1 || y0 >= y1)
        return;
    for (long long row = y0; row < y1; ++row)
        std::memset(out + (row * width + x0) * bpp, value, static_cast<size_t>((x1 - x0) * bpp));
}

// 5 x 7 digits, one byte per line, bit 4 = leftmost column.
const unsigned char kFont[10][7] = {
    {0x0E, 0x11, 0x13, 0x15, 0x19, 0x11, 0x0E}, {0x04, 0x0C, 0x04, 0x04, 0x04, 0x04, 0x0E},
    {0x0E, 0x11, 0x01, 0x02, 0x04, 0x08, 0x1F}, {0x1F, 0x02, 0x04, 0x02, 0x01, 0x11, 0x0E},
    {0x02, 0x06, 0x0A, 0x12, 0x1F, 0x02, 0x02}, {0x1F, 0x10, 0x1E, 0x01, 0x01, 0x11, 0x0E},
    {0x06, 0x08, 0x10, 0x1E, 0x11, 0x11, 0x0E}, {0x1F, 0x01, 0x02, 0x04, 0x08, 0x08, 0x08},
    {0x0E, 0x11, 0x11, 0x0E, 0x11, 0x11, 0x0E}, {0x0E, 0x11, 0x11, 0x0F, 0x01, 0x02, 0x0C}};

// The counter is drawn white on black at full brightness, whatever the
// exposure, so that it stays readable in dark frames.
void drawCounter(unsigned int number, unsigned char *out, int width, int height, int bpp)
{
    char digits[16];
    const int n = std::snprintf(digits, sizeof digits, "%u", number);
    const long long s = std::max(1, std::min(width, height) / 160); // cell size in pixels
    const long long x0 = 2 * s, y0 = 2 * s;
    fillRect(out, width, height, bpp, x0, y0, n * 6 * s + s, 9 * s, 0);
    for (int i = 0; i < n; ++i) {
        const unsigned char *glyph = kFont[digits[i] - '0'];
        for (int row = 0; row < 7; ++row)
            for (int col = 0; col < 5; ++col)
                if (glyph[row] & (0x10 >> col))
                    fillRect(out, width, height, bpp, x0 + s + (i * 6 + col) * s, y0 + s + row * s,
                             s, s, 255);
    }
}

// The frame number, 4 bits per pixel, most significant first, in every byte of
// the first eight pixels: byte = nibble * 16 + 8. Decoding takes byte / 16, so
// the number survives copies, 1 -> 3 byte expansion and grey conversions that
// move a byte down by less than 8.
void writeCode(unsigned int number, unsigned char *out, int width, int height, int bpp)
{
    const long long pixels = std::min(8LL, static_cast<long long>(width) * height);
    for (long long i = 0; i < pixels; ++i) {
        const unsigned nibble = (number >> (28 - 4 * i)) & 0xFu;
        std::memset(out + i * bpp, static_cast<int>(nibble * 16 + 8), static_cast<size_t>(bpp));
    }
}

// Frame `number` from its base: the picture scrolls left by a fixed step per
// frame, wrapping around, then gets the counter and the code on top.
void renderFrom(const Base &base, unsigned int number, unsigned char *out)
{
    const int w = base.width, h = base.height, bpp = base.bpp;
    const unsigned long long step = static_cast<unsigned long long>(std::max(1, w / 160));
    const size_t off = static_cast<size_t>(number * step % static_cast<unsigned long long>(w));
    const size_t line = static_cast<size_t>(w) * bpp;
    const size_t head = (w - off) * bpp, tail = off * bpp;
    for (int y = 0; y < h; ++y) {
        const unsigned char *src = base.pixels.data() + y * line;
        unsigned char *dst = out + y * line;
        std::memcpy(dst, src + tail, head);
        std::memcpy(dst + head, src, tail);
    }
    drawCounter(number, out, w, h, bpp);
    writeCode(number, out, w, h, bpp);
}

void render(unsigned int number, int width, int height, int bpp, int exposure, int gain,
            unsigned char *out)
{
    renderFrom(*baseFor(width, height, bpp, exposure, gain), number, out);
}

// --------------------------------------------------------------------- state

struct QueuedFrame {
    int width, height, bpp;
    bool dummy; // only described: the data address is gDummyFrame
    std::vector<unsigned char> data;
};

struct State {
    std::mutex m;
    std::condition_variable cv;

    int sensorWidth = kDefaultWidth, sensorHeight = kDefaultHeight, bpp = kDefaultBpp;
    double fps = kDefaultFps;
    int windowWidth = kDefaultWidth, windowHeight = kDefaultHeight;
    int mode = 0; // 0 continuous, 1 triggered
    int exposure = kDefaultExposure, gain = 0;

    int nextInitResult = 0;
    bool failMaxWindow = false, failSetWindow = false, starve = false, logFrames = true;
    bool failExposure = false, failGain = false, failMode = false;
    bool reuseFrames = false;
    bool strict = false; // one frame buffer for all callers (torvanesim_strict_frames)
    std::deque<QueuedFrame> queue;
    int pendingTriggers = 0;

    int initCalls = 0, openCount = 0, triggerCalls = 0;
    unsigned int delivered = 0;
    unsigned int lastNumber = 0; // highest frame number generated so far

    // Continuous timeline: frame k (k >= 1) is due at start + k / fps and
    // carries number startNumber + k. Rebased whenever the rate or the mode
    // changes, so numbers keep growing. `timeline` tells waiters it moved.
    Clock::time_point start = Clock::now();
    unsigned int startNumber = 0;
    unsigned long long timeline = 0;

    std::vector<char> log = std::vector<char>(static_cast<size_t>(kLogCapacity) * kLogEntrySize);
    std::vector<int> logLength = std::vector<int>(kLogCapacity);
    int logHead = 0, logCount = 0; // ring: oldest entry at logHead

    State() { resetLocked(); }

    void rebase()
    {
        start = Clock::now();
        startNumber = lastNumber;
        ++timeline;
    }

    void resetLocked()
    {
        sensorWidth = kDefaultWidth;
        sensorHeight = kDefaultHeight;
        bpp = kDefaultBpp;
        fps = kDefaultFps;
        if (const char *v = std::getenv("TORVANE_SIM_SENSOR")) {
            char *end = nullptr;
            const long w = std::strtol(v, &end, 10);
            if (end != v && (*end == 'x' || *end == 'X')) {
                const char *hs = end + 1;
                const long h = std::strtol(hs, &end, 10);
                if (end != hs && *end == '\0' && w >= 1 && h >= 1 && w <= INT_MAX && h <= INT_MAX) {
                    sensorWidth = static_cast<int>(w);
                    sensorHeight = static_cast<int>(h);
                }
            }
        }
        if (const char *v = std::getenv("TORVANE_SIM_BPP")) {
            if (std::strcmp(v, "1") == 0 || std::strcmp(v, "3") == 0)
                bpp = v[0] - '0';
        }
        if (const char *v = std::getenv("TORVANE_SIM_FPS")) {
            char *end = nullptr;
            const double f = std::strtod(v, &end);
            if (end != v && *end == '\0' && std::isfinite(f))
                fps = f;
        }
        windowWidth = sensorWidth;
        windowHeight = sensorHeight;
        mode = 0;
        exposure = kDefaultExposure;
        gain = 0;
        nextInitResult = 0;
        failMaxWindow = failSetWindow = starve = false;
        failExposure = failGain = failMode = false;
        logFrames = true;
        reuseFrames = false;
        strict = false;
        queue.clear();
        pendingTriggers = 0;
        initCalls = openCount = triggerCalls = 0;
        delivered = 0;
        lastNumber = 0;
        logHead = logCount = 0;
        rebase();
    }

    [[gnu::format(printf, 2, 3)]] void record(const char *format, ...)
    {
        const int slot = (logHead + logCount) % kLogCapacity;
        va_list args;
        va_start(args, format);
        const int n = std::vsnprintf(log.data() + static_cast<size_t>(slot) * kLogEntrySize,
                                     kLogEntrySize, format, args);
        va_end(args);
        logLength[slot] = std::max(0, n);
        if (logCount < kLogCapacity)
            ++logCount;
        else
            logHead = (logHead + 1) % kLogCapacity;
    }
};

// Never destroyed: threads of a host may still call in while the process exits.
State &state()
{
    static State *s = new State;
    return *s;
}

// Frame buffer of the calling thread (see the lifetime note at the top).
thread_local std::vector<unsigned char> tFrame;

// The one frame buffer of the strict mode. Every SDK call spoils it on entry,
// and a frame is drawn into it right before it is handed out: a caller that
// reads a frame after any later call, from any thread, reads spoiled bytes
// (or, once the buffer grew, freed memory that AddressSanitizer reports).
struct SharedFrame {
    std::mutex m;
    std::vector<unsigned char> data;
};

SharedFrame &sharedFrame()
{
    static SharedFrame *f = new SharedFrame; // outlives every caller
    return *f;
}

// The spoiled bytes decode as frame number 0xAAAAAAAA, which is never made.
constexpr unsigned char kSpoiled = 0xA5;

// Called on entry of every SDK call, with the state's lock held.
void spoilSharedFrame(const State &s)
{
    if (!s.strict)
        return;
    SharedFrame &f = sharedFrame();
    std::lock_guard<std::mutex> lock(f.m);
    std::fill(f.data.begin(), f.data.end(), kSpoiled);
}

// What tFrame holds when it is a generated frame that may be reused: its
// geometry, exposure and gain. Cleared whenever tFrame takes a queued frame.
struct FrameKey {
    bool valid;
    int width, height, bpp, exposure, gain;
    bool matches(int w, int h, int b, int e, int g) const
    {
        return valid && width == w && height == h && bpp == b && exposure == e && gain == g;
    }
};
thread_local FrameKey tFrameKey{};

template <typename F>
int guarded(F &&f) noexcept
{
    try {
        return f();
    } catch (...) {
        return -1;
    }
}

template <typename F>
void guardedVoid(F &&f) noexcept
{
    try {
        f();
    } catch (...) {
    }
}

// Settings a generated frame is rendered with, taken under the lock.
struct FrameJob {
    unsigned int number;
    int width, height, bpp, exposure, gain;
    bool reuse;
};

} // namespace

// ------------------------------------------------------------------- SDK calls

extern "C" {

int camera_init(int camera, int mode)
{
    return guarded([&] {
        State &s = state();
        std::lock_guard<std::mutex> lock(s.m);
        s.record("camera_init(%d,%d)", camera, mode);
        spoilSharedFrame(s);
        ++s.initCalls;
        if (camera != 0)
            return 3; // no such camera; an armed result waits for camera 0
        const int result = s.nextInitResult;
        s.nextInitResult = 0;
        if (result < 1 || result > 5)
            ++s.openCount;
        return result;
    });
}

int camera_free(int camera)
{
    return guarded([&] {
        State &s = state();
        std::lock_guard<std::mutex> lock(s.m);
        s.record("camera_free(%d)", camera);
        spoilSharedFrame(s);
        if (camera != 0)
            return -1;
        if (s.openCount > 0)
            --s.openCount;
        return 0;
    });
}

int set_camera_mode(int mode, int camera)
{
    return guarded([&] {
        State &s = state();
        std::lock_guard<std::mutex> lock(s.m);
        s.record("set_camera_mode(%d,%d)", mode, camera);
        spoilSharedFrame(s);
        if (camera != 0 || (mode != 0 && mode != 1) || s.failMode)
            return -1;
        if (mode != s.mode) {
            s.mode = mode;
            s.pendingTriggers = 0; // triggers never outlive a mode change
            if (mode == 0)
                s.rebase();
            s.cv.notify_all();
        }
        return 0;
    });
}

int set_camera_trigger(int camera)
{
    return guarded([&] {
        State &s = state();
        std::lock_guard<std::mutex> lock(s.m);
        s.record("set_camera_trigger(%d)", camera);
        spoilSharedFrame(s);
        ++s.triggerCalls;
        if (camera != 0)
            return -1;
        // In continuous mode a software trigger is accepted but makes no frame.
        if (s.mode == 1) {
            ++s.pendingTriggers;
            s.cv.notify_all();
        }
        return 0;
    });
}

int set_camera_exposure(int exposure, int camera)
{
    return guarded([&] {
        State &s = state();
        std::lock_guard<std::mutex> lock(s.m);
        s.record("set_camera_exposure(%d,%d)", exposure, camera);
        spoilSharedFrame(s);
        if (camera != 0 || s.failExposure)
            return -1;
        s.exposure = exposure;
        return 0;
    });
}

int get_camera_exposure(int *exposure, int camera)
{
    return guarded([&] {
        State &s = state();
        std::lock_guard<std::mutex> lock(s.m);
        s.record("get_camera_exposure(%d)", camera);
        spoilSharedFrame(s);
        if (camera != 0 || !exposure)
            return -1;
        *exposure = s.exposure;
        return 0;
    });
}

int set_camera_gain(int gain, int camera)
{
    return guarded([&] {
        State &s = state();
        std::lock_guard<std::mutex> lock(s.m);
        s.record("set_camera_gain(%d,%d)", gain, camera);
        spoilSharedFrame(s);
        if (camera != 0 || s.failGain)
            return -1;
        s.gain = gain;
        return 0;
    });
}

int get_camera_gain(int *gain, int camera)
{
    return guarded([&] {
        State &s = state();
        std::lock_guard<std::mutex> lock(s.m);
        s.record("get_camera_gain(%d)", camera);
        spoilSharedFrame(s);
        if (camera != 0 || !gain)
            return -1;
        *gain = s.gain;
        return 0;
    });
}

int set_camera_window_size(int width, int height, int camera)
{
    return guarded([&] {
        State &s = state();
        std::lock_guard<std::mutex> lock(s.m);
        s.record("set_camera_window_size(%d,%d,%d)", width, height, camera);
        spoilSharedFrame(s);
        if (camera != 0 || s.failSetWindow || width < 1 || height < 1 || width > s.sensorWidth ||
            height > s.sensorHeight)
            return -1;
        s.windowWidth = width;
        s.windowHeight = height;
        return 0;
    });
}

int get_camera_window_size(int *width, int *height, int camera)
{
    return guarded([&] {
        State &s = state();
        std::lock_guard<std::mutex> lock(s.m);
        s.record("get_camera_window_size(%d)", camera);
        spoilSharedFrame(s);
        if (camera != 0 || !width || !height)
            return -1;
        *width = s.windowWidth;
        *height = s.windowHeight;
        return 0;
    });
}

int get_camera_max_window_size(int *width, int *height, int camera)
{
    return guarded([&] {
        State &s = state();
        std::lock_guard<std::mutex> lock(s.m);
        s.record("get_camera_max_window_size(%d)", camera);
        spoilSharedFrame(s);
        if (camera != 0 || !width || !height || s.failMaxWindow)
            return -1;
        *width = s.sensorWidth;
        *height = s.sensorHeight;
        return 0;
    });
}

unsigned char *get_frame_timeout(int *width, int *height, int *bytesPerPixel, int camera, int timeoutMs)
{
    try {
        State &s = state();
        std::unique_lock<std::mutex> lock(s.m);
        if (s.logFrames)
            s.record("get_frame_timeout(%d,%d)", camera, timeoutMs);
        spoilSharedFrame(s);
        if (camera != 0 || !width || !height || !bytesPerPixel)
            return nullptr;

        const Clock::time_point called = Clock::now();
        const auto timeout = std::chrono::milliseconds(std::max(0, timeoutMs));
        const Clock::time_point deadline = called + timeout;
        const Clock::time_point starveDeadline = called + std::min(timeout, kStarveCap);
        unsigned long long timeline = s.timeline;
        long long k = -1; // continuous mode: index of the frame this call waits for

        FrameJob job{};
        for (;;) {
            const Clock::time_point now = Clock::now();
            Clock::time_point wake = deadline;
            bool generate = false;
            if (s.starve) {
                if (now >= starveDeadline)
                    return nullptr;
                wake = starveDeadline;
            } else if (!s.queue.empty()) {
                QueuedFrame f = std::move(s.queue.front());
                s.queue.pop_front();
                ++s.delivered;
                const bool strict = s.strict;
                lock.unlock();
                *width = f.width;
                *height = f.height;
                *bytesPerPixel = f.bpp;
                if (f.dummy)
                    return gDummyFrame;
                if (strict) {
                    SharedFrame &shared = sharedFrame();
                    std::lock_guard<std::mutex> sharedLock(shared.m);
                    shared.data.assign(f.data.begin(), f.data.end());
                    return shared.data.data();
                }
                tFrameKey.valid = false;
                tFrame.swap(f.data);
                return tFrame.data();
            } else if (s.mode == 1) {
                if (s.pendingTriggers > 0) {
                    --s.pendingTriggers;
                    job.number = ++s.lastNumber;
                    generate = true;
                }
            } else if (!(s.fps > 0.0)) {
                job.number = ++s.lastNumber;
                generate = true;
            } else {
                // The next frame due after the call: never a backlog of old ones.
                if (k < 0 || timeline != s.timeline) {
                    timeline = s.timeline;
                    const double elapsed = std::chrono::duration<double>(now - s.start).count();
                    k = static_cast<long long>(std::floor(std::max(0.0, elapsed) * s.fps)) + 1;
                }
                const Clock::time_point due =
                    s.start + std::chrono::ceil<Clock::duration>(std::chrono::duration<double>(k / s.fps));
                if (now >= due) {
                    job.number = s.startNumber + static_cast<unsigned int>(k);
                    if (job.number > s.lastNumber)
                        s.lastNumber = job.number;
                    generate = true;
                } else {
                    wake = std::min(due, deadline);
                }
            }
            if (generate)
                break;
            if (now >= deadline)
                return nullptr;
            s.cv.wait_until(lock, wake);
        }

        job.width = s.windowWidth;
        job.height = s.windowHeight;
        job.bpp = s.bpp;
        job.exposure = s.exposure;
        job.gain = s.gain;
        job.reuse = s.reuseFrames;
        const bool strict = s.strict;
        ++s.delivered;
        lock.unlock();

        *width = job.width;
        *height = job.height;
        *bytesPerPixel = job.bpp;
        const long long bytes = frameBytes(job.width, job.height, job.bpp);
        if (bytes < 0)
            return gDummyFrame;
        if (strict) {
            SharedFrame &shared = sharedFrame();
            std::lock_guard<std::mutex> sharedLock(shared.m);
            shared.data.resize(static_cast<size_t>(bytes));
            render(job.number, job.width, job.height, job.bpp, job.exposure, job.gain, shared.data.data());
            return shared.data.data();
        }
        if (job.reuse && tFrameKey.matches(job.width, job.height, job.bpp, job.exposure, job.gain)) {
            writeCode(job.number, tFrame.data(), job.width, job.height, job.bpp);
            return tFrame.data();
        }
        tFrameKey.valid = false;
        tFrame.resize(static_cast<size_t>(bytes));
        render(job.number, job.width, job.height, job.bpp, job.exposure, job.gain, tFrame.data());
        tFrameKey = FrameKey{true, job.width, job.height, job.bpp, job.exposure, job.gain};
        return tFrame.data();
    } catch (...) {
        return nullptr;
    }
}

// ------------------------------------------------------------ control calls

void torvanesim_reset(void)
{
    guardedVoid([] {
        State &s = state();
        std::lock_guard<std::mutex> lock(s.m);
        s.resetLocked();
        s.cv.notify_all();
    });
}

void torvanesim_set_sensor(int width, int height, int bytesPerPixel)
{
    if (width < 1 || height < 1 || bytesPerPixel < 1)
        return;
    guardedVoid([&] {
        State &s = state();
        std::lock_guard<std::mutex> lock(s.m);
        s.sensorWidth = s.windowWidth = width;
        s.sensorHeight = s.windowHeight = height;
        s.bpp = bytesPerPixel;
    });
}

void torvanesim_set_frame_rate(double framesPerSecond)
{
    if (std::isnan(framesPerSecond))
        return;
    guardedVoid([&] {
        State &s = state();
        std::lock_guard<std::mutex> lock(s.m);
        s.fps = framesPerSecond;
        s.rebase();
        s.cv.notify_all();
    });
}

void torvanesim_set_next_init_result(int result)
{
    guardedVoid([&] {
        State &s = state();
        std::lock_guard<std::mutex> lock(s.m);
        s.nextInitResult = result;
    });
}

void torvanesim_fail_max_window_size(int fail)
{
    guardedVoid([&] {
        State &s = state();
        std::lock_guard<std::mutex> lock(s.m);
        s.failMaxWindow = fail != 0;
    });
}

void torvanesim_fail_set_window_size(int fail)
{
    guardedVoid([&] {
        State &s = state();
        std::lock_guard<std::mutex> lock(s.m);
        s.failSetWindow = fail != 0;
    });
}

void torvanesim_queue_frame(int width, int height, int bytesPerPixel, const unsigned char *data)
{
    guardedVoid([&] {
        QueuedFrame f{width, height, bytesPerPixel, true, {}};
        const long long bytes = frameBytes(width, height, bytesPerPixel);
        int exposure, gain;
        {
            State &s = state();
            std::lock_guard<std::mutex> lock(s.m);
            exposure = s.exposure;
            gain = s.gain;
        }
        if (bytes > 0) {
            f.dummy = false;
            if (data) {
                f.data.assign(data, data + bytes);
            } else {
                f.data.resize(static_cast<size_t>(bytes));
                render(0, width, height, bytesPerPixel, exposure, gain, f.data.data());
            }
        }
        State &s = state();
        std::lock_guard<std::mutex> lock(s.m);
        s.queue.push_back(std::move(f));
        s.cv.notify_all();
    });
}

void torvanesim_starve_frames(int starve)
{
    guardedVoid([&] {
        State &s = state();
        std::lock_guard<std::mutex> lock(s.m);
        s.starve = starve != 0;
        s.cv.notify_all();
    });
}

int torvanesim_init_calls(void)
{
    return guarded([] {
        State &s = state();
        std::lock_guard<std::mutex> lock(s.m);
        return s.initCalls;
    });
}

int torvanesim_open_count(void)
{
    return guarded([] {
        State &s = state();
        std::lock_guard<std::mutex> lock(s.m);
        return s.openCount;
    });
}

int torvanesim_trigger_calls(void)
{
    return guarded([] {
        State &s = state();
        std::lock_guard<std::mutex> lock(s.m);
        return s.triggerCalls;
    });
}

unsigned int torvanesim_frames_delivered(void)
{
    unsigned int n = 0;
    guardedVoid([&] {
        State &s = state();
        std::lock_guard<std::mutex> lock(s.m);
        n = s.delivered;
    });
    return n;
}

unsigned int torvanesim_frame_number(const unsigned char *pixels, int bytesPerPixel)
{
    if (!pixels || bytesPerPixel < 1)
        return 0;
    unsigned int number = 0;
    for (int i = 0; i < 8; ++i)
        number = (number << 4) | (pixels[static_cast<size_t>(i) * bytesPerPixel] >> 4);
    return number;
}

void torvanesim_render_frame(unsigned int number, int width, int height, int bytesPerPixel, unsigned char *out)
{
    if (!out || frameBytes(width, height, bytesPerPixel) < 0)
        return;
    guardedVoid([&] {
        int exposure, gain;
        {
            State &s = state();
            std::lock_guard<std::mutex> lock(s.m);
            exposure = s.exposure;
            gain = s.gain;
        }
        render(number, width, height, bytesPerPixel, exposure, gain, out);
    });
}

int torvanesim_log_count(void)
{
    return guarded([] {
        State &s = state();
        std::lock_guard<std::mutex> lock(s.m);
        return s.logCount;
    });
}

int torvanesim_log_entry(int i, char *buf, int size)
{
    return guarded([&] {
        State &s = state();
        std::lock_guard<std::mutex> lock(s.m);
        if (i < 0 || i >= s.logCount)
            return -1;
        const int slot = (s.logHead + i) % kLogCapacity;
        const int length = s.logLength[slot];
        if (buf && size > 0) {
            const int kept = std::min({length, size - 1, kLogEntrySize - 1});
            std::memcpy(buf, s.log.data() + static_cast<size_t>(slot) * kLogEntrySize, static_cast<size_t>(kept));
            buf[kept] = '\0';
        }
        return length;
    });
}

void torvanesim_log_clear(void)
{
    guardedVoid([] {
        State &s = state();
        std::lock_guard<std::mutex> lock(s.m);
        s.logHead = s.logCount = 0;
    });
}

void torvanesim_log_frames(int enable)
{
    guardedVoid([&] {
        State &s = state();
        std::lock_guard<std::mutex> lock(s.m);
        s.logFrames = enable != 0;
    });
}

void torvanesim_fail_set_exposure(int fail)
{
    guardedVoid([&] {
        State &s = state();
        std::lock_guard<std::mutex> lock(s.m);
        s.failExposure = fail != 0;
    });
}

void torvanesim_fail_set_gain(int fail)
{
    guardedVoid([&] {
        State &s = state();
        std::lock_guard<std::mutex> lock(s.m);
        s.failGain = fail != 0;
    });
}

void torvanesim_fail_set_mode(int fail)
{
    guardedVoid([&] {
        State &s = state();
        std::lock_guard<std::mutex> lock(s.m);
        s.failMode = fail != 0;
    });
}

void torvanesim_strict_frames(int enable)
{
    guardedVoid([&] {
        State &s = state();
        std::lock_guard<std::mutex> lock(s.m);
        s.strict = enable != 0;
    });
}

void torvanesim_reuse_frames(int enable)
{
    guardedVoid([&] {
        State &s = state();
        std::lock_guard<std::mutex> lock(s.m);
        s.reuseFrames = enable != 0;
    });
}

} // extern "C"
