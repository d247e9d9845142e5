#pragma once
/// @file
/// Keyed archives: objects written as property lists whose keys are the
/// objects' own keys.
///
/// An archive is a dictionary {"$archiver": "QXKeyedArchiver", "$version": 1,
/// "$top": {"root": object}}. Each archived object is a dictionary of its
/// keys plus "$class", the name under which its class registered a factory,
/// so that a decoder can make the right subclass. Plain values (QXValue) are
/// stored as property-list values; the types a property list lacks are
/// dictionaries with a "$class" of their own: "NSURL" (key "path"),
/// "NSImage" (key "data", through the image coding hooks), "NSNull" (only as
/// an element of arrays and dictionaries). A CMTime is the dictionary
/// {"value", "timescale", "flags", "epoch"}. The key "$class" is reserved.
///
/// A class that can be archived derives from QXCoding, implements className
/// and encodeWithCoder, and has a static
///
///     static std::shared_ptr<T> initWithCoder(QXKeyedUnarchiver& coder);
///
/// which it registers once: QX_REGISTER_CODING_CLASS(T) in its source file,
/// or QXRegisterCodingClass<T>("name") at run time.

#include <concepts>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "qxmedia/core/QXExport.h"
#include "qxmedia/platform/foundation/CMTime.h"
#include "qxmedia/platform/foundation/QXError.h"
#include "qxmedia/platform/foundation/QXValue.h"
#include "qxmedia/platform/plist/QXPropertyListSerialization.h"

class QXKeyedArchiver;
class QXKeyedUnarchiver;

/// The base of every class that can be archived (see the file's overview).
class QX_EXPORT QXCoding {
public:
    virtual ~QXCoding() = default;
    /// The name the class is registered under; stored as "$class".
    virtual std::string className() const = 0;
    /// Writes the object's keys into the coder (the coder adds "$class" itself).
    virtual void encodeWithCoder(QXKeyedArchiver& coder) const = 0;
};

/// An archivable object as decoding gives it back.
using QXCodingRef = std::shared_ptr<QXCoding>;
/// Makes an object from its archived keys; null when it cannot.
using QXCodingFactory = std::function<QXCodingRef(QXKeyedUnarchiver& coder)>;

/// The process-wide map from class names to factories; safe to use from any thread.
class QXCodingRegistry {
public:
    /// Registers (or replaces) the factory of a class name.
    static void registerClass(std::string className, QXCodingFactory factory);
    /// An empty function when the name is not registered.
    static QXCodingFactory factoryForClassName(std::string_view className);
};

/// Registers T::initWithCoder as the factory of `className`.
template <class T>
void QXRegisterCodingClass(std::string className)
{
    QXCodingRegistry::registerClass(std::move(className),
                                    [](QXKeyedUnarchiver& coder) -> QXCodingRef { return T::initWithCoder(coder); });
}

/// Registers T under its own name when the program starts. The object file
/// must be linked in: it is, whenever the program uses the class.
#define QX_REGISTER_CODING_CLASS(T)                                                                              \
    [[maybe_unused]] static const bool qxCodingRegistered_##T = (QXRegisterCodingClass<T>(#T), true)

/// Turns an image into bytes (PNG) for an archive; nothing when it cannot.
using QXImageArchiveEncoder = std::function<std::optional<QXData>(const QXImageRef& image)>;
/// Makes an image of archived bytes; null when they are no picture.
using QXImageArchiveDecoder = std::function<QXImageRef(const QXData& data)>;
/// Images have no property-list form of their own; the module that knows the
/// image type installs a pair that turns them into bytes (PNG) and back.
/// Without it, images are left out of archives (with a log line) and read back as null.
void QXSetImageArchiveCoding(QXImageArchiveEncoder encoder, QXImageArchiveDecoder decoder);

/// Writes archives. An object's encodeWithCoder() gets one archiver for its own keys.
class QXKeyedArchiver {
public:
    /// An archiver with no keys yet.
    QXKeyedArchiver() = default;

    /// The archive of root as property-list bytes; nothing (with the reason in `error`)
    /// when the plist cannot be written.
    static std::optional<QXData> archivedDataWithRootObject(const QXCoding& root,
                                                            QXPropertyListFormat format = QXPropertyListFormat::Binary,
                                                            QXErrorRef* error = nullptr);
    /// The archive of root as a property-list value.
    static QXValue archivedPropertyListWithRootObject(const QXCoding& root);

    /// Plain values. A null value stores nothing: it decodes as absent.
    void encodeObject(const QXValue& value, std::string_view key);
    /// An archivable object, with its class name; null stores nothing.
    void encodeObject(const std::shared_ptr<const QXCoding>& object, std::string_view key);
    /// An archivable object of a derived class, as above.
    template <class T>
        requires std::derived_from<T, QXCoding>
    void encodeObject(const std::shared_ptr<T>& object, std::string_view key)
    {
        encodeObject(std::shared_ptr<const QXCoding>(object), key);
    }
    /// An array of archivable objects; null elements are left out.
    template <class T>
        requires std::derived_from<T, QXCoding>
    void encodeObject(const std::vector<std::shared_ptr<T>>& objects, std::string_view key)
    {
        std::vector<std::shared_ptr<const QXCoding>> list(objects.begin(), objects.end());
        encodeObjects(list, key);
    }
    /// Stores nothing, removing what the key held.
    void encodeObject(std::nullptr_t, std::string_view key);

