// Block buffers: filling, bounds, memory owned, given or borrowed, appending.

#include <gtest/gtest.h>

#include <cstdlib>
#include <cstring>
#include <vector>

#include "qxmedia/platform/coremedia/CMBlockBuffer.h"

using namespace qx;

namespace {

struct FreeLog {
    std::vector<std::pair<void*, size_t>> freed;
};

CMBlockBufferCustomBlockSource loggingSource(FreeLog& log)
{
    CMBlockBufferCustomBlockSource source;
    source.FreeBlock = [](void* refCon, void* block, size_t size) {
        static_cast<FreeLog*>(refCon)->freed.emplace_back(block, size);
        std::free(block);
    };
    source.refCon = &log;
    return source;
}

std::vector<uint8_t> bytesOf(const CMBlockBufferRef& buffer)
{
    std::vector<uint8_t> bytes(CMBlockBufferGetDataLength(buffer));
    EXPECT_EQ(CMBlockBufferCopyDataBytes(buffer, 0, bytes.size(), bytes.data()), kCMBlockBufferNoErr);
    return bytes;
}

} // namespace

TEST(CMBlockBuffer, OwnBlockIsFilledReadAndBoundsChecked)
{
    CMBlockBufferRef buffer;
    ASSERT_EQ(CMBlockBufferCreateWithMemoryBlock(kCFAllocatorDefault, nullptr, 8, kCFAllocatorDefault, nullptr, 0, 8,
                                                 kCMBlockBufferAssureMemoryNowFlag, &buffer),
              kCMBlockBufferNoErr);
    const uint8_t data[8] = {1, 2, 3, 4, 5, 6, 7, 8};
    ASSERT_EQ(CMBlockBufferReplaceDataBytes(data, buffer, 0, 8), kCMBlockBufferNoErr);
    EXPECT_EQ(bytesOf(buffer), std::vector<uint8_t>(data, data + 8));

    size_t atOffset = 0, total = 0;
    char* pointer = nullptr;
    ASSERT_EQ(CMBlockBufferGetDataPointer(buffer, 3, &atOffset, &total, &pointer), kCMBlockBufferNoErr);
    EXPECT_EQ(atOffset, 5u);
    EXPECT_EQ(pointer[0], 4);

    uint8_t out[4];
    EXPECT_NE(CMBlockBufferCopyDataBytes(buffer, 6, 4, out), kCMBlockBufferNoErr) << "reads past the end";
    EXPECT_NE(CMBlockBufferReplaceDataBytes(data, buffer, 5, 4), kCMBlockBufferNoErr) << "writes past the end";
    EXPECT_EQ(bytesOf(buffer), std::vector<uint8_t>(data, data + 8)) << "failed calls change nothing";
}

TEST(CMBlockBuffer, UnallocatedBlockNeedsAssuring)
{
    CMBlockBufferRef buffer;
    ASSERT_EQ(CMBlockBufferCreateWithMemoryBlock(nullptr, nullptr, 4, nullptr, nullptr, 0, 4, 0, &buffer), 0);
    const uint8_t data[4] = {9, 9, 9, 9};
    EXPECT_EQ(CMBlockBufferReplaceDataBytes(data, buffer, 0, 4), kCMBlockBufferUnallocatedBlockErr);
    ASSERT_EQ(CMBlockBufferAssureBlockMemory(buffer), 0);
    EXPECT_EQ(CMBlockBufferReplaceDataBytes(data, buffer, 0, 4), 0);
    EXPECT_EQ(bytesOf(buffer), std::vector<uint8_t>(4, 9));
}

