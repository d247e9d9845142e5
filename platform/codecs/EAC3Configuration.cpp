#include "qxmedia/platform/codecs/EAC3Configuration.h"

#include <algorithm>
#include <bit>

namespace qx {

std::vector<uint8_t> createDec3Payload(const EAC3Configuration& configuration)
{
    BitWriter writer;
    writer.write(13, configuration.data_rate);
    writer.write(3, configuration.num_ind_sub);
    for (unsigned i = 0; i <= configuration.num_ind_sub && i < 8; ++i) {
        const auto& substream = configuration.substreams[i];
        writer.write(2, substream.fscod);
        writer.write(5, substream.bsid);
        writer.write(1, 0); // reserved
        writer.write(1, substream.asvc);
        writer.write(3, substream.bsmod);
        writer.write(3, substream.acmod);
        writer.write(1, substream.lfeon);
        writer.write(3, 0); // reserved
        writer.write(4, substream.num_dep_sub);
        if (substream.num_dep_sub > 0)
            writer.write(9, substream.chan_loc);
        else
            writer.write(1, 0); // reserved
    }
    if (configuration.flag_ec3_extension_type_a) {
        writer.write(7, 0);
        writer.write(1, 1);
        writer.write(8, configuration.complexity_index_type_a);
    }
    return writer.take();
}

int EAC3ConfigurationBuilder::addPacket(const uint8_t* data, size_t size)
{
    int frames = 0;
    size_t offset = 0;
    while (!complete_ && offset < size) {
        AC3BitstreamInfo info;
        if (parseAC3BitstreamInfo(data + offset, size - offset, info) < 0) break;
        if (info.header.frame_size == 0 || info.header.frame_size > size - offset) break;
        if (!addFrame(info)) break;
        ++frames;
        offset += info.header.frame_size;
    }
    return frames;
}

bool EAC3ConfigurationBuilder::addFrame(const AC3BitstreamInfo& info)
{
    const AC3HeaderInfo& header = info.header;
    // An AC-3 frame in an E-AC-3 stream is the core of program 0.
    const bool dependent = header.bitstream_id > 10 && header.frame_type == EAC3FrameTypeDependent;
    const unsigned id = header.bitstream_id > 10 ? header.substreamid : 0;

    if (!dependent) {
        if (id == 0) {
            if (seen_[0]) {
                complete_ = true;
                return false;
            }
        } else if (!seen_[0] || id > configuration_.num_ind_sub + 1u) {
            // Independent substreams are numbered upward from 0 without gaps.
            return true;
        }
        seen_[id] = true;
        currentIndependent_ = int(id);
        configuration_.num_ind_sub = uint8_t(std::max<unsigned>(configuration_.num_ind_sub, id));
        auto& substream = configuration_.substreams[id];
        substream.fscod = header.sr_code;
        substream.bsid = header.bitstream_id;
        substream.bsmod = header.bitstream_mode;
        substream.acmod = header.channel_mode;
        substream.lfeon = header.lfe_on;
        if (id == 0) {
            layout_ |= header.channel_layout;
            sampleRate_ = header.sample_rate;
        }
    } else {
        if (currentIndependent_ < 0) return true;
        auto& substream = configuration_.substreams[currentIndependent_];
        dependentMask_[currentIndependent_] |= uint8_t(1u << id);
        substream.num_dep_sub = uint8_t(std::popcount(dependentMask_[currentIndependent_]));
        if (info.chanmape) {
            substream.chan_loc |= eac3ChanLocFromChanmap(info.chanmap);
            if (currentIndependent_ == 0) layout_ |= eac3ChannelLayoutFromChanmap(info.chanmap);
        } else if (currentIndependent_ == 0) {
            layout_ |= header.channel_layout;
        }
    }
    accessUnitBitRate_ += header.bit_rate;
    if (info.flag_ec3_extension_type_a) {
        configuration_.flag_ec3_extension_type_a = true;
        configuration_.complexity_index_type_a =
            std::max(configuration_.complexity_index_type_a, info.complexity_index_type_a);
    }
    // The data rate of the stream is that of all substreams of one access unit.
    configuration_.data_rate = uint16_t(
        std::max<uint64_t>(configuration_.data_rate, std::min<uint64_t>(accessUnitBitRate_ / 1000, 8191)));
    return true;
}

unsigned EAC3ConfigurationBuilder::channels() const
{
    return unsigned(std::popcount(layout_));
}

} // namespace qx
