// Block buffers: bounds and the ownership of given memory.

#include <gtest/gtest.h>

#include <cstdlib>
#include <vector>

#include "qxmedia/platform/coremedia/CMBlockBuffer.h"

using namespace qx;

TEST(CMBlockBuffer, AccessPastTheEndFailsAndChangesNothing)
{
    CMBlockBufferRef buffer;
    ASSERT_EQ(CMBlockBufferCreateWithMemoryBlock(nullptr, nullptr, 8, nullptr, nullptr, 0, 8,
                                                 kCMBlockBufferAssureMemoryNowFlag, &buffer),
              kCMBlockBufferNoErr);
    const uint8_t data[8] = {1, 2, 3, 4, 5, 6, 7, 8};
    ASSERT_EQ(CMBlockBufferReplaceDataBytes(data, buffer, 0, 8), kCMBlockBufferNoErr);
    uint8_t out[8];
    EXPECT_NE(CMBlockBufferCopyDataBytes(buffer, 6, 4, out), kCMBlockBufferNoErr);
    EXPECT_NE(CMBlockBufferReplaceDataBytes(data, buffer, 5, 4), kCMBlockBufferNoErr);
    ASSERT_EQ(CMBlockBufferCopyDataBytes(buffer, 0, 8, out), kCMBlockBufferNoErr);
    EXPECT_EQ(std::vector<uint8_t>(out, out + 8), std::vector<uint8_t>(data, data + 8));
}

TEST(CMBlockBuffer, GivenMemoryIsReleasedOnceByItsOwner)
{
    static int frees = 0;
    CMBlockBufferCustomBlockSource source;
    source.FreeBlock = [](void*, void* block, size_t) {
        ++frees;
        std::free(block);
    };
    void* memory = std::malloc(16);
    {
        CMBlockBufferRef buffer;
        ASSERT_EQ(CMBlockBufferCreateWithMemoryBlock(nullptr, memory, 16, nullptr, &source, 4, 10, 0, &buffer), 0);
        CMBlockBufferRef second = buffer;
        buffer.reset();
        EXPECT_EQ(frees, 0) << "still referenced";
    }
    EXPECT_EQ(frees, 1);
    // A refused block is not taken over.
    CMBlockBufferRef buffer;
    void* kept = std::malloc(4);
    EXPECT_NE(CMBlockBufferCreateWithMemoryBlock(nullptr, kept, 4, nullptr, &source, 3, 4, 0, &buffer), 0);
    EXPECT_EQ(frees, 1);
    std::free(kept);
}
