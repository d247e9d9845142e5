#include "qxmedia/platform/plist/QXPropertyListSerialization.h"

#include <plist/plist.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <limits>
#include <memory>

#include "qxmedia/core/QXMedia.h"

namespace {

// NSCocoaErrorDomain codes of the platform's property-list errors.
constexpr int64_t kReadCorruptError = 3840;
constexpr int64_t kWriteInvalidError = 3851;

// Deeper nesting than this is refused rather than risking the stack.
constexpr int kMaximumDepth = 512;

// Seconds between the Unix epoch and 2001-01-01, the epoch of plist dates.
constexpr int64_t kPlistEpoch = 978307200;

struct PlistFree {
    void operator()(plist_t node) const { plist_free(node); }
};
using PlistPtr = std::unique_ptr<void, PlistFree>;

std::optional<QXValue> valueFromNode(plist_t node, int depth)
{
    if (!node || depth > kMaximumDepth) return std::nullopt;
    switch (plist_get_node_type(node)) {
    case PLIST_BOOLEAN: {
        uint8_t value = 0;
        plist_get_bool_val(node, &value);
        return QXValue(value != 0);
    }
    case PLIST_UINT: {
        uint64_t value = 0;
        plist_get_uint_val(node, &value);
        return QXValue(int64_t(value));
    }
    case PLIST_REAL: {
        double value = 0;
        plist_get_real_val(node, &value);
        return QXValue(value);
    }
    case PLIST_STRING:
    case PLIST_KEY: {
        char* text = nullptr;
        if (plist_get_node_type(node) == PLIST_STRING) plist_get_string_val(node, &text);
        else plist_get_key_val(node, &text);
        QXValue value(std::string(text ? text : ""));
        std::free(text);
        return value;
    }
    case PLIST_DATA: {
        char* bytes = nullptr;
        uint64_t length = 0;
        plist_get_data_val(node, &bytes, &length);
        QXData data(reinterpret_cast<uint8_t*>(bytes), reinterpret_cast<uint8_t*>(bytes) + (bytes ? length : 0));
        std::free(bytes);
        return QXValue(std::move(data));
    }
    case PLIST_DATE: {
        int32_t seconds = 0, microseconds = 0;
        plist_get_date_val(node, &seconds, &microseconds);
        const auto since = std::chrono::seconds(kPlistEpoch + seconds) + std::chrono::microseconds(microseconds);
        return QXValue(QXDate(std::chrono::duration_cast<QXDate::duration>(since)));
    }
    case PLIST_UID: {
        // The platform shows keyed-archive references this way.
        uint64_t uid = 0;
        plist_get_uid_val(node, &uid);
        return QXValue(QXDictionary {{"CF$UID", QXValue(uid)}});
    }
    case PLIST_ARRAY: {
        QXArray array;
        const uint32_t count = plist_array_get_size(node);
        array.reserve(count);
        for (uint32_t i = 0; i < count; ++i) {
            std::optional<QXValue> element = valueFromNode(plist_array_get_item(node, i), depth + 1);
            if (!element) return std::nullopt;
            array.push_back(std::move(*element));
        }
        return QXValue(std::move(array));
    }
    case PLIST_DICT: {
        QXDictionary dictionary;
        plist_dict_iter iterator = nullptr;
        plist_dict_new_iter(node, &iterator);
        if (!iterator) return QXValue(std::move(dictionary));
        bool ok = true;
        while (ok) {
            char* key = nullptr;
            plist_t item = nullptr;
            plist_dict_next_item(node, iterator, &key, &item);
            if (!item) {
                std::free(key);
                break;
            }
            std::optional<QXValue> element = valueFromNode(item, depth + 1);
            if (element && key) dictionary.insert_or_assign(std::string(key), std::move(*element));
            else ok = false;
            std::free(key);
        }
        std::free(iterator);
        if (!ok) return std::nullopt;
        return QXValue(std::move(dictionary));
    }
    case PLIST_NONE: break;
    }
    return std::nullopt;
}

plist_t nodeFromValue(const QXValue& value, int depth)
{
    if (depth > kMaximumDepth) return nullptr;
    switch (value.type()) {
    case QXValue::Type::Bool: return plist_new_bool(*value.boolValue() ? 1 : 0);
    case QXValue::Type::Int: return plist_new_uint(uint64_t(*value.int64()));
    case QXValue::Type::UInt: return plist_new_uint(*value.uint64());
    case QXValue::Type::Double: return plist_new_real(*value.doubleValue());
    case QXValue::Type::String: return plist_new_string(value.string()->c_str());
    case QXValue::Type::Data: {
        const QXData& data = *value.data();
        return plist_new_data(reinterpret_cast<const char*>(data.data()), data.size());
    }
    case QXValue::Type::Date: {
        const auto since = std::chrono::duration_cast<std::chrono::microseconds>(value.date()->time_since_epoch()) -
                           std::chrono::seconds(kPlistEpoch);
        int64_t seconds = std::chrono::floor<std::chrono::seconds>(since).count();
        int64_t microseconds = (since - std::chrono::seconds(seconds)).count();
        if (seconds < std::numeric_limits<int32_t>::min() || seconds > std::numeric_limits<int32_t>::max()) {
            seconds = seconds < 0 ? std::numeric_limits<int32_t>::min() : std::numeric_limits<int32_t>::max();
            microseconds = 0;
        }
        return plist_new_date(int32_t(seconds), int32_t(microseconds));
    }
    case QXValue::Type::Array: {
        PlistPtr array(plist_new_array());
        for (const QXValue& element : *value.array()) {
            plist_t node = nodeFromValue(element, depth + 1);
            if (!node) return nullptr;
            plist_array_append_item(array.get(), node);
        }
        return array.release();
    }
    case QXValue::Type::Dictionary: {
        const QXDictionary& dictionary = *value.dictionary();
        // A keyed-archive reference read from a file goes back as one.
        if (dictionary.size() == 1 && dictionary.begin()->first == "CF$UID" && dictionary.begin()->second.isNumber()) {
            return plist_new_uid(*dictionary.begin()->second.uint64());
        }
        PlistPtr dict(plist_new_dict());
        for (const auto& [key, element] : dictionary) {
            plist_t node = nodeFromValue(element, depth + 1);
            if (!node) return nullptr;
            plist_dict_set_item(dict.get(), key.c_str(), node);
        }
        return dict.release();
    }
    case QXValue::Type::Null:
    case QXValue::Type::URL:
    case QXValue::Type::Image: break;
    }
    return nullptr;
}

bool isBinary(const void* bytes, size_t size) { return size >= 8 && std::memcmp(bytes, "bplist00", 8) == 0; }

uint64_t readBigEndian(const uint8_t* bytes, size_t count)
{
    uint64_t value = 0;
    for (size_t i = 0; i < count; ++i) value = value << 8 | bytes[i];
    return value;
}

// libplist aborts the process (an assertion) when it hands out a string
// that holds a NUL character, so such lists are refused before parsing.
// Binary form: walk the offset table and look into every string object.
bool binaryHasStringWithNul(const uint8_t* bytes, size_t size)
{
    if (size < 8 + 32) return false;
    const uint8_t* trailer = bytes + size - 32;
    const size_t offsetSize = trailer[6];
    const uint64_t objectCount = readBigEndian(trailer + 8, 8);
    const uint64_t tableOffset = readBigEndian(trailer + 24, 8);
    if (offsetSize < 1 || offsetSize > 8 || tableOffset >= size || objectCount > (size - tableOffset) / offsetSize) {
        return false; // malformed: libplist refuses it by itself
    }
    for (uint64_t i = 0; i < objectCount; ++i) {
        const uint64_t offset = readBigEndian(bytes + tableOffset + i * offsetSize, offsetSize);
        if (offset >= size) continue;
        const uint8_t marker = bytes[offset];
        const uint8_t kind = marker >> 4;
        if (kind != 0x5 && kind != 0x6) continue; // ASCII and UTF-16 strings
        uint64_t length = marker & 0x0F;
        uint64_t start = offset + 1;
        if (length == 0x0F) {
            // The length follows as an integer object: 0x1N and 2^N bytes.
            if (start >= size || (bytes[start] >> 4) != 0x1) continue;
            const size_t width = size_t(1) << (bytes[start] & 0x03);
            if (start + 1 + width > size) continue;
            length = readBigEndian(bytes + start + 1, width);
            start += 1 + width;
        }
        const uint64_t unit = kind == 0x6 ? 2 : 1;
        if (length > (size - start) / unit) continue;
        for (uint64_t at = start; at < start + length * unit; at += unit) {
            if (bytes[at] == 0 && (unit == 1 || bytes[at + 1] == 0)) return true;
        }
    }
    return false;
}

// XML form: a NUL byte or a character reference to U+0000.
bool xmlHasNul(const uint8_t* bytes, size_t size)
{
    if (std::memchr(bytes, 0, size)) return true;
    for (size_t i = 0; i + 2 < size; ++i) {
        if (bytes[i] != '&' || bytes[i + 1] != '#') continue;
        size_t at = i + 2;
        const bool hex = at < size && (bytes[at] == 'x' || bytes[at] == 'X');
        if (hex) ++at;
        const size_t digits = at;
        while (at < size && bytes[at] == '0') ++at;
        if (at < size && bytes[at] == ';' && at > digits) return true;
    }
    return false;
}

} // namespace

