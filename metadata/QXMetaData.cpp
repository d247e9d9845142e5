#include "qxmedia/metadata/QXMetaData.h"

#include <exception>
#include <unordered_map>

#include "QXMetaDataBarrier.h"
#include "QXMetaDataKeys.h"
#include "QXMetaDataText.h"
#include "qxmedia/core/QXMedia.h"
#include "qxmedia/platform/foundation/QXLocalization.h"
#include "qxmedia/platform/foundation/QXUserDefaults.h"

using namespace qx::metadata;

namespace {

template <class... F>
struct Overloaded : F... {
    using F::operator()...;
};
template <class... F>
Overloaded(F...) -> Overloaded<F...>;

QXValue listValue(const std::shared_ptr<const QXStringList>& list)
{
    if (!list) return {};
    QXArray array;
    array.reserve(list->size());
    for (const auto& item : *list) array.emplace_back(item);
    return array;
}

QXValue artworkValue(const std::shared_ptr<const QXArtworkList>& list)
{
    if (!list) return {};
    QXArray array;
    array.reserve(list->size());
    for (const auto& image : *list) array.push_back(image ? QXValue(image) : QXValue());
    return array;
}

// A number from a value of any kind: numbers as they are, texts by their
// leading integer.
std::optional<int64_t> integerOf(const QXValue& value)
{
    if (auto number = value.int64()) return number;
    if (auto text = value.string()) return integerValue(*text);
    return std::nullopt;
}

std::optional<uint64_t> unsignedOf(const QXValue& value)
{
    if (auto number = value.uint64()) return number;
    if (auto text = value.string()) return uint64_t(integerValue(*text));
    return std::nullopt;
}

void warnType(std::string_view key, const QXValue& value)
{
    QXLogWarning("Value of the wrong type for key %s: %s", std::string(key).c_str(), value.description().c_str());
}

} // namespace

QXMetaData::QXMetaData(Private) : barrierQueue_(std::make_unique<QXMetaDataBarrier>("barrier queue")) {}

QXMetaData::~QXMetaData() = default;

std::shared_ptr<QXMetaData> QXMetaData::init()
{
    auto record = std::make_shared<QXMetaData>(Private {});
    for (const auto& row : keyRows()) {
        if (auto text = std::get_if<TextField>(&row.field)) (record.get()->**text).set(std::string());
    }
    record->imdbId.clear();
    record->imdbSeriesId.clear();

    const auto& defaults = QXUserDefaults::standardUserDefaults();
    const std::string country = defaults.stringForKey(QXUserDefaultsCountryCodeKey);
    record->countryCode.set(country.empty() ? std::string("US") : country);
    const std::string language = defaults.stringForKey(QXUserDefaultsLanguageCodeKey);
    record->languageCode.set(language.empty() ? std::string("en") : language);
    record->includeAdultContent = defaults.boolForKey(QXUserDefaultsIncludeAdultContentKey);

    for (const auto& key : record->allKeys()) record->defaultValues_.emplace(key, record->snapshotForKey(key));
    return record;
}

std::shared_ptr<QXMetaData> QXMetaData::metaDataFromDictionary(const QXDictionary& entries)
{
    auto record = init();
    record->addEntriesFromDictionary(entries);
    return record;
}

// --- Keys

const std::vector<std::string>& QXMetaData::idKeys()
{
    static const std::vector<std::string> keys(defaultKeys().begin(), defaultKeys().begin() + 10);
    return keys;
}

const std::vector<std::string>& QXMetaData::defaultKeys()
{
    static const std::vector<std::string> keys = [] {
        std::vector<std::string> all;
        for (const auto& row : keyRows()) all.emplace_back(row.key);
        return all;
    }();
    return keys;
}

std::vector<std::string> QXMetaData::allKeysLocked() const
{
    std::vector<std::string> keys = defaultKeys();
    for (const auto& entry : tagsDict_) keys.push_back(entry.first);
    return keys;
}

std::vector<std::string> QXMetaData::allKeys() const
{
    std::vector<std::string> keys;
    barrierQueue_->read([&] { keys = allKeysLocked(); });
    return keys;
}

std::string QXMetaData::displayValueForKey(std::string_view key)
{
    static const std::unordered_map<std::string_view, const char*> extra = {
        {QXArtwork, "Artwork"},
        {QXCompilation, "Compilation"},
        {QXContentRatingString, "Content Rating"},
        {QXHDString, "Definition"},
    };
    const char* english = nullptr;
    if (auto found = extra.find(key); found != extra.end()) {
        english = found->second;
    } else if (const KeyRow* row = rowForKey(key)) {
        english = row->displayName;
    }
    return english ? QXLocalizedString(english) : std::string(key);
}

// --- Generic access

