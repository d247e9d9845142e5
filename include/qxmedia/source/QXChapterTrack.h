#pragma once
// QXChapterTrack: the ordered chapter list of a source, in the one form that
// every chapter source takes: the container's chapter table, a chapter
// stream, a DVD title set, a chapter file or a fixed interval. It keeps the
// list as it was read, so that an update can tell whether it must write it
// back.

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "qxmedia/core/QXExport.h"
#include "qxmedia/platform/foundation/CMTime.h"
#include "qxmedia/platform/foundation/QXError.h"
#include "qxmedia/platform/foundation/QXValue.h"
#include "qxmedia/platform/plist/QXKeyedArchiver.h"
#include "qxmedia/source/QXChapter.h"

struct AVFormatContext;

class QXChapterTrack;
using QXChapterTrackRef = std::shared_ptr<QXChapterTrack>;

class QX_EXPORT QXChapterTrack : public QXCoding {
public:
    int32_t trackID = 0; // the chapter stream's id; 0 when the list comes from elsewhere
    std::vector<QXChapterRef> chapters;
    std::vector<QXChapterRef> originalChapters; // deep copy of chapters as imported

    static QXChapterTrackRef init();
    // From the container's chapter table; untitled entries are left out.
    static QXChapterTrackRef initWithFormatContext(const AVFormatContext* context);
    // The same, for a chapter stream: trackID becomes the stream's id.
    static QXChapterTrackRef initWithFormatContext(const AVFormatContext* context, int streamIndex);

    size_t chapterCount() const { return chapters.size(); }
    // True when chapters differ from originalChapters in count, order,
    // titles or times (images do not count).
    bool isModified() const;

    // Appends a new chapter; an empty list first gets "Chapter 1" at zero
    // unless the new one starts there, so a list always begins at time 0.
    QXChapterRef addChapter(std::optional<std::string> title, qx::CMTime timestamp);
    void addChapter(QXChapterRef chapter);
    // Removes every occurrence of this very object.
    void removeChapter(const QXChapterRef& chapter);
    void clearChapters();
    // Stable sort by timestamp; adding never sorts by itself.
    void sortChapters();
    bool hasChapterAt(qx::CMTime timestamp) const;
    // A chapter every `seconds` up to (not at) total, skipping times that
    // have a chapter. Numbers count steps, so they keep their place in the
    // sequence. New chapters are appended unsorted.
    void addChaptersEvery(double seconds, qx::CMTime total);

    // Clears the list, then reads the file by its extension ("chapters",
    // "xml" or "txt", case-sensitive). False without error for any other.
    bool importChaptersFromURL(const QXURL& url, QXErrorRef* error = nullptr);
    // <chapterInfo><chapters><chapter time="HH:MM:SS.mmm" name="..."/>...
    bool importChaptersFromChapters(const QXURL& url, QXErrorRef* error = nullptr);
    // Matroska chapter XML: Chapters/EditionEntry/ChapterAtom.
    bool importChaptersFromXML(const QXURL& url, QXErrorRef* error = nullptr);
    // OGM pairs (CHAPTERnn=time, CHAPTERnnNAME=title) or lines that begin
    // with HH:MM:SS.mmm followed by the title.
    bool importChaptersFromTXT(const QXURL& url, QXErrorRef* error = nullptr);

    // Keyed archiving: "trackID", "chapters", "originalChapters".
    std::string className() const override { return "QXChapterTrack"; }
    void encodeWithCoder(QXKeyedArchiver& coder) const override;
    static QXChapterTrackRef initWithCoder(QXKeyedUnarchiver& coder);

private:
    void addChaptersFromFormatContext(const AVFormatContext* context);
    bool importChaptersFromXMLDocument(const QXURL& url, const char* chapterPath, const char* timePath,
                                       const char* titlePath, QXErrorRef* error);
};
