// Text encodings: detection of wide Unicode, binary data, files.

#include <gtest/gtest.h>

#include "qxmedia/platform/text/QXLanguageDetection.h"
#include "qxmedia/platform/text/QXStringEncoding.h"
#include "support/TestMedia.h"

namespace {

// Independent encoders for the fixtures, so detection is not checked
// against its own conversion code.
QXData utf16(const std::u16string& text, bool bigEndian, bool mark)
{
    QXData out;
    auto put = [&](char16_t unit) {
        const uint8_t hi = uint8_t(unit >> 8), lo = uint8_t(unit & 0xFF);
        if (bigEndian) out.insert(out.end(), {hi, lo});
        else out.insert(out.end(), {lo, hi});
    };
    if (mark) put(0xFEFF);
    for (char16_t unit : text) put(unit);
    return out;
}

QXData bytes(std::string_view text) { return QXData(text.begin(), text.end()); }

// A subtitle file as it is found in the wild: mostly ASCII, some accents.
const std::u16string kSubtitle16 =
    u"1\r\n00:00:01,000 --> 00:00:03,500\r\nÜber den Wolken muss die Freiheit grenzenlos sein.\r\n\r\n"
    u"2\r\n00:00:04,000 --> 00:00:06,000\r\nC'est déjà l'été, à bientôt!\r\n";
const std::string kSubtitle8 =
    "1\r\n00:00:01,000 --> 00:00:03,500\r\nÜber den Wolken muss die Freiheit grenzenlos sein.\r\n\r\n"
    "2\r\n00:00:04,000 --> 00:00:06,000\r\nC'est déjà l'été, à bientôt!\r\n";

} // namespace

TEST(EncodingDetection, WideUnicodeWithAndWithoutByteOrderMark)
{
    struct Case {
        const char* name;
        QXData data;
        NSStringEncoding expected;
    };
    const Case cases[] = {
        {"UTF-16LE+BOM", utf16(kSubtitle16, false, true), NSUTF16LittleEndianStringEncoding},
        {"UTF-16BE+BOM", utf16(kSubtitle16, true, true), NSUTF16BigEndianStringEncoding},
        {"UTF-16LE", utf16(kSubtitle16, false, false), NSUTF16LittleEndianStringEncoding},
        {"UTF-16BE", utf16(kSubtitle16, true, false), NSUTF16BigEndianStringEncoding},
    };
    for (const Case& c : cases) {
        std::string decoded;
        bool lossy = true;
        const NSStringEncoding encoding = QXStringEncodingForData(c.data, &decoded, &lossy);
        EXPECT_EQ(encoding, c.expected) << c.name;
        EXPECT_FALSE(lossy) << c.name;
        EXPECT_EQ(decoded, kSubtitle8) << c.name; // the mark is no part of the text
    }
}

TEST(EncodingDetection, BinaryDataIsUnknown)
{
    // Zeros and control bytes without any text pattern; nothing is decoded.
    QXData controls;
    for (int i = 0; i < 512; ++i) controls.push_back(uint8_t(i % 7 == 0 ? 0 : i % 31));
    std::string decoded = "untouched";
    EXPECT_EQ(QXStringEncodingForData(controls, &decoded), QXUnknownStringEncoding);
    EXPECT_EQ(decoded, "untouched");
    // Real media files: PCM audio (16-bit samples look much like UTF-16
    // units) and a small MP4.
    const std::pair<const char*, const char*> media[] = {
        {"tone.wav", "-f lavfi -i sine=frequency=440:duration=0.2 -ac 1"},
        {"clip.mp4", "-f lavfi -i testsrc=size=64x48:rate=5:d=0.4 -pix_fmt yuv420p"},
    };
    for (const auto& [name, arguments] : media) {
        const auto path = qxtest::generate(name, arguments);
        ASSERT_FALSE(path.empty()) << name;
        const std::string file = qxtest::readFile(path);
        EXPECT_EQ(QXStringEncodingForData(bytes(file)), QXUnknownStringEncoding) << name;
    }
}

TEST(EncodingDetection, FilesOnDisk)
{
    const auto dir = qxtest::makeTempDir("encoding-files");
    const QXData data = utf16(kSubtitle16, true, false);
    qxtest::writeFile(dir / "film.srt", std::string(data.begin(), data.end()));
    NSStringEncoding used = 0;
    const std::optional<std::string> text = QXStringWithContentsOfURL(dir / "film.srt", &used);
    ASSERT_TRUE(text);
    EXPECT_EQ(used, NSUTF16BigEndianStringEncoding);
    EXPECT_EQ(*text, kSubtitle8);

    // Rewritten in place as UTF-8, as done for wide subtitle files.
    ASSERT_TRUE(QXWriteStringToURL(*text, dir / "film.srt", true, NSUTF8StringEncoding));
    EXPECT_EQ(qxtest::readFile(dir / "film.srt"), kSubtitle8);
}