QXMetaData::Snapshot QXMetaData::snapshotForKey(std::string_view key) const
{
    const KeyRow* row = rowForKey(key);
    if (!row) return {valueForUndefinedKey(key), nullptr};
    const QXMetaData& self = *this;
    return std::visit(
        Overloaded {
            [&](TextField f) -> Snapshot {
                auto held = (self.*f).get();
                return {held ? QXValue(*held) : QXValue(), held};
            },
            [&](ListField f) -> Snapshot {
                auto held = (self.*f).get();
                return {listValue(held), held};
            },
            [&](ArtworkField f) -> Snapshot {
                auto held = (self.*f).get();
                return {artworkValue(held), held};
            },
            [&](DateField f) -> Snapshot {
                auto held = (self.*f).get();
                return {held ? QXValue(*held) : QXValue(), held};
            },
            [&](URLField f) -> Snapshot {
                auto held = (self.*f).get();
                return {held ? QXValue(*held) : QXValue(), held};
            },
            // Boxed numbers compare by value, as small boxes are shared.
            [&](BoxedField f) -> Snapshot {
                auto held = (self.*f).get();
                return {held ? QXValue(*held) : QXValue(), nullptr};
            },
            [&](UnsignedField f) -> Snapshot { return {QXValue(self.*f), nullptr}; },
            [&](SignedField f) -> Snapshot { return {QXValue(self.*f), nullptr}; },
            [&](FlagField f) -> Snapshot { return {QXValue(self.*f), nullptr}; },
        },
        row->field);
}

QXValue QXMetaData::valueForKey(std::string_view key) const
{
    if (key == QXArtwork) {
        auto image = artwork();
        return image ? QXValue(image) : QXValue();
    }
    if (key == QXContentRatingString) {
        auto text = contentRatingString();
        return text ? QXValue(*text) : QXValue();
    }
    if (key == QXHDString) return hdString();
    if (key == "title") return title();
    if (key == "contentRatingStringMP4") {
        auto text = contentRatingStringMP4();
        return text ? QXValue(*text) : QXValue();
    }
    if (key == "iTunMOVI") {
        auto text = iTunMOVI();
        return text ? QXValue(*text) : QXValue();
    }
    if (key == "artworkData") {
        QXData data = artworkData();
        return data.empty() ? QXValue() : QXValue(std::move(data));
    }
    return snapshotForKey(key).value;
}

void QXMetaData::setValue(const QXValue& value, std::string_view key)
{
    if (key == QXArtwork) {
        const QXImageRef* image = value.image();
        setArtwork(image ? *image : nullptr); // tells the observers itself
        return;
    }
    assignValue(value, key);
    notifyChange(key);
}

QXMetaData::ObserverToken QXMetaData::addObserver(KeyObserver observer)
{
    std::lock_guard guard(observersLock_);
    observers_.emplace_back(nextObserverToken_, std::move(observer));
    return nextObserverToken_++;
}

void QXMetaData::removeObserver(ObserverToken token)
{
    std::lock_guard guard(observersLock_);
    std::erase_if(observers_, [token](const auto& entry) { return entry.first == token; });
}

void QXMetaData::notifyChange(std::string_view key) const
{
    std::vector<KeyObserver> observers;
    {
        std::lock_guard guard(observersLock_);
        if (observers_.empty()) return;
        for (const auto& entry : observers_) observers.push_back(entry.second);
    }
    std::vector<std::string> keys {std::string(key)};
    if (key == "artworks") keys.insert(keys.end(), {"artwork", "artworkData"});
    if (key == "name" || key == "show" || key == "videoKind") keys.emplace_back("title");
    // Called outside the lock, so an observer may read the record or stop observing.
    for (const std::string& changed : keys) {
        for (const KeyObserver& observer : observers) observer(changed);
    }
}

void QXMetaData::assignValue(const QXValue& value, std::string_view key)
{
    if (key == "contentRatingStringMP4" || key == "iTunMOVI") {
        if (const std::string* text = value.string()) {
            key == "iTunMOVI" ? setITunMOVI(*text) : setContentRatingStringMP4(*text);
        }
        return;
    }
    const KeyRow* row = rowForKey(key);
    if (!row) {
        setValueForUndefinedKey(value, key);
        return;
    }
    if (value.isNull() && isScalar(row->field)) {
        assignValue(QXValue(0), key); // a null scalar is 0
        return;
    }
    QXMetaData& self = *this;
    std::visit(Overloaded {
                   [&](TextField f) {
                       if (value.isNull()) (self.*f).clear();
                       else if (const std::string* text = value.string()) (self.*f).set(*text);
                       else warnType(key, value);
                   },
                   [&](ListField f) {
                       if (value.isNull()) return (self.*f).clear();
                       const QXArray* array = value.array();
                       if (!array) return warnType(key, value);
                       QXStringList list;
                       for (const auto& item : *array) {
                           if (const std::string* text = item.string()) list.push_back(*text);
                       }
                       (self.*f).set(std::move(list));
                   },
                   [&](ArtworkField f) {
                       if (value.isNull()) return (self.*f).clear();
                       const QXArray* array = value.array();
                       if (!array) return warnType(key, value);
                       QXArtworkList list;
                       for (const auto& item : *array) {
                           const QXImageRef* image = item.image();
                           if (image || item.isNull()) list.push_back(image ? *image : nullptr);
                       }
                       (self.*f).set(std::move(list));
                   },
                   [&](DateField f) {
                       if (value.isNull()) (self.*f).clear();
                       else if (const QXDate* date = value.date()) (self.*f).set(*date);
                       else warnType(key, value);
                   },
                   [&](URLField f) {
                       if (value.isNull()) (self.*f).clear();
                       else if (const QXURL* url = value.url()) (self.*f).set(*url);
                       else if (const std::string* text = value.string()) (self.*f).set(QXURL(*text));
                       else warnType(key, value);
                   },
                   [&](BoxedField f) {
                       if (value.isNull()) return (self.*f).clear();
                       if (auto number = integerOf(value)) (self.*f).set(*number);
                       else warnType(key, value);
                   },
                   [&](UnsignedField f) {
                       if (auto number = unsignedOf(value)) self.*f = *number;
                       else warnType(key, value);
                   },
                   [&](SignedField f) {
                       if (auto number = integerOf(value)) self.*f = *number;
                       else warnType(key, value);
                   },
                   [&](FlagField f) {
                       if (auto truth = value.truth()) self.*f = *truth;
                       else if (const std::string* text = value.string()) self.*f = boolValue(*text);
                       else warnType(key, value);
                   },
               },
               row->field);
}

