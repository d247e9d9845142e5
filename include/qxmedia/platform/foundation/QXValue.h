#pragma once
/// @file
/// QXValue, the variant type for values whose type is known only at run time,
/// and the container and leaf types it holds.

#include <chrono>
#include <cstdint>
#include <filesystem>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <variant>
#include <vector>

#include "qxmedia/core/QXExport.h"

class QXImage;
class QXValue;

using QXData = std::vector<uint8_t>;                        ///< Bytes.
using QXDate = std::chrono::system_clock::time_point;       ///< A point in time (UTC based, like time_t).
using QXURL = std::filesystem::path;                        ///< A file location: always a local path.
using QXArray = std::vector<QXValue>;                       ///< An ordered list of values.
using QXDictionary = std::map<std::string, QXValue, std::less<>>; ///< Values by text key, sorted by key.
using QXImageRef = std::shared_ptr<const QXImage>;          ///< A shared, immutable picture.

/// The one variant type for values whose type is known only at run time
/// (error user info, generic metadata keys, property lists, sample
/// attachments). A value type: copies are deep, except that a picture is
/// shared. Default-made, it is null.
class QX_EXPORT QXValue {
public:
    /// What a value holds: Int is signed and UInt unsigned 64-bit; Null is no value.
    enum class Type { Null, Bool, Int, UInt, Double, String, Data, Date, URL, Image, Array, Dictionary };

    QXValue() = default;
    ///@{
    /// A value of the argument's type: signed integers become Int, unsigned ones
    /// UInt, C strings (not null) and string views String; nullptr gives null.
    QXValue(std::nullptr_t) {}
    QXValue(bool v) : storage_(v) {}
    QXValue(int v) : storage_(int64_t(v)) {}
    QXValue(long v) : storage_(int64_t(v)) {}
    QXValue(long long v) : storage_(int64_t(v)) {}
    QXValue(unsigned v) : storage_(uint64_t(v)) {}
    QXValue(unsigned long v) : storage_(uint64_t(v)) {}
    QXValue(unsigned long long v) : storage_(uint64_t(v)) {}
    QXValue(double v) : storage_(v) {}
    QXValue(const char* v) : storage_(std::string(v)) {}
    QXValue(std::string_view v) : storage_(std::string(v)) {}
    QXValue(std::string v) : storage_(std::move(v)) {}
    QXValue(QXData v) : storage_(std::move(v)) {}
    QXValue(QXDate v) : storage_(v) {}
    QXValue(QXURL v) : storage_(std::move(v)) {}
    QXValue(QXImageRef v) : storage_(std::move(v)) {}
    QXValue(QXArray v) : storage_(std::move(v)) {}
    QXValue(QXDictionary v) : storage_(std::move(v)) {}
    ///@}

    /// What the value holds.
    Type type() const { return Type(storage_.index()); }
    /// True for the null value only (an empty text or list is not null).
    bool isNull() const { return type() == Type::Null; }
    /// True for Bool, Int, UInt and Double.
    bool isNumber() const { return type() == Type::Bool || type() == Type::Int || type() == Type::UInt || type() == Type::Double; }
    /// True for String.
    bool isString() const { return type() == Type::String; }

    ///@{
    /// Typed access: null when the value holds another type; the pointer lives as long as the value is unchanged.
    const bool* boolValue() const { return std::get_if<bool>(&storage_); }
    const std::string* string() const { return std::get_if<std::string>(&storage_); }
    const QXData* data() const { return std::get_if<QXData>(&storage_); }
    const QXDate* date() const { return std::get_if<QXDate>(&storage_); }
    const QXURL* url() const { return std::get_if<QXURL>(&storage_); }
    const QXImageRef* image() const { return std::get_if<QXImageRef>(&storage_); }
    const QXArray* array() const { return std::get_if<QXArray>(&storage_); }
    const QXDictionary* dictionary() const { return std::get_if<QXDictionary>(&storage_); }
    QXArray* array() { return std::get_if<QXArray>(&storage_); }
    QXDictionary* dictionary() { return std::get_if<QXDictionary>(&storage_); }
    ///@}

    ///@{
    /// Numeric conversions in the manner of NSNumber: any number (and a
    /// boolean) answers; anything else (a text too) is nothing. A double is cut
    /// toward zero, and a value out of the target's range wraps.
    std::optional<int64_t> int64() const;
    std::optional<uint64_t> uint64() const;
    std::optional<double> doubleValue() const;
    ///@}
    /// A number or a boolean read as a boolean (non-zero is true).
    std::optional<bool> truth() const;

    /// Dictionary lookup; null when absent or when this is no dictionary.
    const QXValue* find(std::string_view key) const;

    /// A readable form, as `%@` prints an object in log lines.
    std::string description() const;

    /// Numbers compare by value across their types (true equals 1); everything
    /// else by type and content, pictures by identity.
    bool operator==(const QXValue& other) const;

private:
    std::variant<std::monostate, bool, int64_t, uint64_t, double, std::string, QXData, QXDate, QXURL,
                 QXImageRef, QXArray, QXDictionary>
        storage_;
};
