// Property lists in XML and binary form: round trips, damaged input, files.

#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>

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
        {"enabled", true},
        {"released", dateFromUnix(1588327200)}, // 2020-05-01 10:00:00 UTC
        {"old", dateFromUnix(-631152000)},      // 1950-01-01, before the 2001 epoch
        {"bytes", QXData {0, 1, 2, 0xFF, 0x80}},
        {"cast", QXArray {QXDictionary {{"name", "A"}}, QXDictionary {{"name", "B"}}}},
        {"nested", QXDictionary {{"list", QXArray {1, "two", 3.5, QXArray {}}}, {"map", QXDictionary {}}}},
    };
}

} // namespace

TEST(PropertyList, XMLAndBinaryRoundTrips)
{
    const QXValue tree = sampleTree();
    for (QXPropertyListFormat format : {QXPropertyListFormat::XML, QXPropertyListFormat::Binary}) {
        QXErrorRef error;
        const std::optional<QXData> data = QXPropertyListSerialization::dataWithPropertyList(tree, format, 0, &error);
        ASSERT_TRUE(data) << int(format);
        QXPropertyListFormat readFormat = QXPropertyListFormat::OpenStep;
        const std::optional<QXValue> back = QXPropertyListSerialization::propertyListWithData(*data, 0, &readFormat);
        ASSERT_TRUE(back) << int(format);
        EXPECT_EQ(readFormat, format);
        EXPECT_EQ(*back, tree) << back->description();
        EXPECT_EQ(back->find("enabled")->type(), QXValue::Type::Bool);
    }
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

TEST(PropertyList, FilesAndAnIndependentReader)
{
    const auto dir = qxtest::makeTempDir("plist-files");
    const auto path = dir / "tree.plist";
    ASSERT_TRUE(QXPropertyListSerialization::writePropertyList(sampleTree(), path, QXPropertyListFormat::Binary));
    EXPECT_EQ(QXPropertyListSerialization::propertyListWithContentsOfURL(path), sampleTree());
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
