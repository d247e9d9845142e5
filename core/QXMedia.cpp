#include "qxmedia/core/QXMedia.h"

#include <atomic>
#include <cstdio>
#include <cstring>
#include <string>

extern "C" {
#include <libavutil/error.h>
#include <libavutil/log.h>
}

#include "qxmedia/core/QXEncoderList.h"
#include "qxmedia/mp4/MP4File.h"
#include "qxmedia/mp4/MP4Log.h"
#include "qxmedia/platform/foundation/QXLocalization.h"

namespace {

// FFmpeg log assembly: a line may arrive in pieces from any thread; the lock
// is recursive because logging from within may come back here.
std::recursive_mutex& logLock()
{
    static std::recursive_mutex lock;
    return lock;
}
std::string gLogOutput; // the line so far; guarded by logLock()
// Set by the MP4 layer's callback while a file is parsed, read by the
// corruption check.
std::atomic<bool> gFileDamaged {false};

std::string expand(const char* format, va_list arguments)
{
    va_list copy;
    va_copy(copy, arguments);
    char stackBuffer[512];
    const int needed = std::vsnprintf(stackBuffer, sizeof stackBuffer, format, copy);
    va_end(copy);
    if (needed < 0) return {};
    if (size_t(needed) < sizeof stackBuffer) return std::string(stackBuffer, size_t(needed));
    std::string text(size_t(needed), '\0');
    va_copy(copy, arguments);
    std::vsnprintf(text.data(), text.size() + 1, format, copy);
    va_end(copy);
    return text;
}

// The four characters of the low 32 bits of an OSStatus code.
std::string fourCharacters(int64_t code)
{
    const uint32_t low = uint32_t(uint64_t(code) & 0xffffffffu);
    std::string text;
    for (int shift = 24; shift >= 0; shift -= 8) text += char((low >> shift) & 0xff);
    return text;
}

std::string mediaErrorDescription(int64_t code, const QXDictionary& userInfo)
{
    auto extra = [&](const char* key) -> const QXValue* {
        auto it = userInfo.find(key);
        return it == userInfo.end() ? nullptr : &it->second;
    };
    char buffer[512];
    switch (code) {
    case QXErrorFailedToOpenFile: return "Failed to open File";
    case QXErrorFailedToCreateFile: return "Failed to create File";
    case QXErrorCorruptedFileStructure: return QXLocalizedString("Corrupted file structure detected. Editing file not possible.");
    case QXErrorFailedToOptimize: return "Failed to optimize Video for Web Streaming";
    case QXErrorLibraryReturnedAnotherItem:
        return QXLocalizedString("iTunes added the file but returned another item. The original file will not be deleted!");
    case QXErrorLibraryRejectedFile: return QXLocalizedString("iTunes did not accept this video file for unknown reasons");
    case QXErrorFailedToAddTrack: return "Failed to add Track";
    case QXErrorInvalidPersistentTrackID:
        if (const QXValue* id = extra(AVErrorPersistentTrackIDKey)) {
            std::snprintf(buffer, sizeof buffer, "Invalid persistent track ID: %s", id->description().c_str());
            return buffer;
        }
        return "Invalid persistent track ID";
    case QXErrorUnexpectedPersistentTrackID:
        if (const QXValue* id = extra(AVErrorPersistentTrackIDKey)) {
            std::snprintf(buffer, sizeof buffer, "Unexpected persistent track ID: %s", id->description().c_str());
            return buffer;
        }
        return "Unexpected persistent track ID";
    case QXErrorFailedToEditTrackProperty: return "Failed to edit track property";
    case QXErrorEncoderNotFound:
        if (const QXValue* format = extra(AVErrorMediaSubTypeKey)) {
            std::snprintf(buffer, sizeof buffer, "The requested encoder for format %s was not found",
                          format->description().c_str());
            return buffer;
        }
        return "The requested encoder was not found";
    case QXErrorDiskFull: return "Writing failed because Disk is Full";
    default: {
        char text[64];
        std::memset(text, 0, sizeof text);
        av_strerror(int(code), text, sizeof text);
        return text;
    }
    }
}

} // namespace

QXMedia& QXMedia::sharedMedia()
{
    static QXMedia* instance = new QXMedia(); // lives until the process ends
    return *instance;
}

QXMedia::QXMedia()
{
    logLock();
    av_log_set_level(AV_LOG_WARNING);
    av_log_set_callback(QXAvcodecLogCallback);
    qx::mp4::MP4LogSetLevel(qx::mp4::MP4_LOG_WARNING);
    qx::mp4::MP4SetLogCallback(QXMp4v2LogCallback);
}

QXLogCallback QXMedia::logCallback() const
{
    std::lock_guard guard(callbackLock_);
    return logCallback_ ? *logCallback_ : QXLogCallback();
}

void QXMedia::setLogCallback(QXLogCallback callback)
{
    std::shared_ptr<const QXLogCallback> next;
    if (callback) next = std::make_shared<const QXLogCallback>(std::move(callback));
    std::lock_guard guard(callbackLock_);
    logCallback_ = std::move(next);
}

