#include "qxmedia/platform/text/QXStringEncoding.h"

#include <unicode/ucnv.h>
#include <unicode/unistr.h>
#include <unicode/utf8.h>

#include <cerrno>
#include <cstring>
#include <fstream>
#include <memory>
#include <fcntl.h>
#include <sys/stat.h>
#include <strings.h>
#include <unistd.h>

#include "qxmedia/core/QXMedia.h"
#include "qxmedia/platform/foundation/QXLocalization.h"

namespace {

struct EncodingInfo {
    NSStringEncoding encoding;
    const char* icuName;
    const char* displayName;
};

// Core Foundation encoding values of the encodings without an NS constant.
constexpr NSStringEncoding cf(uint32_t value) { return QXStringEncodingFromCFStringEncoding(value); }

const EncodingInfo kEncodings[] = {
    {NSUTF8StringEncoding, "UTF-8", "Unicode (UTF-8)"},
    {NSASCIIStringEncoding, "US-ASCII", "Western (ASCII)"},
    {NSUnicodeStringEncoding, "UTF-16", "Unicode (UTF-16)"},
    {NSUTF16BigEndianStringEncoding, "UTF-16BE", "Unicode (UTF-16BE)"},
    {NSUTF16LittleEndianStringEncoding, "UTF-16LE", "Unicode (UTF-16LE)"},
    {NSUTF32StringEncoding, "UTF-32", "Unicode (UTF-32)"},
    {NSUTF32BigEndianStringEncoding, "UTF-32BE", "Unicode (UTF-32BE)"},
    {NSUTF32LittleEndianStringEncoding, "UTF-32LE", "Unicode (UTF-32LE)"},
    {NSISOLatin1StringEncoding, "ISO-8859-1", "Western (ISO Latin 1)"},
    {NSISOLatin2StringEncoding, "ISO-8859-2", "Central European (ISO Latin 2)"},
    {NSWindowsCP1252StringEncoding, "windows-1252", "Western (Windows Latin 1)"},
    {NSWindowsCP1250StringEncoding, "windows-1250", "Central European (Windows Latin 2)"},
    {NSWindowsCP1251StringEncoding, "windows-1251", "Cyrillic (Windows)"},
    {NSWindowsCP1253StringEncoding, "windows-1253", "Greek (Windows)"},
    {NSWindowsCP1254StringEncoding, "windows-1254", "Turkish (Windows Latin 5)"},
    {NSMacOSRomanStringEncoding, "macintosh", "Western (Mac OS Roman)"},
    {NSJapaneseEUCStringEncoding, "EUC-JP", "Japanese (EUC)"},
    {NSShiftJISStringEncoding, "Shift_JIS", "Japanese (Shift JIS)"},
    {NSISO2022JPStringEncoding, "ISO-2022-JP", "Japanese (ISO 2022-JP)"},
    {cf(0x0203), "ISO-8859-3", "Western (ISO Latin 3)"},
    {cf(0x0204), "ISO-8859-4", "Central European (ISO Latin 4)"},
    {cf(0x0205), "ISO-8859-5", "Cyrillic (ISO 8859-5)"},
    {cf(0x0206), "ISO-8859-6", "Arabic (ISO 8859-6)"},
    {cf(0x0207), "ISO-8859-7", "Greek (ISO 8859-7)"},
    {cf(0x0208), "ISO-8859-8", "Hebrew (ISO 8859-8)"},
    {cf(0x0209), "ISO-8859-9", "Turkish (ISO Latin 5)"},
    {cf(0x020A), "ISO-8859-10", "Nordic (ISO Latin 6)"},
    {cf(0x020B), "ISO-8859-11", "Thai (ISO 8859-11)"},
    {cf(0x020D), "ISO-8859-13", "Baltic (ISO Latin 7)"},
    {cf(0x020E), "ISO-8859-14", "Celtic (ISO Latin 8)"},
    {cf(0x020F), "ISO-8859-15", "Western (ISO Latin 9)"},
    {cf(0x0210), "ISO-8859-16", "Romanian (ISO Latin 10)"},
    {cf(0x0505), "windows-1255", "Hebrew (Windows)"},
    {cf(0x0506), "windows-1256", "Arabic (Windows)"},
    {cf(0x0507), "windows-1257", "Baltic (Windows)"},
    {cf(0x0508), "windows-1258", "Vietnamese (Windows)"},
    {cf(0x0A02), "KOI8-R", "Cyrillic (KOI8-R)"},
    {cf(0x0A08), "KOI8-U", "Ukrainian (KOI8-U)"},
    {cf(0x0A03), "Big5", "Traditional Chinese (Big 5)"},
    {cf(0x0940), "EUC-KR", "Korean (EUC)"},
    {cf(0x0930), "GB2312", "Simplified Chinese (GB 2312)"},
    {cf(0x0632), "GB18030", "Chinese (GB 18030)"},
};

const EncodingInfo* infoFor(NSStringEncoding encoding)
{
    for (const EncodingInfo& info : kEncodings) {
        if (info.encoding == encoding) return &info;
    }
    return nullptr;
}

struct ConverterCloser {
    void operator()(UConverter* converter) const { ucnv_close(converter); }
};
using Converter = std::unique_ptr<UConverter, ConverterCloser>;

Converter openConverter(NSStringEncoding encoding, bool strictToUnicode, bool strictFromUnicode)
{
    const char* name = QXICUNameOfStringEncoding(encoding);
    if (!name) return nullptr;
    UErrorCode status = U_ZERO_ERROR;
    Converter converter(ucnv_open(name, &status));
    if (U_FAILURE(status)) return nullptr;
    if (strictToUnicode) {
        ucnv_setToUCallBack(converter.get(), UCNV_TO_U_CALLBACK_STOP, nullptr, nullptr, nullptr, &status);
    }
    if (strictFromUnicode) {
        ucnv_setFromUCallBack(converter.get(), UCNV_FROM_U_CALLBACK_STOP, nullptr, nullptr, nullptr, &status);
    }
    return U_SUCCESS(status) ? std::move(converter) : nullptr;
}

// UTF-8 in, UTF-16 out; nothing for ill-formed input.
std::optional<icu::UnicodeString> unicodeFromUTF8(std::string_view utf8)
{
    int32_t offset = 0;
    const int32_t length = int32_t(utf8.size());
    while (offset < length) {
        UChar32 c;
        U8_NEXT(utf8.data(), offset, length, c);
        if (c < 0) return std::nullopt;
    }
    return icu::UnicodeString::fromUTF8(icu::StringPiece(utf8.data(), int32_t(utf8.size())));
}

} // namespace