QXValue QXMetaData::valueForUndefinedKey(std::string_view key) const
{
    QXValue value;
    barrierQueue_->read([&] {
        auto it = tagsDict_.find(key);
        if (it != tagsDict_.end()) value = it->second;
    });
    return value;
}

void QXMetaData::setValueForUndefinedKey(const QXValue& value, std::string_view key)
{
    barrierQueue_->write([&] {
        if (value.isNull()) {
            auto it = tagsDict_.find(key);
            if (it != tagsDict_.end()) tagsDict_.erase(it);
        } else {
            tagsDict_.insert_or_assign(std::string(key), value);
        }
    });
}

void QXMetaData::setNilValueForKey(std::string_view key)
{
    const KeyRow* row = rowForKey(key);
    if (!row || !isScalar(row->field)) return;
    assignValue(QXValue(0), key);
    notifyChange(key);
}

void QXMetaData::addEntriesFromDictionary(const QXDictionary& entries)
{
    for (const auto& [key, value] : entries) setValue(value, key);
}

void QXMetaData::removeObjectsForKeys(const std::vector<std::string>& keys)
{
    for (const auto& key : keys) setValue(QXValue(), key);
}

// --- Change detection and composition

QXDictionary QXMetaData::changedMetadata() const
{
    QXDictionary changed;
    barrierQueue_->read([&] {
        for (const auto& key : allKeys()) {
            Snapshot current = snapshotForKey(key);
            // An absent value cannot be reported: clearing a field is no change.
            if (current.value.isNull()) continue;
            auto initial = defaultValues_.find(key);
            bool same = false;
            if (initial != defaultValues_.end()) {
                const Snapshot& before = initial->second;
                same = current.identity || before.identity ? current.identity == before.identity
                                                           : current.value == before.value;
            }
            if (!same) changed.emplace(key, std::move(current.value));
        }
    });
    return changed;
}

void QXMetaData::mergeMetaData(const QXMetaData& other)
{
    // Values are copies by nature here: setValue stores new objects.
    for (const auto& [key, value] : other.changedMetadata()) setValue(value, key);
}

std::shared_ptr<QXMetaData> QXMetaData::copy() const
{
    auto copy = init();
    for (const auto& key : allKeys()) copy->setValue(valueForKey(key), key);
    return copy;
}

// --- Archiving

QX_REGISTER_CODING_CLASS(QXMetaData);

void QXMetaData::encodeWithCoder(QXKeyedArchiver& coder) const
{
    installArtworkArchiving();
    barrierQueue_->read([&] {
        for (const auto& key : defaultKeys()) {
            try {
                coder.encodeObject(valueForKey(key), key);
            } catch (const std::exception& exception) {
                QXLogWarning("Exception encoding: %s", exception.what());
            }
        }
        coder.encodeObject(QXValue(tagsDict_), "tagsDict");
    });
}

std::shared_ptr<QXMetaData> QXMetaData::initWithCoder(QXKeyedUnarchiver& coder)
{
    installArtworkArchiving();
    auto record = init();
    for (const auto& key : defaultKeys()) record->setValue(coder.decodeObject(key), key);
    const QXValue tags = coder.decodeObject("tagsDict");
    if (const QXDictionary* entries = tags.dictionary()) {
        record->barrierQueue_->write([&] {
            for (const auto& [key, value] : *entries) record->tagsDict_.insert_or_assign(key, value);
        });
    }
    return record;
}

// --- Simple derived values

std::string QXMetaData::title() const
{
    if (videoKind == 10) {
        if (auto held = show.get()) return *held;
    }
    return name.valueOr(std::string());
}

std::string QXMetaData::hdString() const
{
    switch (hd) {
    case 1: return "HD";
    case 2: return "HD 1080p";
    case 3: return "4K";
    default: return "SD";
    }
}