void QXMedia::setLogHandler(QXLogHandler handler)
{
    if (!handler) {
        setLogCallback({});
        return;
    }
    setLogCallback([handler = std::move(handler)](bool, int32_t flag, int32_t, const char*, const char*, uint64_t,
                                                  const QXValue*, const char* format, va_list arguments) {
        handler(flag, expand(format, arguments));
    });
}

void QXMedia::setErrorHandler(QXErrorHandler handler)
{
    std::shared_ptr<const QXErrorHandler> next;
    if (handler) next = std::make_shared<const QXErrorHandler>(std::move(handler));
    std::lock_guard guard(callbackLock_);
    errorHandler_ = std::move(next);
}

void QXMedia::log(bool log, int32_t flag, int32_t context, const char* file, const char* function, uint64_t line,
                  const QXValue* tag, const char* format, ...)
{
    QXMedia& media = sharedMedia();
    std::shared_ptr<const QXLogCallback> callback;
    {
        std::lock_guard guard(media.callbackLock_);
        callback = media.logCallback_;
    }
    if (!callback) return;
    va_list arguments;
    va_start(arguments, format);
    (*callback)(log, flag, context, file, function, line, tag, format, arguments);
    va_end(arguments);
}

QXErrorRef QXMedia::errorWithDomain(QXErrorDomain domain, int64_t code, const QXDictionary& userInfo)
{
    QXDictionary info = userInfo;
    if (info.find(NSLocalizedDescriptionKey) == info.end()) {
        if (domain == QXMediaErrorDomain) {
            info[NSLocalizedDescriptionKey] = mediaErrorDescription(code, userInfo);
        } else if (domain == NSOSStatusErrorDomain) {
            char buffer[128];
            std::snprintf(buffer, sizeof buffer, "Error number %ld (%s) occurred", long(code),
                          fourCharacters(code).c_str());
            info[NSLocalizedDescriptionKey] = std::string(buffer);
        }
    }
    auto error = std::make_shared<const QXError>(domain, code, std::move(info));
    QXLogError("%s", error->description().c_str());
    std::shared_ptr<const QXErrorHandler> handler;
    {
        QXMedia& media = sharedMedia();
        std::lock_guard guard(media.callbackLock_);
        handler = media.errorHandler_;
    }
    if (handler) (*handler)(*error);
    return error;
}

void QXAvcodecLogCallback(void*, int level, const char* format, va_list arguments)
{
    if (av_log_get_level() < level) return;
    std::lock_guard guard(logLock());
    std::string piece = expand(format, arguments);
    if (piece.empty() || piece.back() != '\n') {
        gLogOutput += piece;
        return;
    }
    const size_t first = piece.find_first_not_of("\r\n");
    const size_t last = piece.find_last_not_of("\r\n");
    std::string line = gLogOutput + (first == std::string::npos ? std::string() : piece.substr(first, last - first + 1));
    gLogOutput.clear();

    // The piece that ends the line decides its severity.
    int32_t flag = QXLogFlagInfo;
    switch (level) {
    case AV_LOG_QUIET: return;
    case AV_LOG_PANIC:
    case AV_LOG_FATAL:
    case AV_LOG_ERROR: flag = QXLogFlagError; break;
    case AV_LOG_WARNING: flag = QXLogFlagWarning; break;
    case AV_LOG_INFO: flag = QXLogFlagInfo; break;
    case AV_LOG_VERBOSE: flag = QXLogFlagVerbose; break;
    case AV_LOG_DEBUG: flag = QXLogFlagDebug; break;
    case AV_LOG_TRACE: flag = QXLogFlagVerbose; break;
    default: break;
    }
    QXLogAt(flag, "%s", line.c_str());
}

void QXMp4v2LogCallback(int level, const char* format, va_list arguments)
{
    const std::string text = expand(format, arguments);
    int32_t flag;
    switch (level) {
    case qx::mp4::MP4_LOG_ERROR:
        if (std::strstr(format, "invalid atom size")) gFileDamaged = true;
        flag = QXLogFlagError;
        break;
    case qx::mp4::MP4_LOG_WARNING:
        if (text.find("atom type  is suspect") != std::string::npos) gFileDamaged = true;
        flag = QXLogFlagWarning;
        break;
    case qx::mp4::MP4_LOG_INFO: flag = QXLogFlagInfo; break;
    case qx::mp4::MP4_LOG_VERBOSE1:
    case qx::mp4::MP4_LOG_VERBOSE2:
    case qx::mp4::MP4_LOG_VERBOSE3:
    case qx::mp4::MP4_LOG_VERBOSE4: flag = QXLogFlagVerbose; break;
    default: return;
    }
    QXLogAt(flag, "%s", text.c_str());
}

bool QXMedia::checkMP4FileForCorruption(const QXURL& url)
{
    std::lock_guard guard(corruptionCheckLock_);
    gFileDamaged = false;
    bool damaged = true;
    if (auto file = qx::mp4::MP4File::read(url)) {
        damaged = gFileDamaged;
        file->close();
    }
    gFileDamaged = false;
    return damaged;
}

bool QXMedia::hasHardwareHEVCEncoder()
{
    static const bool hasEncoder = QXEncoderList::logAndFindHardwareHEVCEncoder();
    return hasEncoder;
}
