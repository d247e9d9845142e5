// The layer's own typed boxes. Registered explicitly (not by static
// objects) so that a static link keeps them all.

#include "qxmedia/mp4/MP4Box.h"
#include "qxmedia/mp4/MP4MovieBoxes.h"
#include "qxmedia/mp4/MP4SampleEntries.h"
#include "qxmedia/mp4/MP4SampleTables.h"

namespace qx::mp4 {

void registerBuiltinBoxes()
{
    for (const char* type : {"moov", "trak", "mdia", "minf", "stbl", "dinf", "edts", "udta", "tref", "mvex", "gmhd"})
        BoxRegistry::add(fourcc(std::string_view(type)), &createBox<ContainerBox>);
    BoxRegistry::add(0, &createBox<TrackReferenceTypeBox>, fourcc("tref"));

    BoxRegistry::add(FtypBox::kType, &createBox<FtypBox>);
    BoxRegistry::add(MvhdBox::kType, &createBox<MvhdBox>);
    BoxRegistry::add(IodsBox::kType, &createBox<IodsBox>);
    BoxRegistry::add(TkhdBox::kType, &createBox<TkhdBox>);
    BoxRegistry::add(MdhdBox::kType, &createBox<MdhdBox>);
    BoxRegistry::add(HdlrBox::kType, &createBox<HdlrBox>);
    BoxRegistry::add(ElstBox::kType, &createBox<ElstBox>);
    BoxRegistry::add(VmhdBox::kType, &createBox<VmhdBox>);
    BoxRegistry::add(SmhdBox::kType, &createBox<SmhdBox>);
    BoxRegistry::add(MetaBox::kType, &createBox<MetaBox>);
    BoxRegistry::add(TrackNameBox::kType, &createBox<TrackNameBox>, kUdta);

    BoxRegistry::add(StsdBox::kType, &createBox<StsdBox>);
    for (const char* type : {"avc1", "avc3", "hvc1", "hev1", "jpeg", "mp4v", "encv"})
        BoxRegistry::add(fourcc(std::string_view(type)), &createBox<VisualSampleEntry>, kStsd);
    for (const char* type : {"mp4a", "ac-3", "ec-3", "enca"})
        BoxRegistry::add(fourcc(std::string_view(type)), &createBox<AudioSampleEntry>, kStsd);
    BoxRegistry::add(Tx3gSampleEntry::kType, &createBox<Tx3gSampleEntry>, kStsd);
    BoxRegistry::add(TextSampleEntry::kType, &createBox<TextSampleEntry>, kStsd);
    BoxRegistry::add(FtabBox::kType, &createBox<FtabBox>);
    BoxRegistry::add(AvcCBox::kType, &createBox<AvcCBox>);
    BoxRegistry::add(HvcCBox::kType, &createBox<HvcCBox>);
    BoxRegistry::add(EsdsBox::kType, &createBox<EsdsBox>);
    BoxRegistry::add(Dac3Box::kType, &createBox<Dac3Box>);
    BoxRegistry::add(Dec3Box::kType, &createBox<Dec3Box>);
    BoxRegistry::add(ColrBox::kType, &createBox<ColrBox>);
    BoxRegistry::add(PaspBox::kType, &createBox<PaspBox>);
    BoxRegistry::add(BtrtBox::kType, &createBox<BtrtBox>);

    BoxRegistry::add(SttsBox::kType, &createBox<SttsBox>);
    BoxRegistry::add(CttsBox::kType, &createBox<CttsBox>);
    BoxRegistry::add(StssBox::kType, &createBox<StssBox>);
    BoxRegistry::add(SdtpBox::kType, &createBox<SdtpBox>);
    BoxRegistry::add(StscBox::kType, &createBox<StscBox>);
    BoxRegistry::add(StszBox::kType, &createBox<StszBox>);
    BoxRegistry::add(ChunkOffsetBox::kType, &createBox<ChunkOffsetBox>);
    BoxRegistry::add(ChunkOffsetBox::kType64, &createBox<ChunkOffsetBox>);
}

} // namespace qx::mp4
