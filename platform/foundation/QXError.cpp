#include "qxmedia/platform/foundation/QXError.h"

const char QXMediaErrorDomain[] = "QXMediaErrorDomain";
const char NSOSStatusErrorDomain[] = "NSOSStatusErrorDomain";
const char NSPOSIXErrorDomain[] = "NSPOSIXErrorDomain";
const char NSCocoaErrorDomain[] = "NSCocoaErrorDomain";
const char AVFoundationErrorDomain[] = "AVFoundationErrorDomain";

const char NSLocalizedDescriptionKey[] = "NSLocalizedDescription";
const char NSUnderlyingErrorKey[] = "NSUnderlyingError";
const char NSFilePathErrorKey[] = "NSFilePath";
const char NSURLErrorKey[] = "NSURL";
const char AVErrorPersistentTrackIDKey[] = "AVErrorPersistentTrackIDKey";
const char AVErrorMediaSubTypeKey[] = "AVErrorMediaSubTypeKey";

std::string QXError::localizedDescription() const
{
    if (auto it = userInfo_.find(NSLocalizedDescriptionKey); it != userInfo_.end() && it->second.isString()) {
        return *it->second.string();
    }
    return "The operation couldn't be completed. (" + std::string(domain_) + " error " + std::to_string(code_) + ".)";
}

std::string QXError::description() const
{
    std::string out = "Error Domain=" + std::string(domain_) + " Code=" + std::to_string(code_) + " \"" +
                      localizedDescription() + "\"";
    if (!userInfo_.empty()) out += " UserInfo=" + QXValue(userInfo_).description();
    return out;
}