const char* QXICUNameOfStringEncoding(NSStringEncoding encoding)
{
    const EncodingInfo* info = infoFor(encoding);
    return info ? info->icuName : nullptr;
}

NSStringEncoding QXStringEncodingForName(std::string_view name)
{
    const std::string text(name);
    for (const EncodingInfo& info : kEncodings) {
        if (strcasecmp(info.icuName, text.c_str()) == 0) return info.encoding;
    }
    // Aliases ICU knows (latin1, cp1252, utf8, ...): compare canonical names.
    UErrorCode status = U_ZERO_ERROR;
    const char* canonical = ucnv_getCanonicalName(text.c_str(), "IANA", &status);
    if (U_FAILURE(status) || !canonical) {
        status = U_ZERO_ERROR;
        canonical = ucnv_getAlias(text.c_str(), 0, &status);
    }
    if (U_FAILURE(status) || !canonical) return QXUnknownStringEncoding;
    for (const EncodingInfo& info : kEncodings) {
        UErrorCode infoStatus = U_ZERO_ERROR;
        const char* infoCanonical = ucnv_getCanonicalName(info.icuName, "IANA", &infoStatus);
        if (U_SUCCESS(infoStatus) && infoCanonical && strcasecmp(infoCanonical, canonical) == 0) return info.encoding;
        infoStatus = U_ZERO_ERROR;
        const char* infoAlias = ucnv_getAlias(info.icuName, 0, &infoStatus);
        if (U_SUCCESS(infoStatus) && infoAlias && strcasecmp(infoAlias, canonical) == 0) return info.encoding;
    }
    return QXUnknownStringEncoding;
}

std::string QXLocalizedNameOfStringEncoding(NSStringEncoding encoding)
{
    const EncodingInfo* info = infoFor(encoding);
    return info ? QXLocalizedString(info->displayName) : std::string();
}

bool QXIsWideUnicodeEncoding(NSStringEncoding encoding)
{
    switch (encoding) {
    case NSUnicodeStringEncoding:
    case NSUTF16BigEndianStringEncoding:
    case NSUTF16LittleEndianStringEncoding:
    case NSUTF32StringEncoding:
    case NSUTF32BigEndianStringEncoding:
    case NSUTF32LittleEndianStringEncoding: return true;
    default: return false;
    }
}

std::optional<std::string> QXStringFromData(const void* bytes, size_t size, NSStringEncoding encoding,
                                            bool allowLossyConversion)
{
    if (size > size_t(INT32_MAX)) return std::nullopt;
    const char* data = static_cast<const char*>(bytes);
    if (encoding == NSUTF8StringEncoding && size >= 3 && std::memcmp(data, "\xEF\xBB\xBF", 3) == 0) {
        data += 3;
        size -= 3;
    }
    Converter converter = openConverter(encoding, !allowLossyConversion, false);
    if (!converter) return std::nullopt;
    UErrorCode status = U_ZERO_ERROR;
    icu::UnicodeString text(data, int32_t(size), converter.get(), status);
    if (U_FAILURE(status)) return std::nullopt;
    // A byte order mark is no part of the text, whatever the encoding.
    if (text.length() > 0 && text.charAt(0) == 0xFEFF) text.remove(0, 1);
    std::string out;
    text.toUTF8String(out);
    return out;
}

