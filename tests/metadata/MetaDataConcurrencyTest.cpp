// A metadata record shared between threads: readers beside a writer. (The barrier queue under it
// is the dispatch layer's, whose nested-read case the dispatch tests cover.)

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <thread>

#include "qxmedia/metadata/QXMetaData.h"

using namespace std::chrono_literals;

TEST(MetaDataConcurrency, ReadersAndAWriterOfFreeFormKeys)
{
    auto record = QXMetaData::init();
    record->name.set(std::string("start"));
    std::atomic<bool> stop {false};
    std::atomic<int> reads {0};

    std::vector<std::thread> readers;
    for (int i = 0; i < 3; ++i) {
        readers.emplace_back([&] {
            while (!stop) {
                const auto changed = record->changedMetadata();
                // Every free-form key present is reported with its value.
                for (const auto& [key, value] : changed) {
                    if (key.rfind("k", 0) == 0) {
                        EXPECT_TRUE(value.int64());
                    }
                }
                EXPECT_GE(record->allKeys().size(), 81u);
                (void)record->valueForKey("k1");
                (void)record->name.get();
                ++reads;
            }
        });
    }
    std::thread writer([&] {
        for (int i = 0; i < 300; ++i) {
            record->setValue(QXValue(i), "k" + std::to_string(i % 7));
            if (i % 3 == 0) record->setValue(QXValue(), "k" + std::to_string((i + 1) % 7));
            record->name.set(std::to_string(i));
        }
    });
    writer.join();
    stop = true;
    for (auto& t : readers) t.join();
    EXPECT_GT(reads.load(), 0);
    EXPECT_EQ(*record->name.get(), "299");
}
