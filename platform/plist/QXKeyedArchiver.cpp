#include "qxmedia/platform/plist/QXKeyedArchiver.h"

#include <mutex>

#include "qxmedia/core/QXMedia.h"

namespace {

constexpr char kClassKey[] = "$class";
constexpr char kArchiverName[] = "QXKeyedArchiver";
constexpr int64_t kArchiveVersion = 1;
constexpr char kRootKey[] = "root";

// Class names of the value types a property list cannot hold directly.
constexpr char kURLClass[] = "NSURL";
constexpr char kImageClass[] = "NSImage";
constexpr char kNullClass[] = "NSNull";
constexpr char kDictionaryClass[] = "NSDictionary";

// NSCoderReadCorruptError
constexpr int64_t kReadCorruptError = 4864;

struct Registry {
    std::mutex lock;
    std::map<std::string, QXCodingFactory, std::less<>> factories;
    QXImageArchiveEncoder imageEncoder;
    QXImageArchiveDecoder imageDecoder;
};

Registry& registry()
{
    static Registry instance;
    return instance;
}

QXDictionary classDictionary(const char* className, QXDictionary entries = {})
{
    entries.insert_or_assign(kClassKey, QXValue(className));
    return entries;
}

const std::string* classNameOf(const QXValue& value)
{
    const QXValue* name = value.find(kClassKey);
    return name ? name->string() : nullptr;
}

// A value in its archived form. Null stands for "store nothing" at the top
// level of a key and for NSNull inside containers.
QXValue archivedValue(const QXValue& value, bool nested)
{
    switch (value.type()) {
    case QXValue::Type::Null: return nested ? QXValue(classDictionary(kNullClass)) : QXValue();
    case QXValue::Type::URL: return classDictionary(kURLClass, {{"path", QXValue(value.url()->string())}});
    case QXValue::Type::Image: {
        QXImageArchiveEncoder encoder;
        {
            std::lock_guard lock(registry().lock);
            encoder = registry().imageEncoder;
        }
        std::optional<QXData> data = encoder && *value.image() ? encoder(*value.image()) : std::nullopt;
        if (!data) {
            QXLogWarning("Could not archive an image");
            return nested ? QXValue(classDictionary(kNullClass)) : QXValue();
        }
        return classDictionary(kImageClass, {{"data", QXValue(std::move(*data))}});
    }
    case QXValue::Type::Array: {
        QXArray array;
        array.reserve(value.array()->size());
        for (const QXValue& element : *value.array()) array.push_back(archivedValue(element, true));
        return array;
    }
    case QXValue::Type::Dictionary: {
        QXDictionary dictionary;
        for (const auto& [key, element] : *value.dictionary()) {
            dictionary.insert_or_assign(key, archivedValue(element, true));
        }
        // A plain dictionary that happens to use the reserved key is wrapped.
        if (dictionary.count(kClassKey)) return classDictionary(kDictionaryClass, {{"entries", QXValue(dictionary)}});
        return dictionary;
    }
    default: return value;
    }
}

// The plain value of an archived form; archived objects are not plain
// values and give null.
QXValue plainValue(const QXValue& archived)
{
    if (const QXArray* array = archived.array()) {
        QXArray out;
        out.reserve(array->size());
        for (const QXValue& element : *array) out.push_back(plainValue(element));
        return out;
    }
    const QXDictionary* dictionary = archived.dictionary();
    if (!dictionary) return archived;
    const std::string* className = classNameOf(archived);
    if (!className) {
        QXDictionary out;
        for (const auto& [key, element] : *dictionary) out.insert_or_assign(key, plainValue(element));
        return out;
    }
    if (*className == kURLClass) {
        const QXValue* path = archived.find("path");
        return path && path->string() ? QXValue(QXURL(*path->string())) : QXValue();
    }
    if (*className == kImageClass) {
        const QXValue* data = archived.find("data");
        QXImageArchiveDecoder decoder;
        {
            std::lock_guard lock(registry().lock);
            decoder = registry().imageDecoder;
        }
        if (!data || !data->data() || !decoder) return QXValue();
        QXImageRef image = decoder(*data->data());
        return image ? QXValue(std::move(image)) : QXValue();
    }
    if (*className == kDictionaryClass) {
        // The entries hold the reserved key as plain data: no class lookup.
        QXDictionary out;
        const QXValue* entries = archived.find("entries");
        if (entries && entries->dictionary()) {
            for (const auto& [key, element] : *entries->dictionary()) out.insert_or_assign(key, plainValue(element));
        }
        return out;
    }
    return QXValue();
}

QXDictionary archivedObject(const QXCoding& object)
{
    QXKeyedArchiver archiver;
    object.encodeWithCoder(archiver);
    QXDictionary dictionary = archiver.encodedKeys();
    dictionary.insert_or_assign(kClassKey, QXValue(object.className()));
    return dictionary;
}

} // namespace

