// Property lists in XML and binary form: round trips, edge values, hand-written and damaged input, files.

#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <limits>

#include "qxmedia/platform/plist/QXPropertyListSerialization.h"
#include "support/TestMedia.h"

namespace {

QXDate dateFromUnix(int64_t seconds) { return QXDate(std::chrono::seconds(seconds)); }

QXValue sampleTree()
{
    return QXDictionary {
        {"name", "Größe – “quoted” <&>"},
        {"count", 42},
        {"negative", -7},
        {"big", int64_t(1) << 40},
        {"ratio", 0.25},
        {"enabled", true},
        {"disabled", false},
        {"released", dateFromUnix(1588327200)}, // 2020-05-01 10:00:00 UTC
        {"old", dateFromUnix(-631152000)},      // 1950-01-01, before the 2001 epoch
        {"bytes", QXData {0, 1, 2, 0xFF, 0x80}},
        {"empty", QXData {}},
        {"cast", QXArray {QXDictionary {{"name", "A"}}, QXDictionary {{"name", "B"}}}},
        {"nested", QXDictionary {{"list", QXArray {1, "two", 3.5, QXArray {}}}, {"map", QXDictionary {}}}},
    };
}

std::string asText(const QXData& data) { return std::string(data.begin(), data.end()); }

} // namespace

TEST(PropertyList, XMLAndBinaryRoundTrips)
{
    const QXValue tree = sampleTree();
    for (QXPropertyListFormat format : {QXPropertyListFormat::XML, QXPropertyListFormat::Binary}) {
        QXErrorRef error;
        const std::optional<QXData> data = QXPropertyListSerialization::dataWithPropertyList(tree, format, 0, &error);
        ASSERT_TRUE(data) << int(format);
        EXPECT_FALSE(error);
        QXPropertyListFormat readFormat = QXPropertyListFormat::OpenStep;
        const std::optional<QXValue> back = QXPropertyListSerialization::propertyListWithData(*data, 0, &readFormat);
        ASSERT_TRUE(back) << int(format);
        EXPECT_EQ(readFormat, format);
        EXPECT_EQ(*back, tree) << back->description();
        EXPECT_EQ(back->find("enabled")->type(), QXValue::Type::Bool);
    }
    const auto xml = QXPropertyListSerialization::dataWithPropertyList(tree, QXPropertyListFormat::XML);
    EXPECT_NE(asText(*xml).find("<date>2020-05-01T10:00:00Z</date>"), std::string::npos);
    EXPECT_NE(asText(*xml).find("<date>1950-01-01T00:00:00Z</date>"), std::string::npos);
    const auto binary = QXPropertyListSerialization::dataWithPropertyList(tree, QXPropertyListFormat::Binary);
    EXPECT_EQ(asText(*binary).substr(0, 8), "bplist00");
}

TEST(PropertyList, NumbersAndDatesAtTheEdges)
{
    // Unsigned values beyond the signed range keep their bits.
    const QXValue numbers = QXDictionary {{"max", std::numeric_limits<uint64_t>::max()},
                                          {"min", std::numeric_limits<int64_t>::min()}};
    const auto data = QXPropertyListSerialization::dataWithPropertyList(numbers, QXPropertyListFormat::XML);
    const auto back = QXPropertyListSerialization::propertyListWithData(*data);
    ASSERT_TRUE(back);
    EXPECT_EQ(back->find("max")->uint64(), std::numeric_limits<uint64_t>::max());
    EXPECT_EQ(back->find("min")->int64(), std::numeric_limits<int64_t>::min());

    // Sub-second dates survive in binary form.
    const QXDate precise = dateFromUnix(1000000000) + std::chrono::microseconds(250000);
    const auto bin = QXPropertyListSerialization::dataWithPropertyList(QXDictionary {{"d", precise}},
                                                                       QXPropertyListFormat::Binary);
    EXPECT_EQ(*QXPropertyListSerialization::propertyListWithData(*bin)->find("d")->date(), precise);
    // Dates beyond what the format holds are clamped, not wrapped around.
    const auto far = QXPropertyListSerialization::dataWithPropertyList(QXDictionary {{"d", dateFromUnix(4102444800)}},
                                                                       QXPropertyListFormat::XML); // 2100
    const QXDate clamped = *QXPropertyListSerialization::propertyListWithData(*far)->find("d")->date();
    EXPECT_GT(clamped, dateFromUnix(3000000000)); // 2065: well past 2001
}

