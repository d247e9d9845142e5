// Chapter lists read from files: the chapters XML form, Matroska XML, OGM pairs and timed lines,
// their encodings, damage and errors.

#include <gtest/gtest.h>

#include <cstdio>

#include "qxmedia/core/QXMedia.h"
#include "qxmedia/core/QXTimeFormat.h"
#include "qxmedia/source/QXChapterTrack.h"
#include "support/TestMedia.h"

using namespace qx;

namespace {

struct Entry {
    std::string title;
    int64_t milliseconds;
};

std::string xmlEscaped(const std::string& text)
{
    std::string out;
    for (char c : text) {
        switch (c) {
        case '&': out += "&amp;"; break;
        case '<': out += "&lt;"; break;
        case '>': out += "&gt;"; break;
        case '"': out += "&quot;"; break;
        default: out += c;
        }
    }
    return out;
}

std::string smpte(int64_t milliseconds)
{
    return CMTimeCopySmpteDescription(CMTimeMake(milliseconds, 1000));
}

// The three file forms, written the way the tools that make them do.
std::string chaptersFile(const std::vector<Entry>& entries)
{
    std::string text = "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n<chapterInfo>\n  <chapters>\n";
    for (const Entry& e : entries)
        text += "    <chapter name=\"" + xmlEscaped(e.title) + "\" time=\"" + smpte(e.milliseconds) + "\"/>\n";
    return text + "  </chapters>\n</chapterInfo>\n";
}

std::string matroskaFile(const std::vector<Entry>& entries)
{
    std::string text = "<?xml version=\"1.0\"?>\n<!DOCTYPE Chapters SYSTEM \"matroskachapters.dtd\">\n<Chapters>\n"
                       "  <EditionEntry>\n";
    for (const Entry& e : entries) {
        char nanoseconds[16];
        std::snprintf(nanoseconds, sizeof nanoseconds, "%09lld", (long long)(e.milliseconds % 1000) * 1000000);
        text += "    <ChapterAtom>\n      <ChapterTimeStart>" + smpte(e.milliseconds).substr(0, 8) + "." +
                nanoseconds + "</ChapterTimeStart>\n      <ChapterDisplay>\n        <ChapterString>" +
                xmlEscaped(e.title) + "</ChapterString>\n        <ChapterLanguage>eng</ChapterLanguage>\n"
                "      </ChapterDisplay>\n    </ChapterAtom>\n";
    }
    return text + "  </EditionEntry>\n</Chapters>\n";
}

std::string ogmFile(const std::vector<Entry>& entries, const char* newline)
{
    std::string text;
    for (size_t i = 0; i < entries.size(); ++i) {
        char number[24];
        std::snprintf(number, sizeof number, "%02zu", i + 1);
        text += std::string("CHAPTER") + number + "=" + smpte(entries[i].milliseconds) + newline;
        text += std::string("CHAPTER") + number + "NAME=" + entries[i].title + newline;
    }
    return text;
}

std::string timedLinesFile(const std::vector<Entry>& entries)
{
    std::string text;
    for (const Entry& e : entries) text += smpte(e.milliseconds) + " " + e.title + "\n";
    return text;
}

std::vector<Entry> entriesOf(const QXChapterTrack& track)
{
    std::vector<Entry> entries;
    for (const auto& chapter : track.chapters) {
        // Times read from files are in milliseconds; only the filler is not.
        if (CMTimeCompare(chapter->timestamp, kCMTimeZero) != 0) {
            EXPECT_EQ(chapter->timestamp.timescale, 1000) << chapter->description();
        }
        const CMTime ms = CMTimeConvertScale(chapter->timestamp, 1000, kCMTimeRoundingMethod_Default);
        entries.push_back({chapter->title.value_or("<none>"), ms.value});
    }
    return entries;
}

bool operator==(const Entry& a, const Entry& b)
{
    return a.title == b.title && a.milliseconds == b.milliseconds;
}

std::ostream& operator<<(std::ostream& out, const Entry& e)
{
    return out << e.milliseconds << " '" << e.title << "'";
}

const std::vector<Entry> kSample = {
    {"Opening", 0},
    {"Déjà vu & <more> \"quoted\"", 61500},
    {"日本語の章", 3723005},
    {"Late", 23 * 3600000 + 59 * 60000 + 59999},
};

} // namespace

