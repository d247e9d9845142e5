#include "QXPropertyList.h"

#include <cinttypes>
#include <cstring>
#include <cstdio>
#include <ctime>
#include <fstream>
#include <iterator>
#include <sstream>

#include <plist/plist.h>
#include <pugixml.hpp>

namespace qx::metadata {

namespace {

const char base64Alphabet[] = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";

std::string base64(const QXData& data)
{
    std::string out;
    for (size_t i = 0; i < data.size(); i += 3) {
        uint32_t block = uint32_t(data[i]) << 16;
        if (i + 1 < data.size()) block |= uint32_t(data[i + 1]) << 8;
        if (i + 2 < data.size()) block |= data[i + 2];
        out += base64Alphabet[(block >> 18) & 63];
        out += base64Alphabet[(block >> 12) & 63];
        out += i + 1 < data.size() ? base64Alphabet[(block >> 6) & 63] : '=';
        out += i + 2 < data.size() ? base64Alphabet[block & 63] : '=';
    }
    return out;
}

QXData unbase64(std::string_view text)
{
    QXData out;
    uint32_t block = 0;
    int bits = 0;
    for (char c : text) {
        const char* at = c ? std::strchr(base64Alphabet, c) : nullptr;
        if (!at) continue; // blanks, line breaks and padding
        block = (block << 6) | uint32_t(at - base64Alphabet);
        bits += 6;
        if (bits >= 8) {
            bits -= 8;
            out.push_back(uint8_t(block >> bits));
        }
    }
    return out;
}

std::string escaped(std::string_view text)
{
    std::string out;
    for (char c : text) {
        switch (c) {
        case '&': out += "&amp;"; break;
        case '<': out += "&lt;"; break;
        case '>': out += "&gt;"; break;
        default: out += c;
        }
    }
    return out;
}

std::string isoUTC(QXDate date)
{
    const std::time_t t = std::chrono::system_clock::to_time_t(date);
    std::tm tm {};
    gmtime_r(&t, &tm);
    char buffer[32];
    std::strftime(buffer, sizeof buffer, "%Y-%m-%dT%H:%M:%SZ", &tm);
    return buffer;
}

std::optional<QXDate> parseISOUTC(std::string_view text)
{
    std::tm tm {};
    int year, month, day, hour = 0, minute = 0, second = 0;
    const std::string copy(text);
    if (std::sscanf(copy.c_str(), "%d-%d-%dT%d:%d:%d", &year, &month, &day, &hour, &minute, &second) < 3) {
        return std::nullopt;
    }
    tm.tm_year = year - 1900;
    tm.tm_mon = month - 1;
    tm.tm_mday = day;
    tm.tm_hour = hour;
    tm.tm_min = minute;
    tm.tm_sec = second;
    return std::chrono::system_clock::from_time_t(timegm(&tm));
}

void write(std::string& out, const QXValue& value, int depth)
{
    const std::string indent(size_t(depth), '\t');
    switch (value.type()) {
    case QXValue::Type::Bool: out += indent + (*value.boolValue() ? "<true/>\n" : "<false/>\n"); break;
    case QXValue::Type::Int: out += indent + "<integer>" + std::to_string(*value.int64()) + "</integer>\n"; break;
    case QXValue::Type::UInt: out += indent + "<integer>" + std::to_string(*value.uint64()) + "</integer>\n"; break;
    case QXValue::Type::Double: {
        char buffer[64];
        std::snprintf(buffer, sizeof buffer, "%.17g", *value.doubleValue());
        out += indent + "<real>" + buffer + "</real>\n";
        break;
    }
    case QXValue::Type::String: out += indent + "<string>" + escaped(*value.string()) + "</string>\n"; break;
    case QXValue::Type::URL: out += indent + "<string>" + escaped(value.url()->string()) + "</string>\n"; break;
    case QXValue::Type::Data: out += indent + "<data>" + base64(*value.data()) + "</data>\n"; break;
    case QXValue::Type::Date: out += indent + "<date>" + isoUTC(*value.date()) + "</date>\n"; break;
    case QXValue::Type::Array:
        if (value.array()->empty()) {
            out += indent + "<array/>\n";
            break;
        }
        out += indent + "<array>\n";
        for (const auto& item : *value.array()) write(out, item, depth + 1);
        out += indent + "</array>\n";
        break;
    case QXValue::Type::Dictionary:
        if (value.dictionary()->empty()) {
            out += indent + "<dict/>\n";
            break;
        }
        out += indent + "<dict>\n";
        for (const auto& [key, item] : *value.dictionary()) {
            if (item.isNull() || item.type() == QXValue::Type::Image) continue;
            out += indent + "\t<key>" + escaped(key) + "</key>\n";
            write(out, item, depth + 1);
        }
        out += indent + "</dict>\n";
        break;
    case QXValue::Type::Null:
    case QXValue::Type::Image: break; // no property-list form
    }
}

std::optional<QXValue> read(const pugi::xml_node& node)
{
    const std::string_view tag = node.name();
    const char* text = node.child_value();
    if (tag == "string") return QXValue(std::string(text));
    if (tag == "integer") {
        const std::string_view digits(text);
        if (!digits.empty() && digits.front() != '-') {
            uint64_t u = std::strtoull(text, nullptr, 10);
            if (u > uint64_t(INT64_MAX)) return QXValue(u);
        }
        return QXValue(int64_t(std::strtoll(text, nullptr, 10)));
    }
    if (tag == "real") return QXValue(std::strtod(text, nullptr));
    if (tag == "true") return QXValue(true);
    if (tag == "false") return QXValue(false);
    if (tag == "data") return QXValue(unbase64(text));
    if (tag == "date") {
        auto date = parseISOUTC(text);
        return date ? std::optional<QXValue>(QXValue(*date)) : std::nullopt;
    }
    if (tag == "array") {
        QXArray array;
        for (auto child : node.children()) {
            if (child.type() != pugi::node_element) continue;
            auto item = read(child);
            if (!item) return std::nullopt;
            array.push_back(std::move(*item));
        }
        return QXValue(std::move(array));
    }
    if (tag == "dict") {
        QXDictionary dict;
        std::optional<std::string> key;
        for (auto child : node.children()) {
            if (child.type() != pugi::node_element) continue;
            if (std::string_view(child.name()) == "key") {
                key = child.child_value();
                continue;
            }
            if (!key) return std::nullopt;
            auto item = read(child);
            if (!item) return std::nullopt;
            dict.insert_or_assign(*key, std::move(*item));
            key.reset();
        }
        return QXValue(std::move(dict));
    }
    return std::nullopt;
}

std::optional<QXValue> fromLibplist(plist_t node)
{
    switch (plist_get_node_type(node)) {
    case PLIST_BOOLEAN: {
        uint8_t v = 0;
        plist_get_bool_val(node, &v);
        return QXValue(v != 0);
    }
    case PLIST_UINT: {
        uint64_t v = 0;
        plist_get_uint_val(node, &v);
        return v > uint64_t(INT64_MAX) ? QXValue(v) : QXValue(int64_t(v));
    }
    case PLIST_REAL: {
        double v = 0;
        plist_get_real_val(node, &v);
        return QXValue(v);
    }
    case PLIST_STRING: {
        char* v = nullptr;
        plist_get_string_val(node, &v);
        QXValue value(std::string(v ? v : ""));
        std::free(v);
        return value;
    }
    case PLIST_DATA: {
        char* v = nullptr;
        uint64_t length = 0;
        plist_get_data_val(node, &v, &length);
        QXValue value(QXData(v, v + length));
        std::free(v);
        return value;
    }
    case PLIST_DATE: {
        int32_t seconds = 0, microseconds = 0;
        plist_get_date_val(node, &seconds, &microseconds);
        // Seconds since 2001-01-01.
        const auto epoch2001 = std::chrono::system_clock::from_time_t(978307200);
        return QXValue(epoch2001 + std::chrono::seconds(seconds) + std::chrono::microseconds(microseconds));
    }
    case PLIST_ARRAY: {
        QXArray array;
        for (uint32_t i = 0; i < plist_array_get_size(node); ++i) {
            auto item = fromLibplist(plist_array_get_item(node, i));
            if (item) array.push_back(std::move(*item));
        }
        return QXValue(std::move(array));
    }
    case PLIST_DICT: {
        QXDictionary dict;
        plist_dict_iter it = nullptr;
        plist_dict_new_iter(node, &it);
        for (;;) {
            char* key = nullptr;
            plist_t item = nullptr;
            plist_dict_next_item(node, it, &key, &item);
            if (!item) {
                std::free(key);
                break;
            }
            if (auto value = fromLibplist(item)) dict.insert_or_assign(key, std::move(*value));
            std::free(key);
        }
        std::free(it);
        return QXValue(std::move(dict));
    }
    default: return std::nullopt;
    }
}

} // namespace

std::string xmlPropertyList(const QXValue& root)
{
    std::string out = "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n"
                      "<!DOCTYPE plist PUBLIC \"-//Apple//DTD PLIST 1.0//EN\" "
                      "\"http://www.apple.com/DTDs/PropertyList-1.0.dtd\">\n"
                      "<plist version=\"1.0\">\n";
    write(out, root, 0);
    out += "</plist>\n";
    return out;
}

std::optional<QXValue> propertyListFromBytes(std::string_view bytes)
{
    if (bytes.substr(0, 6) == "bplist") {
        plist_t root = nullptr;
        plist_from_bin(bytes.data(), uint32_t(bytes.size()), &root);
        if (!root) return std::nullopt;
        auto value = fromLibplist(root);
        plist_free(root);
        return value;
    }
    pugi::xml_document document;
    if (!document.load_buffer(bytes.data(), bytes.size())) return std::nullopt;
    pugi::xml_node plist = document.child("plist");
    if (!plist) return std::nullopt;
    for (auto child : plist.children()) {
        if (child.type() == pugi::node_element) return read(child);
    }
    return std::nullopt;
}

std::optional<QXValue> propertyListFromFile(const QXURL& url)
{
    std::ifstream file(url, std::ios::binary);
    if (!file) return std::nullopt;
    const std::string bytes((std::istreambuf_iterator<char>(file)), std::istreambuf_iterator<char>());
    return propertyListFromBytes(bytes);
}

} // namespace qx::metadata