std::optional<QXValue> QXPropertyListSerialization::propertyListWithData(const void* bytes, size_t size,
                                                                         uint32_t /*options*/,
                                                                         QXPropertyListFormat* format,
                                                                         QXErrorRef* error)
{
    plist_t root = nullptr;
    if (bytes && size > 0 && size <= std::numeric_limits<uint32_t>::max()) {
        const auto* data = static_cast<const uint8_t*>(bytes);
        if (isBinary(bytes, size)) {
            if (!binaryHasStringWithNul(data, size)) {
                plist_from_bin(static_cast<const char*>(bytes), uint32_t(size), &root);
            }
        } else if (!xmlHasNul(data, size)) {
            plist_from_xml(static_cast<const char*>(bytes), uint32_t(size), &root);
        }
    }
    PlistPtr owner(root);
    std::optional<QXValue> value = valueFromNode(root, 0);
    if (!value) {
        if (error) {
            QXSetError(error, QXMedia::errorWithDomain(NSCocoaErrorDomain, kReadCorruptError,
                                                       {{NSLocalizedDescriptionKey,
                                                         "The data couldn’t be read because it isn’t in the correct "
                                                         "format."}}));
        }
        return std::nullopt;
    }
    if (format) *format = isBinary(bytes, size) ? QXPropertyListFormat::Binary : QXPropertyListFormat::XML;
    return value;
}

