#pragma once
// QXChapter: one named point on the time line, with an optional image.

#include <memory>
#include <optional>
#include <string>
#include <string_view>

#include "qxmedia/core/QXExport.h"
#include "qxmedia/platform/foundation/CMTime.h"
#include "qxmedia/platform/foundation/QXValue.h"
#include "qxmedia/platform/plist/QXKeyedArchiver.h"

class QXChapter;
using QXChapterRef = std::shared_ptr<QXChapter>;

class QX_EXPORT QXChapter : public QXCoding {
public:
    std::optional<std::string> title; // absent until set
    QXImageRef image;                 // images are immutable, so sharing one is copying it
    qx::CMTime timestamp = qx::kCMTimeZero;

    static QXChapterRef init();
    static QXChapterRef init(std::optional<std::string> title, qx::CMTime timestamp);
    // A chapter with the title, image and timestamp of another.
    static QXChapterRef initWithChapter(const QXChapter& chapter);
    QXChapterRef copy() const { return initWithChapter(*this); }

    // The timestamp as HH:MM:SS.mmm; setting it parses that form.
    std::string smpte() const;
    void setSmpte(std::string_view text);

    // "HH:MM:SS.mmm: title" ("(null)" for an absent title).
    std::string description() const;

    // Orders by timestamp. A missing chapter counts as the all-zero time,
    // which is invalid and so compares above every valid one.
    int32_t compare(const QXChapter* other) const;
    // Equal titles and timestamps; the image does not count.
    bool isEqualToChapter(const QXChapter& other) const;

    // The image drawn over a whole bitmap of the given size, as JPEG at the
    // encoder's default quality. A chapter without image gives an empty
    // (black) picture; a size below one pixel gives no data.
    QXData imageDataWithSize(double width, double height) const;

    // Keyed archiving: "timestamp", "title", "image" (as PNG).
    std::string className() const override { return "QXChapter"; }
    void encodeWithCoder(QXKeyedArchiver& coder) const override;
    static QXChapterRef initWithCoder(QXKeyedUnarchiver& coder);
};
