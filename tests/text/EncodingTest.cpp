// Text encodings: detection of wide Unicode, UTF-8, 8-bit and other scripts, binary data, files, conversion.

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

QXData utf32(const std::u32string& text, bool bigEndian, bool mark)
{
    QXData out;
    auto put = [&](char32_t c) {
        const uint8_t b[4] = {uint8_t(c), uint8_t(c >> 8), uint8_t(c >> 16), uint8_t(c >> 24)};
        if (bigEndian) out.insert(out.end(), {b[3], b[2], b[1], b[0]});
        else out.insert(out.end(), {b[0], b[1], b[2], b[3]});
    };
    if (mark) put(0xFEFF);
    for (char32_t c : text) put(c);
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
    const std::u32string text32(kSubtitle16.begin(), kSubtitle16.end());
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
        {"UTF-32LE+BOM", utf32(text32, false, true), NSUTF32LittleEndianStringEncoding},
        {"UTF-32BE+BOM", utf32(text32, true, true), NSUTF32BigEndianStringEncoding},
        {"UTF-32LE", utf32(text32, false, false), NSUTF32LittleEndianStringEncoding},
        {"UTF-32BE", utf32(text32, true, false), NSUTF32BigEndianStringEncoding},
        // Cyrillic has no zero bytes at all in UTF-16, only a steady high byte.
        {"UTF-16LE Cyrillic", utf16(u"Привет, как дела? Это проверка кодировки без метки порядка.", false, false),
         NSUTF16LittleEndianStringEncoding},
    };
    for (const Case& c : cases) {
        std::string decoded;
        bool lossy = true;
        const NSStringEncoding encoding = QXStringEncodingForData(c.data, &decoded, &lossy);
        EXPECT_EQ(encoding, c.expected) << c.name;
        EXPECT_FALSE(lossy) << c.name;
        if (std::string_view(c.name).find("Cyrillic") == std::string_view::npos) {
            EXPECT_EQ(decoded, kSubtitle8) << c.name; // the mark is no part of the text
        } else {
            EXPECT_EQ(decoded.substr(0, 12), "Привет");
        }
    }
}

TEST(EncodingDetection, UTF8AndEightBitEncodings)
{
    std::string decoded;
    EXPECT_EQ(QXStringEncodingForData(bytes(kSubtitle8), &decoded), NSUTF8StringEncoding);
    EXPECT_EQ(decoded, kSubtitle8);
    EXPECT_EQ(QXStringEncodingForData(bytes("\xEF\xBB\xBF" + kSubtitle8), &decoded), NSUTF8StringEncoding);
    EXPECT_EQ(decoded, kSubtitle8);

    // German with umlauts and a euro sign in windows-1252: the Latin-1 family.
    const std::string german = "Die Bäume blühen, die Vögel singen. Größer wird's nicht: 5 € für Müller. "
                               "Schöne Grüße aus Köln, über die Brücke und zurück.\n";
    const std::optional<QXData> cp1252 = QXDataFromString(german, NSWindowsCP1252StringEncoding);
    ASSERT_TRUE(cp1252);
    const NSStringEncoding latin = QXStringEncodingForData(*cp1252, &decoded);
    EXPECT_TRUE(latin == NSWindowsCP1252StringEncoding || latin == NSISOLatin1StringEncoding ||
                latin == QXStringEncodingFromCFStringEncoding(0x020F))
        << QXLocalizedNameOfStringEncoding(latin);
    EXPECT_EQ(decoded.substr(0, 20), german.substr(0, 20));
}

