#pragma once
/// @file
/// QXChapter, one entry of a chapter list.

#include <memory>
#include <optional>
#include <string>
#include <string_view>

#include "qxmedia/core/QXExport.h"
#include "qxmedia/platform/foundation/CMTime.h"
#include "qxmedia/platform/foundation/QXValue.h"
#include "qxmedia/platform/plist/QXKeyedArchiver.h"

class QXChapter;
/// The usual way to hold a chapter.
using QXChapterRef = std::shared_ptr<QXChapter>;

/// One named point on the time line, with an optional image. Plain data
/// without a lock.
class QX_EXPORT QXChapter : public QXCoding {
public:
    std::optional<std::string> title; ///< The chapter's name; absent until set.
    QXImageRef image; ///< A still of the chapter or null; images are immutable, so sharing one is copying it.
    qx::CMTime timestamp = qx::kCMTimeZero; ///< Where the chapter starts on the movie's time line.

    /// A chapter at time zero, without title or image.
    static QXChapterRef init();
    /// A chapter with that title and start, without image.
    static QXChapterRef init(std::optional<std::string> title, qx::CMTime timestamp);
    /// A chapter with the title, image and timestamp of another.
    static QXChapterRef initWithChapter(const QXChapter& chapter);
    /// A chapter like this one, its image shared.
    QXChapterRef copy() const { return initWithChapter(*this); }

    /// The timestamp as HH:MM:SS.mmm; setting it parses that form.
    std::string smpte() const;
    /// Reads hours, minutes, seconds and an optional fraction; text without
    /// the first three gives an invalid time.
    void setSmpte(std::string_view text);

    /// "HH:MM:SS.mmm: title" ("(null)" for an absent title).
    std::string description() const;

    /// Orders by timestamp. A missing chapter counts as the all-zero time,
    /// which is invalid and so compares above every valid one.
    /// Negative, 0 or positive, as CMTimeCompare.
    int32_t compare(const QXChapter* other) const;
    /// Equal titles and timestamps; the image does not count.
    bool isEqualToChapter(const QXChapter& other) const;

    /// The image drawn over a whole bitmap of the given size, as JPEG at the
    /// encoder's default quality. A chapter without image gives an empty
    /// (black) picture; a size below one pixel gives no data.
    QXData imageDataWithSize(double width, double height) const;

    /// Keyed archiving: "timestamp", "title", "image" (as PNG). The name the
    /// class is archived under.
    std::string className() const override { return "QXChapter"; }
    /// Writes those keys; an absent title or image is left out.
    void encodeWithCoder(QXKeyedArchiver& coder) const override;
    /// A chapter from those keys; never null.
    static QXChapterRef initWithCoder(QXKeyedUnarchiver& coder);
};