class ChapterFiles : public ::testing::Test {
protected:
    void SetUp() override { dir = qxtest::makeTempDir("chapter-files"); }
    void TearDown() override { std::filesystem::remove_all(dir); }

    std::filesystem::path write(const std::string& name, const std::string& content)
    {
        auto path = dir / name;
        qxtest::writeFile(path, content);
        return path;
    }

    std::filesystem::path dir;
};

TEST_F(ChapterFiles, EachFormatReadsBackWhatWasWritten)
{
    struct Form {
        std::string name;
        std::string content;
        std::vector<Entry> expected;
    };
    std::vector<Entry> withBlank; // the timed-lines form keeps the blank after the time
    for (const Entry& e : kSample) withBlank.push_back({" " + e.title, e.milliseconds});
    const std::vector<Form> forms = {
        {"a.chapters", chaptersFile(kSample), kSample},
        {"a.xml", matroskaFile(kSample), kSample},
        {"ogm.txt", ogmFile(kSample, "\n"), kSample},
        {"ogm-crlf.txt", ogmFile(kSample, "\r\n"), kSample},
        {"lines.txt", timedLinesFile(kSample), withBlank},
    };
    for (const Form& form : forms) {
        SCOPED_TRACE(form.name);
        auto track = QXChapterTrack::init();
        QXErrorRef error;
        EXPECT_TRUE(track->importChaptersFromURL(write(form.name, form.content), &error));
        EXPECT_FALSE(error);
        EXPECT_EQ(entriesOf(*track), form.expected);
    }
}

TEST_F(ChapterFiles, FilesThatGiveNoChaptersAnswerFalseAndSayWhy)
{
    // Extensions are case-sensitive: a good list under another name is not
    // read, and neither that nor an empty list is an error. A missing file
    // is "no such file" (260) and broken XML "damaged content" (259).
    const auto list = chaptersFile(kSample);
    const struct {
        const char* name;
        std::optional<std::string> content; // none: the file is missing
        int64_t error;                       // 0: none
    } cases[] = {
        {"a.XML", list, 0}, {"a.Chapters", list, 0}, {"a.TXT", list, 0}, {"chapters", list, 0},
        {"a.chapters.bak", list, 0}, {"empty.chapters", "<chapterInfo><chapters/></chapterInfo>", 0},
        {"other-root.xml", "<Tags><Tag/></Tags>", 0}, {"empty.txt", "", 0},
        {"prose.txt", "Some notes\nabout 1:02:03 and\nCHAPTER lines missing\n", 0},
        {"missing.chapters", std::nullopt, 260}, {"missing.xml", std::nullopt, 260},
        {"missing.txt", std::nullopt, 260}, {"broken.chapters", "<chapterInfo><chapters>", 259},
        {"broken.xml", "<chapterInfo><chapters>", 259},
    };
    qxtest::LogCapture capture;
    for (const auto& c : cases) {
        auto track = QXChapterTrack::init();
        QXErrorRef error;
        const auto path = c.content ? write(c.name, *c.content) : dir / c.name;
        EXPECT_FALSE(track->importChaptersFromURL(path, &error)) << c.name;
        EXPECT_EQ(error ? error->code() : 0, c.error) << c.name;
        if (error) {
            EXPECT_EQ(error->domain(), NSCocoaErrorDomain);
        }
        EXPECT_EQ(track->chapterCount(), 0u) << c.name;
    }
    // Every error is logged as it is made.
    EXPECT_TRUE(capture.contains("missing.txt", QXLogFlagError));

    // The readers themselves do not look at the name.
    auto track = QXChapterTrack::init();
    EXPECT_TRUE(track->importChaptersFromChapters(dir / "a.XML"));
    EXPECT_EQ(track->chapterCount(), kSample.size());
}