TEST(CMBlockBuffer, EmptyAndZeroLengthBlocksAreRefused)
{
    CMBlockBufferRef buffer;
    EXPECT_EQ(CMBlockBufferCreateWithMemoryBlock(nullptr, nullptr, 0, nullptr, nullptr, 0, 0,
                                                 kCMBlockBufferAssureMemoryNowFlag, &buffer),
              kCMBlockBufferBadLengthParameterErr);
    EXPECT_FALSE(buffer);
    EXPECT_EQ(CMBlockBufferCreateWithMemoryBlock(nullptr, nullptr, 4, nullptr, nullptr, 2, 3, 0, &buffer),
              kCMBlockBufferBadOffsetParameterErr);

    ASSERT_EQ(CMBlockBufferCreateEmpty(nullptr, 0, 0, &buffer), 0);
    EXPECT_TRUE(CMBlockBufferIsEmpty(buffer));
    EXPECT_EQ(CMBlockBufferGetDataPointer(buffer, 0, nullptr, nullptr, nullptr), kCMBlockBufferEmptyBBufErr);
}

TEST(CMBlockBuffer, GivenMemoryIsReleasedOnceByItsOwner)
{
    FreeLog log;
    const CMBlockBufferCustomBlockSource source = loggingSource(log);
    void* memory = std::malloc(16);
    std::memset(memory, 7, 16);
    {
        CMBlockBufferRef buffer;
        ASSERT_EQ(CMBlockBufferCreateWithMemoryBlock(nullptr, memory, 16, nullptr, &source, 4, 10, 0, &buffer), 0);
        char* pointer = nullptr;
        ASSERT_EQ(CMBlockBufferGetDataPointer(buffer, 0, nullptr, nullptr, &pointer), 0);
        EXPECT_EQ(pointer, static_cast<char*>(memory) + 4) << "the data are not copied";
        CMBlockBufferRef second = buffer;
        buffer.reset();
        EXPECT_TRUE(log.freed.empty()) << "still referenced";
    }
    ASSERT_EQ(log.freed.size(), 1u);
    EXPECT_EQ(log.freed[0].second, 16u);

    // kCFAllocatorNull: the memory stays the caller's.
    uint8_t stackBytes[4] = {1, 2, 3, 4};
    {
        CMBlockBufferRef buffer;
        ASSERT_EQ(CMBlockBufferCreateWithMemoryBlock(nullptr, stackBytes, 4, kCFAllocatorNull, nullptr, 0, 4, 0, &buffer),
                  0);
        EXPECT_EQ(bytesOf(buffer), std::vector<uint8_t>({1, 2, 3, 4}));
    } // ASan would report a free of stack memory here

    // A refused block is not taken over.
    FreeLog refused;
    const CMBlockBufferCustomBlockSource refusedSource = loggingSource(refused);
    CMBlockBufferRef buffer;
    void* kept = std::malloc(4);
    EXPECT_NE(CMBlockBufferCreateWithMemoryBlock(nullptr, kept, 4, nullptr, &refusedSource, 3, 4, 0, &buffer), 0);
    EXPECT_TRUE(refused.freed.empty());
    std::free(kept);
}

TEST(CMBlockBuffer, AppendingKeepsTheDataContiguous)
{
    CMBlockBufferRef buffer;
    ASSERT_EQ(CMBlockBufferCreateEmpty(nullptr, 0, 0, &buffer), 0);
    auto* first = static_cast<uint8_t*>(std::malloc(3));
    first[0] = 1, first[1] = 2, first[2] = 3;
    ASSERT_EQ(CMBlockBufferAppendMemoryBlock(buffer, first, 3, nullptr, nullptr, 0, 3, 0), 0);
    FreeLog log;
    const CMBlockBufferCustomBlockSource source = loggingSource(log);
    auto* second = static_cast<uint8_t*>(std::malloc(4));
    second[0] = 0, second[1] = 4, second[2] = 5, second[3] = 0;
    ASSERT_EQ(CMBlockBufferAppendMemoryBlock(buffer, second, 4, nullptr, &source, 1, 2, 0), 0);
    EXPECT_EQ(log.freed.size(), 1u) << "the appended block was copied and let go";
    EXPECT_EQ(bytesOf(buffer), std::vector<uint8_t>({1, 2, 3, 4, 5}));
    EXPECT_TRUE(CMBlockBufferIsRangeContiguous(buffer, 0, 5));
}
