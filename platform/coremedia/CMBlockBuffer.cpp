#include "qxmedia/platform/coremedia/CMBlockBuffer.h"

#include <cstdlib>
#include <cstring>
#include <new>

namespace qx {

namespace {
// Only its address matters.
const char allocatorNullTag = 0;
} // namespace

const CFAllocatorRef kCFAllocatorNull = &allocatorNullTag;

CMBlockBuffer::~CMBlockBuffer() { releaseMemory(); }

void CMBlockBuffer::releaseMemory()
{
    if (!memory_) return;
    if (source_ && source_->FreeBlock) {
        source_->FreeBlock(source_->refCon, memory_, blockLength_);
    } else if (!source_ && blockAllocator_ != kCFAllocatorNull) {
        std::free(memory_);
    }
    memory_ = nullptr;
}

namespace {

bool validRange(size_t offset, size_t length, size_t total) { return offset <= total && length <= total - offset; }

} // namespace

OSStatus CMBlockBufferCreateEmpty(CFAllocatorRef, uint32_t, CMBlockBufferFlags, CMBlockBufferRef* blockBufferOut)
{
    if (!blockBufferOut) return kCMBlockBufferBadPointerParameterErr;
    *blockBufferOut = std::make_shared<CMBlockBuffer>();
    return kCMBlockBufferNoErr;
}

OSStatus CMBlockBufferCreateWithMemoryBlock(CFAllocatorRef structureAllocator, void* memoryBlock, size_t blockLength,
                                            CFAllocatorRef blockAllocator,
                                            const CMBlockBufferCustomBlockSource* customBlockSource,
                                            size_t offsetToData, size_t dataLength, CMBlockBufferFlags flags,
                                            CMBlockBufferRef* blockBufferOut)
{
    if (!blockBufferOut) return kCMBlockBufferBadPointerParameterErr;
    blockBufferOut->reset();
    CMBlockBufferRef buffer;
    OSStatus status = CMBlockBufferCreateEmpty(structureAllocator, 0, flags, &buffer);
    if (status != kCMBlockBufferNoErr) return status;
    status = CMBlockBufferAppendMemoryBlock(buffer, memoryBlock, blockLength, blockAllocator, customBlockSource,
                                            offsetToData, dataLength, flags);
    if (status != kCMBlockBufferNoErr) return status;
    *blockBufferOut = std::move(buffer);
    return kCMBlockBufferNoErr;
}

OSStatus CMBlockBufferAppendMemoryBlock(const CMBlockBufferRef& buffer, void* memoryBlock, size_t blockLength,
                                        CFAllocatorRef blockAllocator,
                                        const CMBlockBufferCustomBlockSource* customBlockSource,
                                        size_t offsetToData, size_t dataLength, CMBlockBufferFlags flags)
{
    if (!buffer) return kCMBlockBufferBadPointerParameterErr;
    // An empty block is refused, as is a range outside the block.
    if (blockLength == 0 && !(flags & kCMBlockBufferPermitEmptyReferenceFlag)) {
        return kCMBlockBufferBadLengthParameterErr;
    }
    if (!validRange(offsetToData, dataLength, blockLength)) return kCMBlockBufferBadOffsetParameterErr;
    if (customBlockSource && !memoryBlock && !customBlockSource->AllocateBlock) {
        return kCMBlockBufferBadCustomBlockSourceErr;
    }

    if (buffer->hasBlock()) {
        // Join the present data and the new block into one owned block.
        OSStatus status = CMBlockBufferAssureBlockMemory(buffer);
        if (status != kCMBlockBufferNoErr) return status;
        CMBlockBufferRef added;
        status = CMBlockBufferCreateWithMemoryBlock(nullptr, memoryBlock, blockLength, blockAllocator,
                                                    customBlockSource, offsetToData, dataLength,
                                                    flags | kCMBlockBufferAssureMemoryNowFlag, &added);
        if (status != kCMBlockBufferNoErr) return status;
        const size_t total = buffer->dataLength_ + dataLength;
        auto* joined = static_cast<uint8_t*>(std::malloc(total ? total : 1));
        if (!joined) return kCMBlockBufferBlockAllocationFailedErr;
        if (buffer->dataLength_) std::memcpy(joined, buffer->memory_ + buffer->offset_, buffer->dataLength_);
        if (dataLength) std::memcpy(joined + buffer->dataLength_, added->memory_ + added->offset_, dataLength);
        buffer->releaseMemory();
        buffer->source_.reset();
        buffer->blockAllocator_ = kCFAllocatorDefault;
        buffer->memory_ = joined;
        buffer->blockLength_ = total;
        buffer->offset_ = 0;
        buffer->dataLength_ = total;
        return kCMBlockBufferNoErr;
    }

    buffer->memory_ = static_cast<uint8_t*>(memoryBlock);
    buffer->blockLength_ = blockLength;
    buffer->offset_ = offsetToData;
    buffer->dataLength_ = dataLength;
    buffer->blockAllocator_ = blockAllocator;
    if (customBlockSource) buffer->source_ = *customBlockSource;
    if (flags & kCMBlockBufferAssureMemoryNowFlag) {
        const OSStatus status = CMBlockBufferAssureBlockMemory(buffer);
        if (status != kCMBlockBufferNoErr) {
            buffer->blockLength_ = buffer->offset_ = buffer->dataLength_ = 0;
            buffer->source_.reset();
            return status;
        }
    }
    return kCMBlockBufferNoErr;
}

OSStatus CMBlockBufferAssureBlockMemory(const CMBlockBufferRef& buffer)
{
    if (!buffer) return kCMBlockBufferBadPointerParameterErr;
    if (buffer->memory_ || !buffer->hasBlock()) return kCMBlockBufferNoErr;
    void* memory = nullptr;
    if (buffer->source_) {
        memory = buffer->source_->AllocateBlock(buffer->source_->refCon, buffer->blockLength_);
    } else if (buffer->blockAllocator_ != kCFAllocatorNull) {
        memory = std::malloc(buffer->blockLength_ ? buffer->blockLength_ : 1);
    }
    if (!memory) return kCMBlockBufferBlockAllocationFailedErr;
    buffer->memory_ = static_cast<uint8_t*>(memory);
    return kCMBlockBufferNoErr;
}

OSStatus CMBlockBufferReplaceDataBytes(const void* sourceBytes, const CMBlockBufferRef& destinationBuffer,
                                       size_t offsetIntoDestination, size_t dataLength)
{
    if (!destinationBuffer || (!sourceBytes && dataLength)) return kCMBlockBufferBadPointerParameterErr;
    if (!validRange(offsetIntoDestination, dataLength, destinationBuffer->dataLength_)) {
        return kCMBlockBufferBadOffsetParameterErr;
    }
    if (dataLength == 0) return kCMBlockBufferNoErr;
    if (!destinationBuffer->memory_) return kCMBlockBufferUnallocatedBlockErr;
    std::memmove(destinationBuffer->memory_ + destinationBuffer->offset_ + offsetIntoDestination, sourceBytes,
                 dataLength);
    return kCMBlockBufferNoErr;
}

OSStatus CMBlockBufferCopyDataBytes(const CMBlockBufferRef& theSourceBuffer, size_t offsetToData, size_t dataLength,
                                    void* destination)
{
    if (!theSourceBuffer || (!destination && dataLength)) return kCMBlockBufferBadPointerParameterErr;
    if (!validRange(offsetToData, dataLength, theSourceBuffer->dataLength_)) {
        return kCMBlockBufferBadOffsetParameterErr;
    }
    if (dataLength == 0) return kCMBlockBufferNoErr;
    if (!theSourceBuffer->memory_) return kCMBlockBufferUnallocatedBlockErr;
    std::memcpy(destination, theSourceBuffer->memory_ + theSourceBuffer->offset_ + offsetToData, dataLength);
    return kCMBlockBufferNoErr;
}

OSStatus CMBlockBufferGetDataPointer(const CMBlockBufferRef& theBuffer, size_t offset, size_t* lengthAtOffsetOut,
                                     size_t* totalLengthOut, char** dataPointerOut)
{
    if (lengthAtOffsetOut) *lengthAtOffsetOut = 0;
    if (totalLengthOut) *totalLengthOut = 0;
    if (dataPointerOut) *dataPointerOut = nullptr;
    if (!theBuffer) return kCMBlockBufferBadPointerParameterErr;
    if (!theBuffer->hasBlock()) return kCMBlockBufferEmptyBBufErr;
    if (offset >= theBuffer->dataLength_ && theBuffer->dataLength_ > 0) return kCMBlockBufferBadOffsetParameterErr;
    if (!theBuffer->memory_) return kCMBlockBufferUnallocatedBlockErr;
    if (lengthAtOffsetOut) *lengthAtOffsetOut = theBuffer->dataLength_ - offset;
    if (totalLengthOut) *totalLengthOut = theBuffer->dataLength_;
    if (dataPointerOut) *dataPointerOut = reinterpret_cast<char*>(theBuffer->memory_ + theBuffer->offset_ + offset);
    return kCMBlockBufferNoErr;
}

size_t CMBlockBufferGetDataLength(const CMBlockBufferRef& theBuffer) { return theBuffer ? theBuffer->dataLength_ : 0; }

bool CMBlockBufferIsEmpty(const CMBlockBufferRef& theBuffer) { return !theBuffer || !theBuffer->hasBlock(); }

bool CMBlockBufferIsRangeContiguous(const CMBlockBufferRef& theBuffer, size_t offset, size_t length)
{
    const size_t total = CMBlockBufferGetDataLength(theBuffer);
    if (length == 0) length = total > offset ? total - offset : 0;
    return theBuffer && offset < total && validRange(offset, length, total);
}

} // namespace qx