std::optional<QXData> QXPropertyListSerialization::dataWithPropertyList(const QXValue& plist,
                                                                        QXPropertyListFormat format,
                                                                        uint32_t /*options*/, QXErrorRef* error)
{
    PlistPtr root(format == QXPropertyListFormat::OpenStep ? nullptr : nodeFromValue(plist, 0));
    if (!root) {
        if (error) {
            QXSetError(error, QXMedia::errorWithDomain(NSCocoaErrorDomain, kWriteInvalidError,
                                                       {{NSLocalizedDescriptionKey,
                                                         "Property list invalid for format: " +
                                                             std::to_string(uint32_t(format))}}));
        }
        return std::nullopt;
    }
    char* bytes = nullptr;
    uint32_t length = 0;
    if (format == QXPropertyListFormat::XML) plist_to_xml(root.get(), &bytes, &length);
    else plist_to_bin(root.get(), &bytes, &length);
    QXData data(reinterpret_cast<uint8_t*>(bytes), reinterpret_cast<uint8_t*>(bytes) + (bytes ? length : 0));
    if (format == QXPropertyListFormat::XML) plist_to_xml_free(bytes);
    else plist_to_bin_free(bytes);
    return data;
}

bool QXPropertyListSerialization::propertyList(const QXValue& plist, QXPropertyListFormat format)
{
    if (format == QXPropertyListFormat::OpenStep) return false;
    PlistPtr root(nodeFromValue(plist, 0));
    return root != nullptr;
}

std::optional<QXValue> QXPropertyListSerialization::propertyListWithContentsOfURL(const QXURL& url, QXErrorRef* error)
{
    std::ifstream file(url, std::ios::binary);
    if (!file) {
        QXSetError(error, QXMedia::errorWithDomain(NSCocoaErrorDomain, errno == ENOENT ? 260 : 256,
                                                   {{NSFilePathErrorKey, url.string()}}));
        return std::nullopt;
    }
    const QXData data((std::istreambuf_iterator<char>(file)), std::istreambuf_iterator<char>());
    return propertyListWithData(data, 0, nullptr, error);
}

bool QXPropertyListSerialization::writePropertyList(const QXValue& plist, const QXURL& url,
                                                    QXPropertyListFormat format, QXErrorRef* error)
{
    std::optional<QXData> data = dataWithPropertyList(plist, format, 0, error);
    if (!data) return false;
    // Write beside the target and rename, so readers never see half a file.
    std::string temporary = url.string() + ".XXXXXX";
    const int fd = mkstemp(temporary.data());
    bool ok = fd >= 0;
    if (ok) {
        // mkstemp makes the file private; keep the mode of the file replaced.
        struct stat existing {};
        ::fchmod(fd, ::stat(url.c_str(), &existing) == 0 ? existing.st_mode & 07777 : 0644);
        size_t written = 0;
        while (ok && written < data->size()) {
            const ssize_t n = ::write(fd, data->data() + written, data->size() - written);
            if (n < 0 && errno == EINTR) continue;
            ok = n > 0;
            if (ok) written += size_t(n);
        }
        ok = ::close(fd) == 0 && ok;
        ok = ok && std::rename(temporary.c_str(), url.c_str()) == 0;
        if (!ok) ::unlink(temporary.c_str());
    }
    if (!ok) {
        // NSFileWriteUnknownError
        QXSetError(error, QXMedia::errorWithDomain(NSCocoaErrorDomain, 512, {{NSFilePathErrorKey, url.string()}}));
    }
    return ok;
}