void QXCodingRegistry::registerClass(std::string className, QXCodingFactory factory)
{
    std::lock_guard lock(registry().lock);
    registry().factories.insert_or_assign(std::move(className), std::move(factory));
}

QXCodingFactory QXCodingRegistry::factoryForClassName(std::string_view className)
{
    std::lock_guard lock(registry().lock);
    auto it = registry().factories.find(className);
    return it == registry().factories.end() ? QXCodingFactory() : it->second;
}

void QXSetImageArchiveCoding(QXImageArchiveEncoder encoder, QXImageArchiveDecoder decoder)
{
    std::lock_guard lock(registry().lock);
    registry().imageEncoder = std::move(encoder);
    registry().imageDecoder = std::move(decoder);
}

// MARK: archiving

QXValue QXKeyedArchiver::archivedPropertyListWithRootObject(const QXCoding& root)
{
    return QXDictionary {
        {"$archiver", QXValue(kArchiverName)},
        {"$version", QXValue(kArchiveVersion)},
        {"$top", QXValue(QXDictionary {{kRootKey, QXValue(archivedObject(root))}})},
    };
}

std::optional<QXData> QXKeyedArchiver::archivedDataWithRootObject(const QXCoding& root, QXPropertyListFormat format,
                                                                  QXErrorRef* error)
{
    return QXPropertyListSerialization::dataWithPropertyList(archivedPropertyListWithRootObject(root), format, 0,
                                                             error);
}

void QXKeyedArchiver::encodeObject(const QXValue& value, std::string_view key)
{
    QXValue archived = archivedValue(value, false);
    if (archived.isNull()) values_.erase(std::string(key));
    else values_.insert_or_assign(std::string(key), std::move(archived));
}

void QXKeyedArchiver::encodeObject(const std::shared_ptr<const QXCoding>& object, std::string_view key)
{
    if (!object) {
        values_.erase(std::string(key));
        return;
    }
    values_.insert_or_assign(std::string(key), QXValue(archivedObject(*object)));
}

void QXKeyedArchiver::encodeObject(std::nullptr_t, std::string_view key) { values_.erase(std::string(key)); }

void QXKeyedArchiver::encodeObjects(const std::vector<std::shared_ptr<const QXCoding>>& objects,
                                    std::string_view key)
{
    QXArray array;
    array.reserve(objects.size());
    for (const auto& object : objects) {
        if (object) array.push_back(QXValue(archivedObject(*object)));
    }
    values_.insert_or_assign(std::string(key), QXValue(std::move(array)));
}

void QXKeyedArchiver::encodeBool(bool value, std::string_view key)
{
    values_.insert_or_assign(std::string(key), QXValue(value));
}

void QXKeyedArchiver::encodeInt64(int64_t value, std::string_view key)
{
    values_.insert_or_assign(std::string(key), QXValue(value));
}

void QXKeyedArchiver::encodeDouble(double value, std::string_view key)
{
    values_.insert_or_assign(std::string(key), QXValue(value));
}

void QXKeyedArchiver::encodeCMTime(qx::CMTime time, std::string_view key)
{
    values_.insert_or_assign(std::string(key), QXValue(QXDictionary {
                                                   {"value", QXValue(int64_t(time.value))},
                                                   {"timescale", QXValue(int64_t(time.timescale))},
                                                   {"flags", QXValue(int64_t(time.flags))},
                                                   {"epoch", QXValue(int64_t(time.epoch))},
                                               }));
}

// MARK: unarchiving

QXKeyedUnarchiver::QXKeyedUnarchiver(QXDictionary object)
    : QXKeyedUnarchiver(std::move(object), std::make_shared<Overrides>())
{
}

QXKeyedUnarchiver::QXKeyedUnarchiver(QXDictionary object, std::shared_ptr<Overrides> overrides)
    : object_(std::move(object)), overrides_(std::move(overrides))
{
}

