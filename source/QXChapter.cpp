#include "qxmedia/source/QXChapter.h"

#include <cmath>
#include <limits>
#include <mutex>

#include "qxmedia/core/QXTimeFormat.h"
#include "qxmedia/platform/image/QXImage.h"
#include "qxmedia/platform/image/QXImageArchiving.h"

using namespace qx;

QX_REGISTER_CODING_CLASS(QXChapter);


QXChapterRef QXChapter::init()
{
    return std::make_shared<QXChapter>();
}

QXChapterRef QXChapter::init(std::optional<std::string> title, CMTime timestamp)
{
    auto chapter = init();
    chapter->title = std::move(title);
    chapter->timestamp = timestamp;
    return chapter;
}

QXChapterRef QXChapter::initWithChapter(const QXChapter& chapter)
{
    auto copy = init(chapter.title, chapter.timestamp);
    copy->image = chapter.image;
    return copy;
}

std::string QXChapter::smpte() const
{
    return CMTimeCopySmpteDescription(timestamp);
}

void QXChapter::setSmpte(std::string_view text)
{
    timestamp = CMTimeFromSmpteString(text);
}

std::string QXChapter::description() const
{
    return smpte() + ": " + (title ? *title : std::string("(null)"));
}

int32_t QXChapter::compare(const QXChapter* other) const
{
    return CMTimeCompare(timestamp, other ? other->timestamp : CMTime {});
}

bool QXChapter::isEqualToChapter(const QXChapter& other) const
{
    return title == other.title && CMTimeCompare(timestamp, other.timestamp) == 0;
}

QXData QXChapter::imageDataWithSize(double width, double height) const
{
    // The bitmap's size is the integer part, as a pixel count taken from a
    // double is; below one pixel, or beyond what an int holds, there is none.
    constexpr double kLargest = double(std::numeric_limits<int>::max());
    if (!(width >= 1 && height >= 1 && width <= kLargest && height <= kLargest)) return {};
    const std::shared_ptr<QXImage> bitmap = QXImage::imageWithSize(int(width), int(height));
    if (!bitmap) return {};
    if (image) bitmap->drawImageInRect(*image, {{0, 0}, bitmap->size()});
    return bitmap->JPEGRepresentation();
}

void QXChapter::encodeWithCoder(QXKeyedArchiver& coder) const
{
    QXInstallImageArchiveCoding();
    coder.encodeCMTime(timestamp, "timestamp");
    if (title) coder.encodeObject(QXValue(*title), "title");
    if (image) coder.encodeObject(QXValue(image), "image");
}

QXChapterRef QXChapter::initWithCoder(QXKeyedUnarchiver& coder)
{
    QXInstallImageArchiveCoding();
    auto chapter = init();
    chapter->timestamp = coder.decodeCMTime("timestamp");
    if (const QXValue title = coder.decodeObject("title"); title.string()) chapter->title = *title.string();
    if (const QXValue image = coder.decodeObject("image"); image.image()) chapter->image = *image.image();
    return chapter;
}
