// Artwork of the record: the first image of `artworks`, with an explicit
// "no image" marker, and its PNG form.

#include <algorithm>

#include "qxmedia/metadata/QXMetaData.h"

QXImageRef QXMetaData::artwork() const
{
    auto list = artworks.get();
    if (!list || list->empty()) return nullptr;
    return list->front(); // null when it is the marker
}

void QXMetaData::setArtwork(QXImageRef image)
{
    auto held = artworks.get();
    QXArtworkList list = held ? *held : QXArtworkList();
    // Drop the markers and an earlier place of this image, then put it first
    // (nil puts the marker first).
    std::erase_if(list, [&](const QXImageRef& item) { return !item || item == image; });
    list.insert(list.begin(), std::move(image));
    artworks.set(std::move(list));
}

QXData QXMetaData::artworkData() const
{
    return {};
}

QXValue QXMetaData::archivedArtworks(const QXValue& artworks)
{
    return artworks;
}

QXValue QXMetaData::unarchivedArtworks(const QXValue& archived)
{
    return archived;
}