TEST(EncodingDetection, OtherScripts)
{
    // Japanese in UTF-16 without a mark has no steady high byte: the line
    // breaks of the text decide.
    const std::u16string japanese = u"1\n00:00:01,000 --> 00:00:02,000\n日本語のテキストです。\n\n"
                                    u"2\n00:00:03,000 --> 00:00:04,000\n今日はいい天気ですね。\n";
    std::string decoded;
    EXPECT_EQ(QXStringEncodingForData(utf16(japanese, false, false), &decoded), NSUTF16LittleEndianStringEncoding);
    EXPECT_NE(decoded.find("今日はいい天気ですね。"), std::string::npos);
    EXPECT_EQ(QXStringEncodingForData(utf16(japanese, true, false)), NSUTF16BigEndianStringEncoding);

    struct Case {
        const char* text;
        NSStringEncoding encoding;
    };
    const Case cases[] = {
        {"Привет, как дела? Это проверка кодировки. Мы пошли в магазин и купили хлеб, молоко и сыр.\n",
         NSWindowsCP1251StringEncoding},
        {"日本語のテキストです。これはエンコーディングの検出のテストです。今日はいい天気ですね。\n",
         NSShiftJISStringEncoding},
    };
    for (const Case& c : cases) {
        const std::optional<QXData> data = QXDataFromString(c.text, c.encoding);
        ASSERT_TRUE(data);
        EXPECT_EQ(QXStringEncodingForData(*data, &decoded), c.encoding) << c.text;
        EXPECT_EQ(decoded, c.text);
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
    // An ASCII-looking file with NUL bytes in irregular places is no text either.
    EXPECT_EQ(QXStringEncodingForData(bytes(std::string("abc\0def\0\0ghi", 12))), QXUnknownStringEncoding);
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

    // An odd number of bytes cannot be UTF-16 even with zero high bytes.
    QXData odd = utf16(u"hello world", false, false);
    odd.push_back('x');
    EXPECT_NE(QXStringEncodingForData(odd), NSUTF16LittleEndianStringEncoding);
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

    QXErrorRef error;
    EXPECT_FALSE(QXStringWithContentsOfURL(dir / "missing.srt", nullptr, &error));
    ASSERT_TRUE(error);
    EXPECT_EQ(error->code(), 260);

    // Rewriting the file as UTF-8 in place, as done for wide subtitle files.
    namespace fs = std::filesystem;
    fs::permissions(dir / "film.srt", fs::perms::owner_read | fs::perms::owner_write | fs::perms::group_read);
    ASSERT_TRUE(QXWriteStringToURL(*text, dir / "film.srt", true, NSUTF8StringEncoding));
    EXPECT_EQ(qxtest::readFile(dir / "film.srt"), kSubtitle8);
    EXPECT_EQ(fs::status(dir / "film.srt").permissions(),
              fs::perms::owner_read | fs::perms::owner_write | fs::perms::group_read); // the mode is kept
    EXPECT_EQ(std::distance(std::filesystem::directory_iterator(dir), {}), 1); // no temporary left
    ASSERT_TRUE(QXWriteStringToURL("Grüße", dir / "latin.txt", false, NSISOLatin1StringEncoding));
    EXPECT_EQ(qxtest::readFile(dir / "latin.txt"), "Gr\xFC\xDF" "e");
    error.reset();
    EXPECT_FALSE(QXWriteStringToURL("日本", dir / "latin.txt", true, NSISOLatin1StringEncoding, &error));
    ASSERT_TRUE(error);
    EXPECT_EQ(error->code(), 517);
    EXPECT_EQ(qxtest::readFile(dir / "latin.txt"), "Gr\xFC\xDF" "e"); // untouched
}

TEST(EncodingConversion, RoundTripsAndLossless)
{
    const std::string text = "Grüße, ça va? 日本語";
    for (NSStringEncoding encoding : {NSUTF8StringEncoding, NSUnicodeStringEncoding, NSUTF16LittleEndianStringEncoding,
                                      NSUTF32BigEndianStringEncoding}) {
        const std::optional<QXData> data = QXDataFromString(text, encoding);
        ASSERT_TRUE(data) << encoding;
        EXPECT_EQ(QXStringFromData(*data, encoding), text) << encoding;
    }
    // Latin-1 cannot hold Japanese: nothing without loss, a substitute with it.
    EXPECT_FALSE(QXDataFromString(text, NSISOLatin1StringEncoding));
    const std::optional<QXData> lossy = QXDataFromString(text, NSISOLatin1StringEncoding, true);
    ASSERT_TRUE(lossy);
    EXPECT_EQ((*lossy)[2], 0xFC); // ü

    // Invalid input is refused either way.
    EXPECT_FALSE(QXDataFromString("bad \xC3", NSUTF16LittleEndianStringEncoding, true));
    EXPECT_FALSE(QXStringFromData(bytes("bad \xC3\x28"), NSUTF8StringEncoding));
    EXPECT_EQ(QXStringFromData(bytes("ok \xFC"), NSISOLatin1StringEncoding), "ok ü");
    EXPECT_FALSE(QXStringFromData(bytes("x"), 0xDEAD));
}

TEST(EncodingConversion, MacOSRomanHoldsWesternTypographyOnly)
{
    EXPECT_TRUE(QXCanBeConvertedToEncoding("Grüße aus Zürich – “quoted” ™", NSMacOSRomanStringEncoding));
    EXPECT_EQ(QXCStringUsingEncoding("é", NSMacOSRomanStringEncoding), "\x8E");
    for (const char* text : {"Привет", "日本語", "Łódź"}) {
        EXPECT_FALSE(QXCanBeConvertedToEncoding(text, NSMacOSRomanStringEncoding)) << text;
    }
}
