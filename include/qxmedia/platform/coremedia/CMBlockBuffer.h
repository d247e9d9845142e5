#pragma once
// CMBlockBuffer: a run of bytes inside one contiguous memory block. Sample
// buffers hold it by reference, so every copy of a sample sees the same
// bytes; writing through CMBlockBufferReplaceDataBytes is seen by all of them.
// The memory is either taken over from the caller (freed by the block
// allocator or the custom source's FreeBlock when the last reference goes),
// or allocated by the buffer, at once with kCMBlockBufferAssureMemoryNowFlag
// or later by CMBlockBufferAssureBlockMemory.
//
// A block buffer is filled by one thread before it is shared; reading it from
// many threads at once is safe.

#include <functional>
#include <memory>
#include <optional>

#include "qxmedia/platform/coremedia/CMBase.h"

namespace qx {

class CMBlockBuffer;
using CMBlockBufferRef = std::shared_ptr<CMBlockBuffer>;

using CMBlockBufferFlags = uint32_t;
enum : CMBlockBufferFlags {
    kCMBlockBufferAssureMemoryNowFlag = 1u << 0,
    kCMBlockBufferAlwaysCopyDataFlag = 1u << 1,
    kCMBlockBufferDontOptimizeDepthFlag = 1u << 2,
    kCMBlockBufferPermitEmptyReferenceFlag = 1u << 3,
};

enum : OSStatus {
    kCMBlockBufferNoErr = 0,
    kCMBlockBufferStructureAllocationFailedErr = -12700,
    kCMBlockBufferBlockAllocationFailedErr = -12701,
    kCMBlockBufferBadCustomBlockSourceErr = -12702,
    kCMBlockBufferBadOffsetParameterErr = -12703,
    kCMBlockBufferBadLengthParameterErr = -12704,
    kCMBlockBufferBadPointerParameterErr = -12705,
    kCMBlockBufferEmptyBBufErr = -12706,
    kCMBlockBufferUnallocatedBlockErr = -12707,
    kCMBlockBufferInsufficientSpaceErr = -12708,
};

// Where memory comes from and goes back to. AllocateBlock may be empty when
// the memory is always given; FreeBlock is called once, with the block and
// its size, when the buffer lets go of memory it was given or allocated.
struct CMBlockBufferCustomBlockSource {
    uint32_t version = 0;
    std::function<void*(void* refCon, size_t sizeInBytes)> AllocateBlock;
    std::function<void(void* refCon, void* doomedMemoryBlock, size_t sizeInBytes)> FreeBlock;
    void* refCon = nullptr;
};

// A buffer with no memory; CMBlockBufferAppendMemoryBlock gives it some.
OSStatus CMBlockBufferCreateEmpty(CFAllocatorRef structureAllocator, uint32_t subBlockCapacity,
                                  CMBlockBufferFlags flags, CMBlockBufferRef* blockBufferOut);

// A buffer over `memoryBlock` (taken over: freed with free() for the default
// allocator, not at all for kCFAllocatorNull, by the custom source otherwise)
// or, when memoryBlock is null, over blockLength bytes allocated by the buffer.
// The data are the dataLength bytes at offsetToData.
OSStatus CMBlockBufferCreateWithMemoryBlock(CFAllocatorRef structureAllocator, void* memoryBlock, size_t blockLength,
                                            CFAllocatorRef blockAllocator,
                                            const CMBlockBufferCustomBlockSource* customBlockSource,
                                            size_t offsetToData, size_t dataLength, CMBlockBufferFlags flags,
                                            CMBlockBufferRef* blockBufferOut);

// Adds a memory block behind the data. The first block is taken over as it
// is; a further one is joined with what is there into one new block, so the
// data stay contiguous (and the given block is released at once).
OSStatus CMBlockBufferAppendMemoryBlock(const CMBlockBufferRef& buffer, void* memoryBlock, size_t blockLength,
                                        CFAllocatorRef blockAllocator,
                                        const CMBlockBufferCustomBlockSource* customBlockSource,
                                        size_t offsetToData, size_t dataLength, CMBlockBufferFlags flags);

// Allocates the memory of a buffer made without it; no-op when it has some.
OSStatus CMBlockBufferAssureBlockMemory(const CMBlockBufferRef& buffer);

OSStatus CMBlockBufferReplaceDataBytes(const void* sourceBytes, const CMBlockBufferRef& destinationBuffer,
                                       size_t offsetIntoDestination, size_t dataLength);
OSStatus CMBlockBufferCopyDataBytes(const CMBlockBufferRef& theSourceBuffer, size_t offsetToData, size_t dataLength,
                                    void* destination);

// The pointer to the byte at `offset`, the contiguous length from there and
// the total length. Any out-argument may be null.
OSStatus CMBlockBufferGetDataPointer(const CMBlockBufferRef& theBuffer, size_t offset, size_t* lengthAtOffsetOut,
                                     size_t* totalLengthOut, char** dataPointerOut);

size_t CMBlockBufferGetDataLength(const CMBlockBufferRef& theBuffer);
bool CMBlockBufferIsEmpty(const CMBlockBufferRef& theBuffer);
// Always true for a valid range: the data are one block.
bool CMBlockBufferIsRangeContiguous(const CMBlockBufferRef& theBuffer, size_t offset, size_t length);

class CMBlockBuffer {
public:
    CMBlockBuffer() = default;
    ~CMBlockBuffer();
    CMBlockBuffer(const CMBlockBuffer&) = delete;
    CMBlockBuffer& operator=(const CMBlockBuffer&) = delete;

private:
    friend OSStatus CMBlockBufferAppendMemoryBlock(const CMBlockBufferRef&, void*, size_t, CFAllocatorRef,
                                                   const CMBlockBufferCustomBlockSource*, size_t, size_t,
                                                   CMBlockBufferFlags);
    friend OSStatus CMBlockBufferAssureBlockMemory(const CMBlockBufferRef&);
    friend OSStatus CMBlockBufferReplaceDataBytes(const void*, const CMBlockBufferRef&, size_t, size_t);
    friend OSStatus CMBlockBufferCopyDataBytes(const CMBlockBufferRef&, size_t, size_t, void*);
    friend OSStatus CMBlockBufferGetDataPointer(const CMBlockBufferRef&, size_t, size_t*, size_t*, char**);
    friend size_t CMBlockBufferGetDataLength(const CMBlockBufferRef&);
    friend bool CMBlockBufferIsEmpty(const CMBlockBufferRef&);

    bool hasBlock() const { return blockLength_ > 0 || dataLength_ > 0; }
    void releaseMemory();

    uint8_t* memory_ = nullptr;
    size_t blockLength_ = 0;
    size_t offset_ = 0;
    size_t dataLength_ = 0;
    CFAllocatorRef blockAllocator_ = kCFAllocatorDefault;
    std::optional<CMBlockBufferCustomBlockSource> source_; // inline: one allocation less per buffer
};

} // namespace qx