std::optional<QXData> QXDataFromString(std::string_view utf8, NSStringEncoding encoding, bool allowLossyConversion)
{
    if (utf8.size() > size_t(INT32_MAX)) return std::nullopt;
    std::optional<icu::UnicodeString> text = unicodeFromUTF8(utf8);
    if (!text) return std::nullopt;
    if (encoding == NSUTF8StringEncoding) return QXData(utf8.begin(), utf8.end());
    Converter converter = openConverter(encoding, false, !allowLossyConversion);
    if (!converter) return std::nullopt;
    UErrorCode status = U_ZERO_ERROR;
    const int32_t needed = text->extract(nullptr, 0, converter.get(), status);
    if (status != U_BUFFER_OVERFLOW_ERROR && U_FAILURE(status)) return std::nullopt;
    QXData out(size_t(needed) + 4);
    status = U_ZERO_ERROR;
    ucnv_reset(converter.get());
    const int32_t written =
        text->extract(reinterpret_cast<char*>(out.data()), int32_t(out.size()), converter.get(), status);
    if (U_FAILURE(status)) return std::nullopt;
    out.resize(size_t(written));
    return out;
}

std::optional<std::string> QXCStringUsingEncoding(std::string_view utf8, NSStringEncoding encoding)
{
    std::optional<QXData> data = QXDataFromString(utf8, encoding);
    if (!data) return std::nullopt;
    return std::string(data->begin(), data->end());
}

bool QXCanBeConvertedToEncoding(std::string_view utf8, NSStringEncoding encoding)
{
    return QXDataFromString(utf8, encoding).has_value();
}

std::optional<std::string> QXStringWithContentsOfURL(const QXURL& url, NSStringEncoding* usedEncoding,
                                                     QXErrorRef* error)
{
    std::ifstream file(url, std::ios::binary);
    if (!file) {
        const int64_t code = errno == ENOENT ? 260 : 256; // NSFileReadNoSuchFileError, NSFileReadUnknownError
        QXSetError(error, QXMedia::errorWithDomain(NSCocoaErrorDomain, code, {{NSFilePathErrorKey, url.string()}}));
        return std::nullopt;
    }
    const QXData data((std::istreambuf_iterator<char>(file)), std::istreambuf_iterator<char>());
    std::string text;
    const NSStringEncoding encoding = QXStringEncodingForData(data, &text);
    if (encoding == QXUnknownStringEncoding) {
        // NSFileReadUnknownStringEncodingError
        QXSetError(error, QXMedia::errorWithDomain(NSCocoaErrorDomain, 264, {{NSFilePathErrorKey, url.string()}}));
        return std::nullopt;
    }
    if (usedEncoding) *usedEncoding = encoding;
    return text;
}

namespace {

bool writeAll(int fd, const QXData& data)
{
    size_t written = 0;
    while (written < data.size()) {
        const ssize_t n = ::write(fd, data.data() + written, data.size() - written);
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) return false;
        written += size_t(n);
    }
    return true;
}

} // namespace

bool QXWriteStringToURL(std::string_view utf8, const QXURL& url, bool atomically, NSStringEncoding encoding,
                        QXErrorRef* error)
{
    const std::optional<QXData> data = QXDataFromString(utf8, encoding);
    if (!data) {
        // NSFileWriteInapplicableStringEncodingError
        QXSetError(error, QXMedia::errorWithDomain(NSCocoaErrorDomain, 517, {{NSFilePathErrorKey, url.string()}}));
        return false;
    }
    std::string temporary = url.string();
    int fd = -1;
    if (atomically) {
        temporary += ".XXXXXX";
        fd = ::mkstemp(temporary.data());
        // mkstemp makes the file private: a rewritten file keeps the mode
        // of the one it replaces, a new one gets the usual 0644. (Reading
        // the umask would change it for every thread for a moment.)
        if (fd >= 0) {
            struct stat existing {};
            ::fchmod(fd, ::stat(url.c_str(), &existing) == 0 ? existing.st_mode & 07777 : 0644);
        }
    } else {
        fd = ::open(temporary.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0666);
    }
    bool ok = fd >= 0 && writeAll(fd, *data);
    const int cause = errno;
    if (fd >= 0) ok = ::close(fd) == 0 && ok;
    if (ok && atomically) ok = std::rename(temporary.c_str(), url.c_str()) == 0;
    if (!ok) {
        if (atomically && fd >= 0) ::unlink(temporary.c_str());
        const int64_t code = (cause == EACCES || cause == EPERM || cause == EROFS) ? 513 : 512;
        QXSetError(error, QXMedia::errorWithDomain(NSCocoaErrorDomain, code, {{NSFilePathErrorKey, url.string()}}));
    }
    return ok;
}
