// Artwork of the record: the first image of `artworks`, with an explicit
// "no image" marker, and its PNG form.

#include <algorithm>
#include <mutex>

#include "qxmedia/metadata/QXMetaData.h"
#include "qxmedia/platform/image/QXImage.h"
#include "qxmedia/platform/image/QXImageArchiving.h"

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
    notifyChange("artworks");
}

QXData QXMetaData::artworkData() const
{
    QXImageRef image = artwork();
    if (!image) return {};
    if (artworkType == 2 && videoKind == 10) {
        const int width = int(image->size().width);
        const int height = int(image->size().height);
        if (width != height) {
            // Centred on a transparent square; nothing is scaled.
            const int side = std::max(width, height);
            auto square = QXImage::imageWithSize(side, side);
            if (square) {
                square->drawImage(*image, int((side - width) * 0.5), int((side - height) * 0.5),
                                  QXCompositingOperation::Copy);
                return square->PNGRepresentation();
            }
        }
    }
    return image->PNGRepresentation();
}

void QXMetaData::installArtworkArchiving()
{
    QXInstallImageArchiveCoding();
}
