#pragma once
// QXError: a domain, a signed 64-bit code and a user-info dictionary.
// Domains are compared by identity of their constants, not by text.

#include <cstdint>
#include <memory>
#include <string>

#include "qxmedia/platform/foundation/QXValue.h"

using QXErrorDomain = const char*;

extern const char QXMediaErrorDomain[];
extern const char NSOSStatusErrorDomain[];
extern const char NSPOSIXErrorDomain[];
extern const char NSCocoaErrorDomain[];
extern const char AVFoundationErrorDomain[];

// User-info keys.
extern const char NSLocalizedDescriptionKey[];
extern const char NSUnderlyingErrorKey[];
extern const char NSFilePathErrorKey[];
extern const char NSURLErrorKey[];
extern const char AVErrorPersistentTrackIDKey[];
extern const char AVErrorMediaSubTypeKey[];

class QXError {
public:
    QXError(QXErrorDomain domain, int64_t code, QXDictionary userInfo = {})
        : domain_(domain), code_(code), userInfo_(std::move(userInfo)) {}

    QXErrorDomain domain() const { return domain_; }
    int64_t code() const { return code_; }
    const QXDictionary& userInfo() const { return userInfo_; }

    // The description from the user info, or a generic sentence.
    std::string localizedDescription() const;
    // The form `%@` prints: Error Domain=D Code=C "description".
    std::string description() const;

private:
    QXErrorDomain domain_;
    int64_t code_;
    QXDictionary userInfo_;
};

using QXErrorRef = std::shared_ptr<const QXError>;

// Sets *out to error when out is given and holds no error yet: the first
// error stays.
inline void QXSetError(QXErrorRef* out, const QXErrorRef& error)
{
    if (out && !*out) *out = error;
}
