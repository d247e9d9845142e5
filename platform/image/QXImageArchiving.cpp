#include "qxmedia/platform/image/QXImageArchiving.h"

#include <mutex>

#include "qxmedia/platform/image/QXImage.h"
#include "qxmedia/platform/plist/QXKeyedArchiver.h"

void QXInstallImageArchiveCoding()
{
    static std::once_flag once;
    std::call_once(once, [] {
        QXSetImageArchiveCoding(
            [](const QXImageRef& image) -> std::optional<QXData> {
                QXData png = image ? image->PNGRepresentation() : QXData();
                return png.empty() ? std::nullopt : std::optional<QXData>(std::move(png));
            },
            [](const QXData& data) -> QXImageRef { return QXImage::imageWithData(data); });
    });
}
