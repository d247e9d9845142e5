#pragma once
// QXMetadataItem: one tag as platform media frameworks pass it (a key, a
// key space, a value and optional extra attributes), and the translation
// between a QXMetaData and a list of such items, both ways. Keys are the
// atom names of the iTunes tag list ("©nam", "tvsh", "trkn"); the two
// free-form items use the long key space and reverse-DNS names.

#include <map>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "qxmedia/platform/foundation/QXValue.h"

class QXMetaData;

extern const char QXMetadataKeySpaceiTunes[];     // "itsk"
extern const char QXMetadataKeySpaceiTunesLong[]; // "itlk"

struct QXMetadataItem {
    // A string, or a number whose four big-endian bytes are the key.
    QXValue key;
    std::string keySpace;
    QXValue value;
    QXDictionary extraAttributes; // "dataLength", "dataType" for typed integers

    // An item, or nothing for a null value.
    static std::optional<QXMetadataItem> metadataItemWithKey(QXValue key, std::string keySpace, QXValue value,
                                                             QXDictionary extraAttributes = {});
    // The key as text; a numeric key gives its four bytes, 0xA9 as "©".
    std::string textKey() const;
    // keySpace/textKey, for log lines.
    std::string identifier() const;
};

// The record's values as items, in the order of the record's keys. A key
// without a translation is logged and passed over.
std::vector<QXMetadataItem> QXMetadataItemsOfMetaData(const QXMetaData& metadata);
// The item of one record key, or nothing (a value at its default, or a key
// that travels inside another item).
std::optional<QXMetadataItem> QXMetadataItemForKey(const QXMetaData& metadata, std::string_view recordKey);
// Item key to record key.
std::map<std::string, std::string> QXMetadataMap();
// A record made from items; items of unknown keys and values that do not
// fit their field are passed over.
std::shared_ptr<QXMetaData> QXMetaDataWithMetadataItems(const std::vector<QXMetadataItem>& items);
