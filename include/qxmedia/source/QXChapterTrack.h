#pragma once
/// @file
/// QXChapterTrack, the chapter list of a source or a job.

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
/// The usual way to hold a chapter list.
using QXChapterTrackRef = std::shared_ptr<QXChapterTrack>;

/// The ordered chapter list of a source, in the one form that every chapter
/// source takes: the container's chapter table, a chapter stream, a DVD title
/// set, a chapter file or a fixed interval. It keeps the list as it was read,
/// so that an update can tell whether it must write it back. Plain data
/// without a lock: edit it only while no run uses it.
class QX_EXPORT QXChapterTrack : public QXCoding {
public:
    int32_t trackID = 0; ///< The chapter stream's id; 0 when the list comes from elsewhere.
    std::vector<QXChapterRef> chapters; ///< The list in its present order; an entry should not be null.
    std::vector<QXChapterRef> originalChapters; ///< Deep copy of chapters as imported.

    /// An empty list.
    static QXChapterTrackRef init();
    /// From the container's chapter table; untitled entries are left out.
    static QXChapterTrackRef initWithFormatContext(const AVFormatContext* context);
    /// The same, for a chapter stream: trackID becomes the stream's id.
    static QXChapterTrackRef initWithFormatContext(const AVFormatContext* context, int streamIndex);

    /// The number of entries in chapters.
    size_t chapterCount() const { return chapters.size(); }
    /// True when chapters differ from originalChapters in count, order,
    /// titles or times (images do not count).
    bool isModified() const;

    /// Appends a new chapter and answers it; an empty list first gets
    /// "Chapter 1" at zero unless the new one starts there, so a list always
    /// begins at time 0.
    QXChapterRef addChapter(std::optional<std::string> title, qx::CMTime timestamp);
    /// Appends the chapter itself, without a first chapter at zero.
    void addChapter(QXChapterRef chapter);
    /// Removes every occurrence of this very object.
    void removeChapter(const QXChapterRef& chapter);
    /// Empties chapters; originalChapters stays as it was.
    void clearChapters();
    /// Stable sort by timestamp; adding never sorts by itself.
    void sortChapters();
    /// Whether a chapter starts exactly at `timestamp`.
    bool hasChapterAt(qx::CMTime timestamp) const;
    /// A chapter every `seconds` up to (not at) total, skipping times that
    /// have a chapter. Numbers count steps, so they keep their place in the
    /// sequence. New chapters are appended unsorted. A step of zero or less,
    /// or a total that is no number, adds nothing.
    void addChaptersEvery(double seconds, qx::CMTime total);

    /// Clears the list, then reads the file by its extension ("chapters",
    /// "xml" or "txt", case-sensitive). False without error for any other.
    /// True when a chapter was read; false with an error when the file cannot
    /// be read or parsed, false alone when it holds no chapter.
    bool importChaptersFromURL(const QXURL& url, QXErrorRef* error = nullptr);
    /// Appends the chapters of an XML file of the form
    /// `<chapterInfo><chapters><chapter time="HH:MM:SS.mmm" name="..."/>...`;
    /// results as importChaptersFromURL().
    bool importChaptersFromChapters(const QXURL& url, QXErrorRef* error = nullptr);
    /// Matroska chapter XML: Chapters/EditionEntry/ChapterAtom, each with one
    /// start time; appends, results as importChaptersFromURL().
    bool importChaptersFromXML(const QXURL& url, QXErrorRef* error = nullptr);
    /// OGM pairs (CHAPTERnn=time, CHAPTERnnNAME=title) or lines that begin
    /// with HH:MM:SS.mmm followed by the title; appends, results as
    /// importChaptersFromURL().
    bool importChaptersFromTXT(const QXURL& url, QXErrorRef* error = nullptr);

    /// Keyed archiving: "trackID", "chapters", "originalChapters". The name
    /// the class is archived under.
    std::string className() const override { return "QXChapterTrack"; }
    /// Writes those keys, the chapters as archived QXChapter objects.
    void encodeWithCoder(QXKeyedArchiver& coder) const override;
    /// A chapter list from those keys; never null.
    static QXChapterTrackRef initWithCoder(QXKeyedUnarchiver& coder);

private:
    void addChaptersFromFormatContext(const AVFormatContext* context);
    bool importChaptersFromXMLDocument(const QXURL& url, const char* chapterPath, const char* timePath,
                                       const char* titlePath, QXErrorRef* error);
};