TEST_F(ChapterFiles, TextFormsToleratePartialAndMalformedLines)
{
    // OGM pairs: a time whose name line is missing pairs with nothing; extra
    // text around the pairs is ignored; letters are matched in any case.
    auto track = QXChapterTrack::init();
    EXPECT_TRUE(track->importChaptersFromURL(write("ogm.txt", "CHAPTER01=00:00:00.000\n"
                                                              "CHAPTER01NAME=Intro\n"
                                                              "\n"
                                                              "CHAPTER02=00:05:00.000\n"
                                                              "a stray line\n"
                                                              "CHAPTER03=00:10:00.250\n"
                                                              "\n\r\n"
                                                              "chapter03name=\n"
                                                              "CHAPTER04=00:20:00.000\n")));
    EXPECT_EQ(entriesOf(*track), (std::vector<Entry> {{"Intro", 0}, {"", 600250}}));

    // Timed lines: any one character between the fields, exactly three
    // digits of milliseconds; other lines are passed over.
    EXPECT_TRUE(track->importChaptersFromURL(write("lines.txt", "# exported chapters\n"
                                                                "00:00:00.000 Start\n"
                                                                "0:01:00.000 one-digit hour\n"
                                                                "00:02:00.00 two-digit milliseconds\n"
                                                                "00.03.00.500\tTabbed\n"
                                                                "00:04:00.0005 four digits\n"
                                                                "  00:05:00.000 indented\n")));
    EXPECT_EQ(entriesOf(*track), (std::vector<Entry> {{" Start", 0}, {"\tTabbed", 180500}, {"5 four digits", 240000}}));
}

TEST_F(ChapterFiles, EncodingsAreDetectedOrTakenFromTheDeclaration)
{
    // Text files: the decoded text, not the bytes, must begin with CHAPTER,
    // so UTF-16 and UTF-8 with a byte order mark take the OGM form. XML files
    // are read in the encoding they declare.
    std::string utf16 = "\xFF\xFE";
    for (char16_t unit : std::u16string(u"CHAPTER01=00:00:00.000\r\nCHAPTER01NAME=Café crème\r\n"))
        utf16 += std::string {char(unit & 0xFF), char(unit >> 8)};
    const std::string chapterInfo = "<chapterInfo><chapters><chapter name=\"";
    const std::string atZero = "\" time=\"00:00:00.000\"/></chapters></chapterInfo>";
    const struct {
        const char* name;
        std::string bytes;
        std::vector<Entry> expected;
    } cases[] = {
        {"le.txt", utf16, {{"Café crème", 0}}},
        {"bom.txt", "\xEF\xBB\xBF" + ogmFile({{"Übersicht", 0}}, "\n"), {{"Übersicht", 0}}},
        {"latin1.txt",
         "00:00:00.000 Caf\xE9 cr\xE8me et \xE9t\xE9 \xE0 la fran\xE7" "aise, d\xE9j\xE0 vu\n"
         "00:01:30.000 \xDC" "bersicht f\xFCr die Gro\xDF" "en und Kleinen\n",
         {{" Café crème et été à la française, déjà vu", 0}, {" Übersicht für die Großen und Kleinen", 90000}}},
        {"cp1252.chapters",
         "<?xml version='1.0' encoding='windows-1252'?>\n" + chapterInfo + "\x93" "Caf\xe9\x94 \x80" "5" + atZero,
         {{"“Café” €5", 0}}},
        {"latin1.xml",
         "<?xml version=\"1.0\" encoding=\"ISO-8859-1\"?>\n<Chapters><EditionEntry><ChapterAtom>"
         "<ChapterTimeStart>00:00:00.000</ChapterTimeStart><ChapterDisplay><ChapterString>D\xe9j\xe0"
         "</ChapterString></ChapterDisplay></ChapterAtom></EditionEntry></Chapters>",
         {{"Déjà", 0}}},
        {"sjis.chapters", "<?xml version=\"1.0\" encoding=\"Shift_JIS\"?>\n" + chapterInfo + "\x93\xfa\x96\x7b" + atZero,
         {{"日本", 0}}},
    };
    for (const auto& c : cases) {
        auto track = QXChapterTrack::init();
        EXPECT_TRUE(track->importChaptersFromURL(write(c.name, c.bytes))) << c.name;
        EXPECT_EQ(entriesOf(*track), c.expected) << c.name;
    }
}