TEST(PropertyList, ReadsHandWrittenXML)
{
    const std::string xml = R"(<?xml version="1.0" encoding="UTF-8"?>
<!DOCTYPE plist PUBLIC "-//Apple//DTD PLIST 1.0//EN" "http://www.apple.com/DTDs/PropertyList-1.0.dtd">
<plist version="1.0">
<dict>
	<key>cast</key>
	<array>
		<dict><key>name</key><string>Jane &amp; John</string></dict>
	</array>
	<key>studio</key>
	<string>Studio</string>
	<key>rating</key>
	<integer>-3</integer>
	<key>score</key>
	<real>7.5</real>
	<key>seen</key>
	<true/>
	<key>blob</key>
	<data>AAEC</data>
</dict>
</plist>)";
    const auto value = QXPropertyListSerialization::propertyListWithData(QXData(xml.begin(), xml.end()));
    ASSERT_TRUE(value);
    EXPECT_EQ(*value->find("cast")->array()->at(0).find("name")->string(), "Jane & John");
    EXPECT_EQ(value->find("rating")->int64(), -3);
    EXPECT_EQ(value->find("score")->doubleValue(), 7.5);
    EXPECT_EQ(*value->find("blob")->data(), (QXData {0, 1, 2}));
}

TEST(PropertyList, UnreadableInputGivesNothing)
{
    const QXData good = *QXPropertyListSerialization::dataWithPropertyList(sampleTree(), QXPropertyListFormat::Binary);
    std::vector<QXData> inputs = {
        {},
        QXData {'x'},
        QXData {'b', 'p', 'l', 'i', 's', 't', '0', '0'},
        QXData(good.begin(), good.begin() + long(good.size() / 2)), // truncated binary
    };
    for (const char* text : {"not a plist", "<plist><integer>1</plist>",
                             "<?xml version=\"1.0\"?><html></html>"}) {
        inputs.emplace_back(text, text + strlen(text));
    }
    // NUL characters inside strings and keys (libplist would abort on them).
    for (const char* text : {"<plist><string>a&#0;b</string></plist>", "<plist><string>a&#x00;b</string></plist>"}) {
        inputs.emplace_back(text, text + strlen(text));
    }
    static const char withNul[] = "<plist><dict><key>k\0ey</key><integer>1</integer></dict></plist>";
    inputs.emplace_back(withNul, withNul + sizeof withNul - 1);
    for (const QXValue& tree : {QXValue(QXDictionary {{"key", "vXlue"}}), QXValue(QXDictionary {{"kXy", "value"}}),
                                QXValue(QXArray {"\u00fcXber"})}) {
        QXData binary = *QXPropertyListSerialization::dataWithPropertyList(tree, QXPropertyListFormat::Binary);
        std::replace(binary.begin(), binary.end(), uint8_t('X'), uint8_t(0));
        inputs.push_back(binary);
    }
    // A binary plist whose offset table points outside the file.
    QXData corrupt = good;
    corrupt[corrupt.size() - 9] = 0xFF;
    inputs.push_back(corrupt);

    for (const QXData& input : inputs) {
        QXErrorRef error;
        const auto value = QXPropertyListSerialization::propertyListWithData(input, 0, nullptr, &error);
        EXPECT_FALSE(value) << &input - inputs.data() << " " << (value ? value->description() : "");
        if (!value) {
            ASSERT_TRUE(error);
            EXPECT_EQ(error->code(), 3840);
        }
    }
}

TEST(PropertyList, ValuesWithoutAPropertyListForm)
{
    for (const QXValue& value : {QXValue(), QXValue(QXURL("/tmp/x")),
                                 QXValue(QXDictionary {{"list", QXArray {1, QXValue()}}})}) {
        QXErrorRef error;
        EXPECT_FALSE(QXPropertyListSerialization::dataWithPropertyList(value, QXPropertyListFormat::XML, 0, &error));
        ASSERT_TRUE(error);
        EXPECT_EQ(error->code(), 3851);
        EXPECT_FALSE(QXPropertyListSerialization::propertyList(value, QXPropertyListFormat::Binary));
    }
    EXPECT_TRUE(QXPropertyListSerialization::propertyList(sampleTree(), QXPropertyListFormat::Binary));
}

TEST(PropertyList, FilesAndAnIndependentReader)
{
    const auto dir = qxtest::makeTempDir("plist-files");
    const auto path = dir / "tree.plist";
    ASSERT_TRUE(QXPropertyListSerialization::writePropertyList(sampleTree(), path, QXPropertyListFormat::Binary));
    EXPECT_EQ(QXPropertyListSerialization::propertyListWithContentsOfURL(path), sampleTree());
    QXErrorRef error;
    EXPECT_FALSE(QXPropertyListSerialization::propertyListWithContentsOfURL(dir / "missing.plist", &error));
    ASSERT_TRUE(error);
    EXPECT_EQ(error->code(), 260);
    EXPECT_EQ(std::distance(std::filesystem::directory_iterator(dir), {}), 1); // no temporary left behind

    if (!qxtest::haveTool("python3")) GTEST_SKIP() << "python3 not installed";
    std::string output;
    ASSERT_EQ(qxtest::run("python3 -c \"import plistlib,sys; d=plistlib.load(open(sys.argv[1],'rb')); "
                          "print(d['name'], d['negative'], d['big'], d['released'].isoformat(), d['bytes'].hex(), "
                          "d['cast'][1]['name'])\" " +
                              path.string(),
                          &output),
              0);
    EXPECT_EQ(output, "Größe – “quoted” <&> -7 1099511627776 2020-05-01T10:00:00 000102ff80 B\n");
}
