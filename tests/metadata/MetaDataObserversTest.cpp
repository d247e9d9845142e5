// Change notifications of the metadata record: the keys an observer hears
// for each kind of change, and an observer that reads or leaves while told.

#include <gtest/gtest.h>

#include "qxmedia/metadata/QXMetaData.h"

namespace {

std::vector<std::string> heardAfter(const std::function<void(QXMetaData&)>& change)
{
    auto record = QXMetaData::init();
    std::vector<std::string> heard;
    record->addObserver([&](const std::string& key) { heard.push_back(key); });
    change(*record);
    return heard;
}

} // namespace

TEST(MetaDataObservers, EachChangeIsHeardWithTheKeysDerivedFromIt)
{
    using Keys = std::vector<std::string>;
    const struct {
        const char* name;
        std::function<void(QXMetaData&)> change;
        Keys heard;
    } cases[] = {
        {"name", [](QXMetaData& m) { m.setValue(QXValue(std::string("Up")), "name"); }, Keys {"name", "title"}},
        {"videoKind", [](QXMetaData& m) { m.setValue(QXValue(10), "videoKind"); }, Keys {"videoKind", "title"}},
        {"null scalar", [](QXMetaData& m) { m.setValue(QXValue(), "seasonNumber"); }, Keys {"seasonNumber"}},
        {"free-form key", [](QXMetaData& m) { m.setValue(QXValue(std::string("x")), "com.example"); },
         Keys {"com.example"}},
        {"artwork", [](QXMetaData& m) { m.setArtwork(nullptr); }, Keys {"artworks", "artwork", "artworkData"}},
        {"dictionary", [](QXMetaData& m) { m.addEntriesFromDictionary({{"show", QXValue(std::string("S"))}}); },
         Keys {"show", "title"}},
        {"direct assignment", [](QXMetaData& m) { m.episodeNumber = 3; }, Keys {}},
    };
    for (const auto& c : cases) EXPECT_EQ(heardAfter(c.change), c.heard) << c.name;
}

TEST(MetaDataObservers, AnObserverReadsTheNewValueAndMayLeaveWhileTold)
{
    auto record = QXMetaData::init();
    std::vector<std::string> titles;
    QXMetaData::ObserverToken token = 0;
    token = record->addObserver([&](const std::string& key) {
        if (key != "title") return;
        titles.push_back(record->title());
        record->removeObserver(token);
    });
    record->setValue(QXValue(std::string("First")), "name");
    record->setValue(QXValue(std::string("Second")), "name");
    EXPECT_EQ(titles, std::vector<std::string> {"First"});
}
