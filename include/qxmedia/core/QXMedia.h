#pragma once
// QXMedia: the process-wide facade. It makes every error of the framework
// (and logs it), routes every log line of the framework, FFmpeg and the MP4
// layer to the host's callback, and answers two questions about the
// environment: is an MP4 file sound, and is there a hardware HEVC encoder.

#include <cstdarg>
#include <cstdint>
#include <functional>
#include <mutex>

#include "qxmedia/platform/foundation/QXError.h"
#include "qxmedia/platform/foundation/QXValue.h"

// Severity bits of a log line.
enum QXLogFlag : int32_t {
    QXLogFlagError = 1,
    QXLogFlagWarning = 2,
    QXLogFlagInfo = 4,
    QXLogFlagDebug = 8,
    QXLogFlagVerbose = 16,
};

// The host's log callback: (log, flag, context, file, function, line, tag,
// format, arguments). The format is not expanded before the call; the
// callback expands it with the list. It may be called from any thread at once.
using QXLogCallback = std::function<void(bool log, int32_t flag, int32_t context, const char* file,
                                         const char* function, uint64_t line, const QXValue* tag,
                                         const char* format, va_list arguments)>;

class QXMedia {
public:
    // The one instance, created on first use. Call it early: FFmpeg and the
    // MP4 layer reach the host's callback only after it.
    static QXMedia& sharedMedia();

    // A new error whose description comes from the framework's table when
    // the user info has none; every error is logged as it is made.
    static QXErrorRef errorWithDomain(QXErrorDomain domain, int64_t code, const QXDictionary& userInfo = {});

    // Hands a line to the host's callback, if one is set; the format is
    // expanded there.
    static void log(bool log, int32_t flag, int32_t context, const char* file, const char* function, uint64_t line,
                    const QXValue* tag, const char* format, ...) __attribute__((format(printf, 8, 9)));

    QXLogCallback logCallback() const;
    void setLogCallback(QXLogCallback callback);

    // True when the MP4 layer cannot open the file, or logs damage while
    // parsing it.
    bool checkMP4FileForCorruption(const QXURL& url);

    // True when a hardware HEVC encoder opens on this machine; the encoders
    // are listed in the log once per process.
    bool hasHardwareHEVCEncoder();

    QXMedia(const QXMedia&) = delete;
    QXMedia& operator=(const QXMedia&) = delete;

private:
    QXMedia();

    mutable std::mutex callbackLock_;
    std::shared_ptr<const QXLogCallback> logCallback_;
    std::mutex corruptionCheckLock_;
};

// Given to av_log_set_callback; the first argument is ignored.
void QXAvcodecLogCallback(void* avcl, int level, const char* format, va_list arguments);
// Given to the MP4 layer's MP4SetLogCallback.
void QXMp4v2LogCallback(int level, const char* format, va_list arguments);

// Log macros: the place in the source is the caller's; the `log` argument is
// 0 for errors and 1 otherwise.
#define QXLogAt(flag, format, ...)                                                                         \
    QXMedia::log((flag) != QXLogFlagError, (flag), 0, __FILE__, __func__, __LINE__, nullptr,            \
                 format __VA_OPT__(, ) __VA_ARGS__)
#define QXLogError(format, ...) QXLogAt(QXLogFlagError, format __VA_OPT__(, ) __VA_ARGS__)
#define QXLogWarning(format, ...) QXLogAt(QXLogFlagWarning, format __VA_OPT__(, ) __VA_ARGS__)
#define QXLogInfo(format, ...) QXLogAt(QXLogFlagInfo, format __VA_OPT__(, ) __VA_ARGS__)
#define QXLogDebug(format, ...) QXLogAt(QXLogFlagDebug, format __VA_OPT__(, ) __VA_ARGS__)
#define QXLogVerbose(format, ...) QXLogAt(QXLogFlagVerbose, format __VA_OPT__(, ) __VA_ARGS__)
