#pragma once
// Typed boxes for tags and Nero chapters: moov/udta/meta/ilst and
// moov/udta/chpl. The ilst keeps its items (with the bytes they were read
// from); chpl keeps its chapter list.

#include "qxmedia/mp4/MP4Box.h"
#include "qxmedia/mp4/tags/MP4Chapters.h"
#include "qxmedia/mp4/tags/MP4Itmf.h"

namespace qx::mp4 {

class IlstBox : public Box {
public:
    static constexpr FourCC kType = fourcc("ilst");
    IlstBox() : Box(kType) {}
    bool parseFields(ByteReader& in) override;
    void writeFields(ByteWriter& out) const override;
    std::string describe() const override;

    MP4ItmfItemList items;
};

class ChplBox : public Box {
public:
    static constexpr FourCC kType = fourcc("chpl");
    ChplBox() : Box(kType) {}
    bool parseFields(ByteReader& in) override;
    void writeFields(ByteWriter& out) const override;
    std::string describe() const override;

    std::vector<MP4NeroChapter> chapters;
};

// The ilst of moov/udta/meta, or null. A box of that place that was parsed
// by another class (or not typed at all) is re-read as an IlstBox in place.
IlstBox* MP4FindIlst(Box& moov);
// The same, creating udta, meta (full box with an "mdir" handler) and ilst
// where they are missing.
IlstBox& MP4MakeIlst(Box& moov);
// moov/udta/chpl, or null; re-read in place like the ilst.
ChplBox* MP4FindChpl(Box& moov);

} // namespace qx::mp4