QXCodingRef QXKeyedUnarchiver::unarchiveObjectWithPropertyList(const QXValue& archive, QXErrorRef* error)
{
    const QXValue* archiver = archive.find("$archiver");
    const QXValue* top = archive.find("$top");
    const QXValue* root = top ? top->find(kRootKey) : nullptr;
    QXCodingRef object;
    if (archiver && archiver->string() && *archiver->string() == kArchiverName && root) {
        QXKeyedUnarchiver unarchiver(QXDictionary {});
        object = unarchiver.makeObject(*root);
    }
    if (!object) {
        QXSetError(error, QXMedia::errorWithDomain(NSCocoaErrorDomain, kReadCorruptError,
                                                   {{NSLocalizedDescriptionKey,
                                                     "The data couldn’t be read because it isn’t in the correct "
                                                     "format."}}));
    }
    return object;
}

QXCodingRef QXKeyedUnarchiver::unarchiveObjectWithData(const QXData& data, QXErrorRef* error)
{
    std::optional<QXValue> archive = QXPropertyListSerialization::propertyListWithData(data);
    return unarchiveObjectWithPropertyList(archive ? *archive : QXValue(), error);
}

void QXKeyedUnarchiver::setClass(std::string className, QXCodingFactory factory)
{
    (*overrides_)[std::move(className)] = std::move(factory);
}

std::string QXKeyedUnarchiver::className() const
{
    auto it = object_.find(kClassKey);
    return it != object_.end() && it->second.string() ? *it->second.string() : std::string();
}

bool QXKeyedUnarchiver::containsValueForKey(std::string_view key) const
{
    return key != kClassKey && object_.find(key) != object_.end();
}

QXValue QXKeyedUnarchiver::decodeObject(std::string_view key) const
{
    if (key == kClassKey) return QXValue();
    auto it = object_.find(key);
    return it == object_.end() ? QXValue() : plainValue(it->second);
}

QXCodingRef QXKeyedUnarchiver::makeObject(const QXValue& archived) const
{
    const QXDictionary* dictionary = archived.dictionary();
    const std::string* className = classNameOf(archived);
    if (!dictionary || !className) return nullptr;
    QXCodingFactory factory;
    if (auto it = overrides_->find(*className); it != overrides_->end()) factory = it->second;
    else factory = QXCodingRegistry::factoryForClassName(*className);
    if (!factory) {
        // Value classes of the archive format are no objects of their own.
        if (*className != kURLClass && *className != kImageClass && *className != kNullClass &&
            *className != kDictionaryClass) {
            QXLogWarning("Cannot decode object of class %s", className->c_str());
        }
        return nullptr;
    }
    QXKeyedUnarchiver child(*dictionary, overrides_);
    return factory(child);
}

QXCodingRef QXKeyedUnarchiver::decodeCodingObject(std::string_view key) const
{
    if (key == kClassKey) return nullptr;
    auto it = object_.find(key);
    return it == object_.end() ? nullptr : makeObject(it->second);
}

std::vector<QXCodingRef> QXKeyedUnarchiver::decodeCodingObjects(std::string_view key) const
{
    std::vector<QXCodingRef> objects;
    auto it = object_.find(key);
    if (it == object_.end() || !it->second.array()) return objects;
    for (const QXValue& element : *it->second.array()) {
        if (QXCodingRef object = makeObject(element)) objects.push_back(std::move(object));
    }
    return objects;
}

bool QXKeyedUnarchiver::decodeBool(std::string_view key, bool defaultValue) const
{
    auto it = object_.find(key);
    if (it == object_.end()) return defaultValue;
    return it->second.truth().value_or(defaultValue);
}

int64_t QXKeyedUnarchiver::decodeInt64(std::string_view key, int64_t defaultValue) const
{
    auto it = object_.find(key);
    if (it == object_.end() || !it->second.isNumber()) return defaultValue;
    return it->second.int64().value_or(defaultValue);
}

double QXKeyedUnarchiver::decodeDouble(std::string_view key, double defaultValue) const
{
    auto it = object_.find(key);
    if (it == object_.end()) return defaultValue;
    return it->second.doubleValue().value_or(defaultValue);
}

qx::CMTime QXKeyedUnarchiver::decodeCMTime(std::string_view key) const
{
    auto it = object_.find(key);
    if (it == object_.end()) return qx::kCMTimeInvalid;
    const QXValue* value = it->second.find("value");
    const QXValue* timescale = it->second.find("timescale");
    const QXValue* flags = it->second.find("flags");
    const QXValue* epoch = it->second.find("epoch");
    if (!value || !timescale || !flags || !value->int64() || !timescale->int64() || !flags->int64()) {
        return qx::kCMTimeInvalid;
    }
    qx::CMTime time;
    time.value = *value->int64();
    time.timescale = qx::CMTimeScale(*timescale->int64());
    time.flags = qx::CMTimeFlags(*flags->int64());
    time.epoch = epoch && epoch->int64() ? *epoch->int64() : 0;
    return time;
}