    /// A boolean.
    void encodeBool(bool value, std::string_view key);
    ///@{
    /// An integer, stored as a 64-bit property-list integer whatever its C++ type.
    void encodeInt(int value, std::string_view key) { encodeInt64(value, key); }
    void encodeInt32(int32_t value, std::string_view key) { encodeInt64(value, key); }
    void encodeInt64(int64_t value, std::string_view key);
    void encodeInteger(int64_t value, std::string_view key) { encodeInt64(value, key); }
    ///@}
    ///@{
    /// A real, stored as a double.
    void encodeDouble(double value, std::string_view key);
    void encodeFloat(float value, std::string_view key) { encodeDouble(value, key); }
    ///@}
    /// A time, as the dictionary {"value", "timescale", "flags", "epoch"}.
    void encodeCMTime(qx::CMTime time, std::string_view key);

    /// The keys of this object so far, in their archived form.
    const QXDictionary& encodedKeys() const { return values_; }

private:
    void encodeObjects(const std::vector<std::shared_ptr<const QXCoding>>& objects, std::string_view key);

    QXDictionary values_;
};

/// Reads archives. An object's initWithCoder() gets one unarchiver over its own keys.
class QXKeyedUnarchiver {
public:
    /// A decoder over one archived object's dictionary.
    explicit QXKeyedUnarchiver(QXDictionary object);

    /// The root object of an archive in property-list bytes; null (and an
    /// error in NSCocoaErrorDomain with code 4864) for data that is no
    /// archive or whose root class is unknown.
    static QXCodingRef unarchiveObjectWithData(const QXData& data, QXErrorRef* error = nullptr);
    /// The same for an archive already read into a property-list value.
    static QXCodingRef unarchiveObjectWithPropertyList(const QXValue& archive, QXErrorRef* error = nullptr);
    /// unarchiveObjectWithData() as a T; null too when the root is of another class (with no error then).
    template <class T>
    static std::shared_ptr<T> unarchivedObjectOfClass(const QXData& data, QXErrorRef* error = nullptr)
    {
        return std::dynamic_pointer_cast<T>(unarchiveObjectWithData(data, error));
    }

    /// A factory for this decoder (and the objects inside) that wins over the
    /// registry, as for a renamed class.
    void setClass(std::string className, QXCodingFactory factory);

    /// Whether the object holds the key ("$class" is never reported).
    bool containsValueForKey(std::string_view key) const;

    /// A plain value; null when the key is absent or holds an archived object.
    QXValue decodeObject(std::string_view key) const;
    /// An archived object made by its class's factory; null when absent, of
    /// an unknown class, or not a T.
    template <class T = QXCoding>
    std::shared_ptr<T> decodeObjectOfClass(std::string_view key) const
    {
        return std::dynamic_pointer_cast<T>(decodeCodingObject(key));
    }
    /// The elements of an archived array that decode as T, in order; empty when the key holds no array.
    template <class T = QXCoding>
    std::vector<std::shared_ptr<T>> decodeArrayOfObjectsOfClass(std::string_view key) const
    {
        std::vector<std::shared_ptr<T>> out;
        for (QXCodingRef& object : decodeCodingObjects(key)) {
            if (auto typed = std::dynamic_pointer_cast<T>(object)) out.push_back(std::move(typed));
        }
        return out;
    }

    /// Scalars; the default when the key is absent or not a number.
    bool decodeBool(std::string_view key, bool defaultValue = false) const;
    ///@{
    /// An integer of any stored number (a real cut toward zero), narrowed to the type asked for by
    /// dropping high bits; the default when the key is absent or not a number.
    int decodeInt(std::string_view key, int defaultValue = 0) const { return int(decodeInt64(key, defaultValue)); }
    int32_t decodeInt32(std::string_view key, int32_t defaultValue = 0) const
    {
        return int32_t(decodeInt64(key, defaultValue));
    }
    int64_t decodeInt64(std::string_view key, int64_t defaultValue = 0) const;
    int64_t decodeInteger(std::string_view key, int64_t defaultValue = 0) const
    {
        return decodeInt64(key, defaultValue);
    }
    ///@}
    ///@{
    /// A real of any stored number; the default when the key is absent or not a number.
    double decodeDouble(std::string_view key, double defaultValue = 0) const;
    float decodeFloat(std::string_view key, float defaultValue = 0) const
    {
        return float(decodeDouble(key, defaultValue));
    }
    ///@}
    /// A time stored by encodeCMTime(); kCMTimeInvalid when absent or malformed.
    qx::CMTime decodeCMTime(std::string_view key) const;

    /// The name stored with this object; empty when it has none.
    std::string className() const;

private:
    using Overrides = std::map<std::string, QXCodingFactory, std::less<>>;
    QXKeyedUnarchiver(QXDictionary object, std::shared_ptr<Overrides> overrides);

    QXCodingRef decodeCodingObject(std::string_view key) const;
    std::vector<QXCodingRef> decodeCodingObjects(std::string_view key) const;
    QXCodingRef makeObject(const QXValue& archived) const;

    QXDictionary object_;
    std::shared_ptr<Overrides> overrides_;
};
