#include "qxmedia/source/QXChapter.h"

#include "qxmedia/core/QXTimeFormat.h"

using namespace qx;

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
