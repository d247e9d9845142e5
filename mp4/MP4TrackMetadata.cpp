#include "qxmedia/mp4/MP4File.h"

namespace qx::mp4 {

std::map<std::string, std::string> MP4TrackMetadata::dictionary() const
{
    std::map<std::string, std::string> out;
    for (const auto& [type, ids] : references) {
        std::string list;
        for (uint32_t id : ids) list += (list.empty() ? "" : ",") + std::to_string(id);
        out[type] = list;
    }
    out["flags"] = std::to_string(flags);
    out["layer"] = std::to_string(layer);
    out["alternate_group"] = std::to_string(alternateGroup);
    out["volume"] = std::to_string(volume);
    if (!protectedType.empty()) out["codec_tag"] = protectedType;
    return out;
}

std::map<uint32_t, MP4TrackMetadata> MP4File::copyTrackMetadata() const
{
    std::map<uint32_t, MP4TrackMetadata> all;
    for (MP4Track* track : tracks()) {
        MP4TrackMetadata meta;
        meta.trackId = track->id();
        for (const auto& [type, ids] : track->allReferences()) meta.references[fourccString(type)] = ids;
        TkhdBox* tkhd = track->tkhd();
        meta.flags = tkhd->flags;
        meta.layer = tkhd->layer;
        meta.alternateGroup = tkhd->alternateGroup;
        meta.volume = tkhd->volume;
        FourCC entry = track->mediaDataName();
        if (entry == fourcc("drmi") || entry == fourcc("drms") || entry == fourcc("drmt"))
            meta.protectedType = fourccString(entry);
        all[meta.trackId] = std::move(meta);
    }
    return all;
}

} // namespace qx::mp4
