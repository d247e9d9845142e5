#pragma once
// Text encodings: names, conversion, detection.
//
// An encoding is identified by the platform's text encoding number
// (NSStringEncoding), so a number stored with a track or in an archive keeps
// its meaning: 4 is UTF-8, 30 Mac OS Roman, and so on. 0 means "unknown".
// Text in this library is UTF-8 in std::string; conversion goes through ICU.

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include "qxmedia/platform/foundation/QXError.h"
#include "qxmedia/platform/foundation/QXValue.h"

using NSStringEncoding = uint64_t;

constexpr NSStringEncoding QXUnknownStringEncoding = 0;
constexpr NSStringEncoding NSASCIIStringEncoding = 1;
constexpr NSStringEncoding NSJapaneseEUCStringEncoding = 3;
constexpr NSStringEncoding NSUTF8StringEncoding = 4;
constexpr NSStringEncoding NSISOLatin1StringEncoding = 5;
constexpr NSStringEncoding NSShiftJISStringEncoding = 8;
constexpr NSStringEncoding NSISOLatin2StringEncoding = 9;
constexpr NSStringEncoding NSUnicodeStringEncoding = 10; // UTF-16 with a byte order mark
constexpr NSStringEncoding NSWindowsCP1251StringEncoding = 11;
constexpr NSStringEncoding NSWindowsCP1252StringEncoding = 12;
constexpr NSStringEncoding NSWindowsCP1253StringEncoding = 13;
constexpr NSStringEncoding NSWindowsCP1254StringEncoding = 14;
constexpr NSStringEncoding NSWindowsCP1250StringEncoding = 15;
constexpr NSStringEncoding NSISO2022JPStringEncoding = 21;
constexpr NSStringEncoding NSMacOSRomanStringEncoding = 30;
constexpr NSStringEncoding NSUTF16StringEncoding = NSUnicodeStringEncoding;
constexpr NSStringEncoding NSUTF16BigEndianStringEncoding = 0x90000100;
constexpr NSStringEncoding NSUTF16LittleEndianStringEncoding = 0x94000100;
constexpr NSStringEncoding NSUTF32StringEncoding = 0x8c000100;
constexpr NSStringEncoding NSUTF32BigEndianStringEncoding = 0x98000100;
constexpr NSStringEncoding NSUTF32LittleEndianStringEncoding = 0x9c000100;

// Encodings without a constant of their own are numbered as the platform
// numbers them: 0x80000000 plus the Core Foundation encoding value.
constexpr NSStringEncoding QXStringEncodingFromCFStringEncoding(uint32_t cfEncoding)
{
    return 0x80000000u | cfEncoding;
}

// The ICU converter name of an encoding; null when the encoding is unknown.
const char* QXICUNameOfStringEncoding(NSStringEncoding encoding);
// The encoding of an ICU converter or IANA name (case-insensitive); 0 when
// none of the known encodings has that name.
NSStringEncoding QXStringEncodingForName(std::string_view name);
// A readable name such as "Unicode (UTF-16LE)", passed through the host's
// translator; empty for an unknown encoding.
std::string QXLocalizedNameOfStringEncoding(NSStringEncoding encoding);
// The six UTF-16 and UTF-32 encodings.
bool QXIsWideUnicodeEncoding(NSStringEncoding encoding);

// Decodes bytes into UTF-8 text. Without allowLossyConversion a byte
// sequence that is not valid in the encoding gives nothing; with it, such
// sequences become U+FFFD. A leading byte order mark is dropped.
std::optional<std::string> QXStringFromData(const void* bytes, size_t size, NSStringEncoding encoding,
                                            bool allowLossyConversion = false);
inline std::optional<std::string> QXStringFromData(const QXData& data, NSStringEncoding encoding,
                                                   bool allowLossyConversion = false)
{
    return QXStringFromData(data.data(), data.size(), encoding, allowLossyConversion);
}

// Encodes UTF-8 text. Without allowLossyConversion a character the encoding
// cannot hold gives nothing; with it, such characters become the encoding's
// substitute. Invalid UTF-8 input always gives nothing.
std::optional<QXData> QXDataFromString(std::string_view utf8, NSStringEncoding encoding,
                                       bool allowLossyConversion = false);
// The encoded bytes as a C string (cStringUsingEncoding:), or nothing when
// the text does not convert losslessly.
std::optional<std::string> QXCStringUsingEncoding(std::string_view utf8, NSStringEncoding encoding);
// True when every character of the text has a form in the encoding.
bool QXCanBeConvertedToEncoding(std::string_view utf8, NSStringEncoding encoding);

// Detects the encoding of text bytes. Byte order marks decide first; UTF-16
// and UTF-32 without a mark are recognised by the pattern of their zero
// bytes; then strict UTF-8; then ICU's statistical detector for the 8-bit
// and East Asian encodings. Data that decodes to nothing like text (binary
// data) gives QXUnknownStringEncoding. On success the decoded text (UTF-8)
// goes to convertedString when given.
NSStringEncoding QXStringEncodingForData(const void* bytes, size_t size, std::string* convertedString = nullptr,
                                         bool* usedLossyConversion = nullptr);
inline NSStringEncoding QXStringEncodingForData(const QXData& data, std::string* convertedString = nullptr,
                                                bool* usedLossyConversion = nullptr)
{
    return QXStringEncodingForData(data.data(), data.size(), convertedString, usedLossyConversion);
}

// Reads a text file with its encoding detected (initWithContentsOfURL:
// usedEncoding:error:). Nothing when the file cannot be read (error in
// NSCocoaErrorDomain, 260 or 256) or its encoding is not recognised (264).
std::optional<std::string> QXStringWithContentsOfURL(const QXURL& url, NSStringEncoding* usedEncoding = nullptr,
                                                     QXErrorRef* error = nullptr);

// Writes text in the given encoding (writeToURL:atomically:encoding:error:).
// Atomically means through a temporary file in the same folder that is then
// renamed over the target, so readers see the old or the new file, never a
// part. Fails (NSCocoaErrorDomain 517) when the text does not convert
// losslessly, or (512/513) when the file cannot be written.
bool QXWriteStringToURL(std::string_view utf8, const QXURL& url, bool atomically, NSStringEncoding encoding,
                        QXErrorRef* error = nullptr);
