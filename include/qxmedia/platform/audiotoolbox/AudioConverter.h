#pragma once
// An AAC AudioConverter made of libavcodec's AAC encoder, with the
// operations and properties an encoder input uses: a pull callback that is
// asked for PCM (32-bit float, one buffer a channel), a constrained
// variable bit rate chosen from a list of applicable rates, the largest
// packet, and the decoder configuration as an ESDS magic cookie.
//
// The encoder opens at the first call that needs it (packet size, cookie,
// encoding) and opens anew when the bit rate changes after that.

#include <array>
#include <cstdint>

#include "qxmedia/platform/coremedia/CMBase.h"

namespace qx {

using AudioFormatID = uint32_t;
using AudioConverterPropertyID = uint32_t;

struct AudioStreamBasicDescription {
    double mSampleRate = 0;
    AudioFormatID mFormatID = 0;
    uint32_t mFormatFlags = 0;
    uint32_t mBytesPerPacket = 0;
    uint32_t mFramesPerPacket = 0;
    uint32_t mBytesPerFrame = 0;
    uint32_t mChannelsPerFrame = 0;
    uint32_t mBitsPerChannel = 0;
    uint32_t mReserved = 0;
};

struct AudioBuffer {
    uint32_t mNumberChannels = 0;
    uint32_t mDataByteSize = 0;
    void* mData = nullptr;
};

// Room for eight buffers: one a channel of non-interleaved PCM up to 7.1.
struct AudioBufferList {
    uint32_t mNumberBuffers = 0;
    std::array<AudioBuffer, 8> mBuffers {};
};

struct AudioStreamPacketDescription {
    int64_t mStartOffset = 0;
    uint32_t mVariableFramesInPacket = 0;
    uint32_t mDataByteSize = 0;
};

struct AudioValueRange {
    double mMinimum = 0;
    double mMaximum = 0;
};

constexpr AudioFormatID kAudioFormatLinearPCM = 0x6C70636D;  // 'lpcm'
constexpr AudioFormatID kAudioFormatMPEG4AAC = 0x61616320;   // 'aac '
constexpr uint32_t kAudioFormatFlagIsFloat = 1u << 0;
constexpr uint32_t kAudioFormatFlagIsNonInterleaved = 1u << 5;

constexpr AudioConverterPropertyID kAudioConverterCodecQuality = 0x63647175;                    // 'cdqu'
constexpr AudioConverterPropertyID kAudioCodecPropertyBitRateControlMode = 0x61636266;          // 'acbf'
constexpr AudioConverterPropertyID kAudioConverterApplicableEncodeBitRates = 0x61656272;        // 'aebr'
constexpr AudioConverterPropertyID kAudioConverterEncodeBitRate = 0x62726174;                   // 'brat'
constexpr AudioConverterPropertyID kAudioConverterCurrentInputStreamDescription = 0x61636964;   // 'acid'
constexpr AudioConverterPropertyID kAudioConverterCurrentOutputStreamDescription = 0x61636F64;  // 'acod'
constexpr AudioConverterPropertyID kAudioConverterPropertyMaximumOutputPacketSize = 0x786F7073; // 'xops'
constexpr AudioConverterPropertyID kAudioConverterCompressionMagicCookie = 0x636D6763;          // 'cmgc'

constexpr uint32_t kAudioCodecBitRateControlMode_Constant = 0;
constexpr uint32_t kAudioCodecBitRateControlMode_LongTermAverage = 1;
constexpr uint32_t kAudioCodecBitRateControlMode_VariableConstrained = 2;

constexpr OSStatus kAudio_ParamError = -50;
constexpr OSStatus kAudioConverterErr_FormatNotSupported = 0x666D743F;   // 'fmt?'
constexpr OSStatus kAudioConverterErr_PropertyNotSupported = 0x70726F70; // 'prop'
constexpr OSStatus kAudioConverterErr_BadPropertySizeError = 0x2173697A; // '!siz'
constexpr OSStatus kAudioConverterErr_UnspecifiedError = 0x77686174;     // 'what'

struct OpaqueAudioConverter;
using AudioConverterRef = OpaqueAudioConverter*;

// Asked for `*ioNumberDataPackets` frames of PCM; points the buffers of
// `ioData` at them and answers how many it gave. A non-zero result ends
// the fill.
using AudioConverterComplexInputDataProc = OSStatus (*)(AudioConverterRef converter, uint32_t* ioNumberDataPackets,
                                                        AudioBufferList* ioData,
                                                        AudioStreamPacketDescription** outDataPacketDescription,
                                                        void* inUserData);

// PCM (float, non-interleaved) to AAC only.
OSStatus AudioConverterNew(const AudioStreamBasicDescription* inSourceFormat,
                           const AudioStreamBasicDescription* inDestinationFormat, AudioConverterRef* outAudioConverter);
OSStatus AudioConverterDispose(AudioConverterRef converter);
OSStatus AudioConverterGetPropertyInfo(AudioConverterRef converter, AudioConverterPropertyID property,
                                       uint32_t* outSize, bool* outWritable);
OSStatus AudioConverterGetProperty(AudioConverterRef converter, AudioConverterPropertyID property, uint32_t* ioSize,
                                   void* outData);
OSStatus AudioConverterSetProperty(AudioConverterRef converter, AudioConverterPropertyID property, uint32_t size,
                                   const void* data);
// Encodes until `*ioOutputDataPacketSize` packets (at most one here) are in
// the first buffer of `outOutputData`, pulling PCM through `inputProc`.
// A callback that fails ends the call with its status and no packet; the
// next call goes on where this one stopped. One that answers no frames
// ends the input for good: what the encoder still holds comes out one
// packet a call, then calls give no packet.
OSStatus AudioConverterFillComplexBuffer(AudioConverterRef converter, AudioConverterComplexInputDataProc inputProc,
                                         void* inInputDataProcUserData, uint32_t* ioOutputDataPacketSize,
                                         AudioBufferList* outOutputData,
                                         AudioStreamPacketDescription* outPacketDescription);

} // namespace qx
