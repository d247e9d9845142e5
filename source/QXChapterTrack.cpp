#include "qxmedia/source/QXChapterTrack.h"

#include <algorithm>
#include <cstdio>

extern "C" {
#include <libavformat/avformat.h>
#include <libavutil/dict.h>
}

#include "qxmedia/core/QXMedia.h"
#include "qxmedia/platform/foundation/QXLocalization.h"

using namespace qx;

QX_REGISTER_CODING_CLASS(QXChapterTrack);

namespace {

std::vector<QXChapterRef> deepCopy(const std::vector<QXChapterRef>& chapters)
{
    std::vector<QXChapterRef> copies;
    copies.reserve(chapters.size());
    for (const QXChapterRef& chapter : chapters) copies.push_back(chapter ? chapter->copy() : nullptr);
    return copies;
}

} // namespace

QXChapterTrackRef QXChapterTrack::init()
{
    return std::make_shared<QXChapterTrack>();
}

QXChapterTrackRef QXChapterTrack::initWithFormatContext(const AVFormatContext* context)
{
    auto track = init();
    track->addChaptersFromFormatContext(context);
    return track;
}

QXChapterTrackRef QXChapterTrack::initWithFormatContext(const AVFormatContext* context, int streamIndex)
{
    auto track = initWithFormatContext(context);
    // The demuxer hands a chapter stream's samples over as the container's
    // chapter table; the stream itself only tells which track held them.
    if (context && streamIndex >= 0 && unsigned(streamIndex) < context->nb_streams)
        track->trackID = context->streams[streamIndex]->id;
    return track;
}

void QXChapterTrack::addChaptersFromFormatContext(const AVFormatContext* context)
{
    if (context) {
        for (unsigned i = 0; i < context->nb_chapters; ++i) {
            const AVChapter* entry = context->chapters[i];
            const AVDictionaryEntry* title = av_dict_get(entry->metadata, "title", nullptr, 0);
            if (!title) continue;
            // start · num / den, without overflowing the product.
            const CMTime start = CMTimeMultiply(CMTimeMake(entry->start, entry->time_base.den), entry->time_base.num);
            addChapter(std::string(title->value), start);
        }
    }
    originalChapters = deepCopy(chapters);
}

bool QXChapterTrack::isModified() const
{
    if (chapters.size() != originalChapters.size()) return true;
    for (size_t i = 0; i < chapters.size(); ++i) {
        const QXChapter* now = chapters[i].get();
        const QXChapter* before = originalChapters[i].get();
        if (!now || !before) {
            if (now != before) return true;
            continue;
        }
        if (!now->isEqualToChapter(*before)) return true;
    }
    return false;
}

QXChapterRef QXChapterTrack::addChapter(std::optional<std::string> title, CMTime timestamp)
{
    if (chapters.empty() && CMTimeCompare(timestamp, kCMTimeZero) != 0)
        addChapter(QXLocalizedString("Chapter") + " 1", kCMTimeZero);
    auto chapter = QXChapter::init(std::move(title), timestamp);
    addChapter(chapter);
    return chapter;
}

void QXChapterTrack::addChapter(QXChapterRef chapter)
{
    chapters.push_back(std::move(chapter));
}

void QXChapterTrack::removeChapter(const QXChapterRef& chapter)
{
    std::erase(chapters, chapter);
}

void QXChapterTrack::clearChapters()
{
    chapters.clear();
}

void QXChapterTrack::sortChapters()
{
    std::stable_sort(chapters.begin(), chapters.end(), [](const QXChapterRef& a, const QXChapterRef& b) {
        if (!a) return false; // a missing entry compares like the invalid time: last
        return a->compare(b.get()) < 0;
    });
}

bool QXChapterTrack::hasChapterAt(CMTime timestamp) const
{
    return std::any_of(chapters.begin(), chapters.end(), [&](const QXChapterRef& chapter) {
        return chapter && CMTimeCompare(chapter->timestamp, timestamp) == 0;
    });
}

void QXChapterTrack::addChaptersEvery(double seconds, CMTime total)
{
    const CMTime step = CMTimeMakeWithSeconds(seconds, 1000);
    // A step that does not advance, or a total that is no number, would never
    // end the walk.
    if (CMTimeCompare(step, kCMTimeZero) <= 0 || !CMTIME_IS_NUMERIC(total)) return;
    const std::string word = QXLocalizedString("Chapter");
    CMTime t = kCMTimeZero;
    for (long n = 1; CMTimeCompare(t, total) < 0; ++n) {
        if (!hasChapterAt(t)) {
            char number[32];
            std::snprintf(number, sizeof number, " %ld", n);
            addChapter(word + number, t);
        }
        t = CMTimeAdd(t, step);
        if (!CMTIME_IS_NUMERIC(t)) break;
    }
}

void QXChapterTrack::encodeWithCoder(QXKeyedArchiver& coder) const
{
    coder.encodeInt32(trackID, "trackID");
    coder.encodeObject(chapters, "chapters");
    coder.encodeObject(originalChapters, "originalChapters");
}

QXChapterTrackRef QXChapterTrack::initWithCoder(QXKeyedUnarchiver& coder)
{
    auto track = init();
    track->trackID = coder.decodeInt32("trackID");
    track->chapters = coder.decodeArrayOfObjectsOfClass<QXChapter>("chapters");
    track->originalChapters = coder.decodeArrayOfObjectsOfClass<QXChapter>("originalChapters");
    return track;
}
