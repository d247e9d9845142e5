#pragma once
/// @file
/// QXError: a domain, a signed 64-bit code and a user-info dictionary.
/// Domains are compared by identity of their constants, not by text.

#include <cstdint>
#include <memory>
#include <string>

#include "qxmedia/core/QXErrorCode.h"
#include "qxmedia/core/QXExport.h"
#include "qxmedia/platform/foundation/QXValue.h"

/// An error domain: one of the constants below, compared by address.
using QXErrorDomain = const char*;

QX_EXPORT extern const char QXMediaErrorDomain[];      ///< The framework's own codes and FFmpeg's return values.
QX_EXPORT extern const char NSOSStatusErrorDomain[];   ///< Status codes of the media platform layers.
QX_EXPORT extern const char NSPOSIXErrorDomain[];      ///< errno values.
QX_EXPORT extern const char NSCocoaErrorDomain[];      ///< Files, property lists, archives, cancellation.
QX_EXPORT extern const char AVFoundationErrorDomain[]; ///< Picture generation.

QX_EXPORT extern const char NSLocalizedDescriptionKey[];   ///< User-info key: the readable description.
QX_EXPORT extern const char NSUnderlyingErrorKey[];        ///< User-info key: the error that caused this one.
QX_EXPORT extern const char NSFilePathErrorKey[];          ///< User-info key: the path concerned.
QX_EXPORT extern const char NSURLErrorKey[];               ///< User-info key: the file URL concerned.
QX_EXPORT extern const char AVErrorPersistentTrackIDKey[]; ///< User-info key: the track ID concerned.
QX_EXPORT extern const char AVErrorMediaSubTypeKey[];      ///< User-info key: the format concerned.

/// The name of a code in its domain: a QXErrorCode enumerator's name,
/// AVERROR_EOF-style names for FFmpeg's codes in QXMediaErrorDomain, errno
/// names (ENOENT) in NSPOSIXErrorDomain; empty when the code has no name.
QX_EXPORT std::string QXErrorCodeName(QXErrorDomain domain, int64_t code);

/// An error as the framework reports it; made by QXMedia::errorWithDomain().
class QX_EXPORT QXError {
public:
    /// An error of `domain` with `code` and the given user info, as it is.
    QXError(QXErrorDomain domain, int64_t code, QXDictionary userInfo = {})
        : domain_(domain), code_(code), userInfo_(std::move(userInfo)) {}

    /// The domain constant (its text is the domain's name).
    QXErrorDomain domain() const { return domain_; }
    /// The code, in the numbering of the domain.
    int64_t code() const { return code_; }
    /// Extra facts: the description, the path or track concerned.
    const QXDictionary& userInfo() const { return userInfo_; }

    /// The name of the code, such as "QXErrorFailedToOpenFile"; empty when
    /// the code has none.
    std::string codeName() const { return QXErrorCodeName(domain_, code_); }
    /// The description from the user info, or a generic sentence.
    std::string localizedDescription() const;
    /// The form a log line prints: Error Domain=D Code=C "description".
    std::string description() const;
    /// One line for a person: name (code, domain): description.
    std::string summary() const;

private:
    QXErrorDomain domain_;
    int64_t code_;
    QXDictionary userInfo_;
};

/// Errors are shared and never change once made.
using QXErrorRef = std::shared_ptr<const QXError>;

/// Sets *out to error when out is given and holds no error yet: the first
/// error stays.
inline void QXSetError(QXErrorRef* out, const QXErrorRef& error)
{
    if (out && !*out) *out = error;
}
