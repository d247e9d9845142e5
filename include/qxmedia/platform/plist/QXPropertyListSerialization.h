#pragma once
/// @file
/// Property lists (XML and binary) to and from QXValue, through libplist.
///
/// The property-list types map to QXValue as: dictionary, array, string, data,
/// date, boolean, real (double) and integer. Integers read back as signed
/// 64-bit values; an unsigned value above the signed range keeps its bits
/// (QXValue::uint64() gives it back). Dates keep microseconds in binary and
/// whole seconds in XML, in the range 1932-12-13 to 2069-01-19 (libplist
/// stores signed 32-bit seconds since 2001); dates outside are clamped.
/// Null, URL and image values have no property-list form: serialising them
/// fails.

#include <cstdint>
#include <optional>

#include "qxmedia/platform/foundation/QXError.h"
#include "qxmedia/platform/foundation/QXValue.h"

/// The forms of a property list on disk.
enum class QXPropertyListFormat : uint32_t {
    OpenStep = 1, ///< read only, as on the platform; libplist does not read it
    XML = 100,    ///< XML text (Apple's plist 1.0 DTD).
    Binary = 200, ///< Apple's binary form (bplist00).
};

/// The platform's name of XML.
constexpr QXPropertyListFormat NSPropertyListXMLFormat_v1_0 = QXPropertyListFormat::XML;
/// The platform's name of Binary.
constexpr QXPropertyListFormat NSPropertyListBinaryFormat_v1_0 = QXPropertyListFormat::Binary;

/// Reads and writes property lists; stateless, so any thread may call it.
class QXPropertyListSerialization {
public:
    /// Reads an XML or binary property list. Nothing (and, when asked, an
    /// error in NSCocoaErrorDomain with code 3840) for anything else. The
    /// options of the platform call (mutability) have no meaning for values
    /// and are accepted for symmetry only. `format`, when given, receives the form read.
    static std::optional<QXValue> propertyListWithData(const void* bytes, size_t size, uint32_t options = 0,
                                                       QXPropertyListFormat* format = nullptr,
                                                       QXErrorRef* error = nullptr);
    /// The same over a byte vector.
    static std::optional<QXValue> propertyListWithData(const QXData& data, uint32_t options = 0,
                                                       QXPropertyListFormat* format = nullptr,
                                                       QXErrorRef* error = nullptr)
    {
        return propertyListWithData(data.data(), data.size(), options, format, error);
    }

    /// Writes a property list; nothing (and, when asked, an error with code
    /// 3851) when the value holds something a property list cannot (null,
    /// URL, image) or the format is not XML or binary. The options are ignored.
    static std::optional<QXData> dataWithPropertyList(const QXValue& plist, QXPropertyListFormat format,
                                                      uint32_t options = 0, QXErrorRef* error = nullptr);

    /// True when every element of the value has a property-list form (always false for OpenStep).
    static bool propertyList(const QXValue& plist, QXPropertyListFormat format);

    /// Files: the whole file read or written (atomically: a temporary file
    /// in the same folder, then a rename). Reading a missing file fails with
    /// NSCocoaErrorDomain code 260, another unreadable one with 256.
    static std::optional<QXValue> propertyListWithContentsOfURL(const QXURL& url, QXErrorRef* error = nullptr);
    /// Writes the whole file atomically, keeping an existing file's permissions
    /// (0644 for a new one). False on failure: code 3851 for a value that cannot
    /// be written, 512 when the file cannot.
    static bool writePropertyList(const QXValue& plist, const QXURL& url, QXPropertyListFormat format,
                                  QXErrorRef* error = nullptr);
};
