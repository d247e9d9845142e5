#pragma once
/// @file
/// CMBlockBuffer: a run of bytes inside one contiguous memory block. Sample
/// buffers hold it by reference, so every copy of a sample sees the same
/// bytes; writing through CMBlockBufferReplaceDataBytes is seen by all of them.
/// The memory is either taken over from the caller (freed by the block
/// allocator or the custom source's FreeBlock when the last reference goes),
/// or allocated by the buffer, at once with kCMBlockBufferAssureMemoryNowFlag
/// or later by CMBlockBufferAssureBlockMemory.
///
/// A block buffer is filled by one thread before it is shared; reading it from
/// many threads at once is safe.

#include <functional>
#include <memory>
#include <optional>

#include "qxmedia/platform/coremedia/CMBase.h"

namespace qx {

class CMBlockBuffer;
/// Block buffers are shared by the samples that hold them.
using CMBlockBufferRef = std::shared_ptr<CMBlockBuffer>;

/// A set of the kCMBlockBuffer...Flag bits.
using CMBlockBufferFlags = uint32_t;
/// Options of the create and append calls.
enum : CMBlockBufferFlags {
    kCMBlockBufferAssureMemoryNowFlag = 1u << 0,      ///< Allocate the buffer's own memory at once, not on first use.
    kCMBlockBufferAlwaysCopyDataFlag = 1u << 1,       ///< Accepted for the call shape.
    kCMBlockBufferDontOptimizeDepthFlag = 1u << 2,    ///< Accepted for the call shape.
    kCMBlockBufferPermitEmptyReferenceFlag = 1u << 3, ///< Allow a block of length 0 (refused otherwise).
};

/// The status codes of the block buffer calls.
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

/// Where memory comes from and goes back to. AllocateBlock may be empty when
/// the memory is always given; FreeBlock is called once, with the block and
/// its size, when the buffer lets go of memory it was given or allocated.
struct CMBlockBufferCustomBlockSource {
    uint32_t version = 0; ///< 0.
    std::function<void*(void* refCon, size_t sizeInBytes)> AllocateBlock; ///< Gives sizeInBytes bytes, or null.
    /// Takes back a block given to or allocated by the buffer.
    std::function<void(void* refCon, void* doomedMemoryBlock, size_t sizeInBytes)> FreeBlock;
    void* refCon = nullptr; ///< Passed to both functions as it is.
};

/// A buffer with no memory; CMBlockBufferAppendMemoryBlock gives it some.
OSStatus CMBlockBufferCreateEmpty(CFAllocatorRef structureAllocator, uint32_t subBlockCapacity,
                                  CMBlockBufferFlags flags, CMBlockBufferRef* blockBufferOut);

/// A buffer over `memoryBlock` (taken over: freed with free() for the default
/// allocator, not at all for kCFAllocatorNull, by the custom source otherwise)
/// or, when memoryBlock is null, over blockLength bytes allocated by the buffer.
/// The data are the dataLength bytes at offsetToData.
OSStatus CMBlockBufferCreateWithMemoryBlock(CFAllocatorRef structureAllocator, void* memoryBlock, size_t blockLength,
                                            CFAllocatorRef blockAllocator,
                                            const CMBlockBufferCustomBlockSource* customBlockSource,
                                            size_t offsetToData, size_t dataLength, CMBlockBufferFlags flags,
                                            CMBlockBufferRef* blockBufferOut);

/// Adds a memory block behind the data. The first block is taken over as it
/// is; a further one is joined with what is there into one new block, so the
/// data stay contiguous (and the given block is released at once).
OSStatus CMBlockBufferAppendMemoryBlock(const CMBlockBufferRef& buffer, void* memoryBlock, size_t blockLength,
                                        CFAllocatorRef blockAllocator,
                                        const CMBlockBufferCustomBlockSource* customBlockSource,
                                        size_t offsetToData, size_t dataLength, CMBlockBufferFlags flags);

/// Allocates the memory of a buffer made without it; no-op when it has some.
OSStatus CMBlockBufferAssureBlockMemory(const CMBlockBufferRef& buffer);

/// Writes dataLength bytes at offsetIntoDestination of the data, seen by every sample holding the buffer;
/// kCMBlockBufferBadOffsetParameterErr when the range passes the data's end.
OSStatus CMBlockBufferReplaceDataBytes(const void* sourceBytes, const CMBlockBufferRef& destinationBuffer,
                                       size_t offsetIntoDestination, size_t dataLength);
/// Copies dataLength bytes from offsetToData of the data into `destination`;
/// kCMBlockBufferBadOffsetParameterErr when the range passes the data's end.
OSStatus CMBlockBufferCopyDataBytes(const CMBlockBufferRef& theSourceBuffer, size_t offsetToData, size_t dataLength,
                                    void* destination);

/// The pointer to the byte at `offset`, the contiguous length from there and
/// the total length. Any out-argument may be null.
OSStatus CMBlockBufferGetDataPointer(const CMBlockBufferRef& theBuffer, size_t offset, size_t* lengthAtOffsetOut,
                                     size_t* totalLengthOut, char** dataPointerOut);

/// The length of the data in bytes; 0 for a null buffer.
size_t CMBlockBufferGetDataLength(const CMBlockBufferRef& theBuffer);
/// True for a null buffer or one with no memory block yet.
bool CMBlockBufferIsEmpty(const CMBlockBufferRef& theBuffer);
/// Always true for a valid range: the data are one block.
bool CMBlockBufferIsRangeContiguous(const CMBlockBufferRef& theBuffer, size_t offset, size_t length);

/// Opaque: used through the CMBlockBuffer functions above.
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
