#pragma once
/// @file
/// QXMedia: the process-wide facade. It makes every error of the framework
/// (and logs it), routes every log line of the framework, FFmpeg and the MP4
/// layer to the host's callback, and answers two questions about the
/// environment: is an MP4 file sound, and is there a hardware HEVC encoder.

#include <cstdarg>
#include <cstdint>
#include <functional>
#include <mutex>
#include <string>

#include "qxmedia/core/QXExport.h"
#include "qxmedia/platform/foundation/QXError.h"
#include "qxmedia/platform/foundation/QXValue.h"

/// Severity bits of a log line.
enum QXLogFlag : int32_t {
    QXLogFlagError = 1,    ///< Something failed.
    QXLogFlagWarning = 2,  ///< Something is odd but the work goes on.
    QXLogFlagInfo = 4,     ///< What is being done.
    QXLogFlagDebug = 8,    ///< Details for a developer.
    QXLogFlagVerbose = 16, ///< Everything else.
};

/// The full log callback: (log, flag, context, file, function, line, tag,
/// format, arguments). The format is not expanded before the call; the
/// callback expands it with the list. It may be called from any thread at once.
using QXLogCallback = std::function<void(bool log, int32_t flag, int32_t context, const char* file,
                                         const char* function, uint64_t line, const QXValue* tag,
                                         const char* format, va_list arguments)>;

/// The simple log hook: the severity bit and the finished line. It may be
/// called from any thread at once.
using QXLogHandler = std::function<void(int32_t flag, const std::string& message)>;

/// Told of every error the framework makes, as it is made, on the thread
/// that makes it.
using QXErrorHandler = std::function<void(const QXError& error)>;

/// The process-wide facade: errors, logging and two environment checks.
class QX_EXPORT QXMedia {
public:
    /// The one instance, created on first use. Call it early: FFmpeg and the
    /// MP4 layer reach the host's callback only after it.
    static QXMedia& sharedMedia();

    /// A new error whose description comes from the framework's table when
    /// the user info has none; every error is logged as it is made.
    static QXErrorRef errorWithDomain(QXErrorDomain domain, int64_t code, const QXDictionary& userInfo = {});

    /// Hands a line to the host's callback, if one is set; the format is
    /// expanded there. The QXLogError() ... QXLogVerbose() macros call it.
    static void log(bool log, int32_t flag, int32_t context, const char* file, const char* function, uint64_t line,
                    const QXValue* tag, const char* format, ...) __attribute__((format(printf, 8, 9)));

    /// The full callback set last (empty when none is set).
    QXLogCallback logCallback() const;
    /// Sets the full callback; an empty one turns logging off.
    void setLogCallback(QXLogCallback callback);
    /// Sets the full callback to one that expands each line and hands it to
    /// `handler` with its severity bit; an empty handler turns logging off.
    void setLogHandler(QXLogHandler handler);

    /// Sets the hook told of every error made; an empty one removes it.
    void setErrorHandler(QXErrorHandler handler);

    /// True when the MP4 layer cannot open the file, or logs damage while
    /// parsing it.
    bool checkMP4FileForCorruption(const QXURL& url);

    /// True when a hardware HEVC encoder opens on this machine; the encoders
    /// are listed in the log once per process.
    bool hasHardwareHEVCEncoder();

    QXMedia(const QXMedia&) = delete;
    QXMedia& operator=(const QXMedia&) = delete;

private:
    QXMedia();

    mutable std::mutex callbackLock_;
    std::shared_ptr<const QXLogCallback> logCallback_;
    std::shared_ptr<const QXErrorHandler> errorHandler_;
    std::mutex corruptionCheckLock_;
};

/// @cond internal
// Given to av_log_set_callback; the first argument is ignored.
void QXAvcodecLogCallback(void* avcl, int level, const char* format, va_list arguments);
// Given to the MP4 layer's MP4SetLogCallback.
void QXMp4v2LogCallback(int level, const char* format, va_list arguments);
/// @endcond

/// Logs at the given severity; the place in the source is the caller's and
/// the `log` argument is 0 for errors and 1 otherwise.
#define QXLogAt(flag, format, ...)                                                                         \
    QXMedia::log((flag) != QXLogFlagError, (flag), 0, __FILE__, __func__, __LINE__, nullptr,            \
                 format __VA_OPT__(, ) __VA_ARGS__)
/// Logs an error line (printf format).
#define QXLogError(format, ...) QXLogAt(QXLogFlagError, format __VA_OPT__(, ) __VA_ARGS__)
/// Logs a warning line (printf format).
#define QXLogWarning(format, ...) QXLogAt(QXLogFlagWarning, format __VA_OPT__(, ) __VA_ARGS__)
/// Logs an information line (printf format).
#define QXLogInfo(format, ...) QXLogAt(QXLogFlagInfo, format __VA_OPT__(, ) __VA_ARGS__)
/// Logs a debug line (printf format).
#define QXLogDebug(format, ...) QXLogAt(QXLogFlagDebug, format __VA_OPT__(, ) __VA_ARGS__)
/// Logs a verbose line (printf format).
#define QXLogVerbose(format, ...) QXLogAt(QXLogFlagVerbose, format __VA_OPT__(, ) __VA_ARGS__)
