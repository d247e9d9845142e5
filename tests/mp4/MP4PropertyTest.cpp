// Track settings by property name and by typed operation, on a new file
// read back.

#include "MP4TestSupport.h"

#include "qxmedia/mp4/MP4File.h"

#include <gtest/gtest.h>

using namespace qx::mp4;

TEST(MP4Properties, NamedPropertiesReachTheirFieldsAndSurviveAWrite)
{
    auto path = qxtest::makeTempDir("mp4-properties") / "p.mp4";
    uint32_t video = 0, sub = 0, audio = 0;
    {
        auto file = MP4File::create(path);
        ASSERT_TRUE(file);
        video = file->addH264VideoTrack(25, 1, 640, 360, 100, 0, 31);
        audio = file->addAudioTrack(48000, 1024);
        sub = file->addSubtitleTrack(1000, 640, 80);
        ASSERT_TRUE(video && audio && sub);

        EXPECT_TRUE(file->setTrackIntegerProperty(sub, "tkhd.flags", 3));
        EXPECT_TRUE(file->setTrackIntegerProperty(sub, "tkhd.layer", uint64_t(-1)));
        EXPECT_TRUE(file->setTrackIntegerProperty(sub, "tkhd.alternate_group", 3));
        EXPECT_TRUE(file->setTrackIntegerProperty(sub, "mdia.minf.stbl.stsd.tx3g.fontSize", 36));
        EXPECT_TRUE(file->setTrackIntegerProperty(sub, "mdia.minf.stbl.stsd.tx3g.verticalJustification", uint64_t(-1)));
        EXPECT_TRUE(file->setTrackIntegerProperty(sub, "mdia.minf.stbl.stsd.tx3g.bgColorAlpha", 255));
        EXPECT_TRUE(file->setTrackIntegerProperty(sub, "mdia.minf.stbl.stsd.tx3g.fontColorGreen", 200));
        EXPECT_TRUE(file->setTrackIntegerProperty(sub, "mdia.minf.stbl.stsd.tx3g.defTextBoxBottom", 80));
        EXPECT_FALSE(file->setTrackIntegerProperty(video, "mdia.minf.stbl.stsd.tx3g.fontSize", 1)) << "not a tx3g track";
        EXPECT_FALSE(file->setTrackIntegerProperty(sub, "tkhd.nonsense", 1));
        EXPECT_TRUE(file->setTrackIntegerProperty(audio, "mdia.minf.stbl.stsd.*.channels", 6));
        EXPECT_TRUE(file->setTrackFloatProperty(audio, "tkhd.volume", 0.75));

        EXPECT_TRUE(file->setTrackIntegerProperty(video, "mdia.minf.stbl.stsd.*[0].avcC.AVCLevelIndication", 40));
        EXPECT_FALSE(file->haveTrackAtom(video, "mdia.minf.stbl.stsd.*.pasp"));
        EXPECT_TRUE(file->addPixelAspectRatio(video, 4, 3));
        EXPECT_TRUE(file->haveTrackAtom(video, "mdia.minf.stbl.stsd.*.pasp"));
        EXPECT_TRUE(file->setTrackIntegerProperty(video, "mdia.minf.stbl.stsd.*.pasp.hSpacing", 16));
        EXPECT_TRUE(file->addColr(video, 9, 16, 9, true));
        EXPECT_TRUE(file->setTrackFloatProperty(video, "tkhd.width", 853.33));
        std::vector<uint8_t> matrix;
        ASSERT_TRUE(file->getTrackBytesProperty(video, "tkhd.matrix", matrix));
        ASSERT_EQ(matrix.size(), 36u);
        writeBE32(matrix.data(), 0);          // a = 0
        writeBE32(matrix.data() + 4, 0x10000); // b = 1: a quarter turn
        EXPECT_TRUE(file->setTrackBytesProperty(video, "tkhd.matrix", matrix.data(), matrix.size()));

        // References: set the first entry, or add the list.
        EXPECT_FALSE(file->haveTrackAtom(audio, "tref.folw"));
        EXPECT_TRUE(file->setTrackIntegerProperty(audio, "tref.folw.entries.trackId", sub));
        EXPECT_TRUE(file->haveTrackAtom(audio, "tref.folw"));
        EXPECT_TRUE(file->setTrackIntegerProperty(audio, "tref.folw.entries.trackId", video));
        EXPECT_EQ(file->track(audio)->references(fourcc("folw")), std::vector<uint32_t> {video});
        file->track(audio)->addReference(fourcc("forc"), sub);
        EXPECT_TRUE(file->track(audio)->removeReferences(fourcc("forc")));
        EXPECT_FALSE(file->track(audio)->removeReferences(fourcc("forc")));

        // Edits: an empty edit, then the media; a long one needs 64 bits.
        file->track(video)->addEdit(-1, 500);
        file->track(video)->addEdit(0, 5'000'000'000ull);
        ASSERT_TRUE(file->close());
    }
    auto file = MP4File::read(path);
    ASSERT_TRUE(file);
    uint64_t value = 0;
    ASSERT_TRUE(file->getTrackIntegerProperty(sub, "tkhd.Layer", value));
    EXPECT_EQ(int16_t(value), -1);
    ASSERT_TRUE(file->getTrackIntegerProperty(sub, "mdia.minf.stbl.stsd.tx3g.fontSize", value));
    EXPECT_EQ(value, 36u);
    ASSERT_TRUE(file->getTrackIntegerProperty(sub, "mdia.minf.stbl.stsd.tx3g.verticalJustification", value));
    EXPECT_EQ(int8_t(value), -1);
    auto tx3g = dynamic_cast<Tx3gSampleEntry*>(file->track(sub)->sampleEntry());
    ASSERT_NE(tx3g, nullptr);
    EXPECT_EQ(tx3g->backgroundColor.alpha, 255);
    EXPECT_EQ(tx3g->fontColor.green, 200);
    EXPECT_EQ(tx3g->defTextBoxBottom, 80);
    EXPECT_EQ(tx3g->findChild<FtabBox>()->fonts.size(), 1u);
    EXPECT_EQ(file->track(sub)->alternateGroup(), 3);
    EXPECT_EQ(file->track(audio)->sampleEntry()->findParent<StsdBox>(), file->track(audio)->stsd());
    EXPECT_EQ(dynamic_cast<AudioSampleEntry*>(file->track(audio)->sampleEntry())->channelCount, 6);
    EXPECT_EQ(file->track(audio)->volume(), 0.75);
    EXPECT_EQ(file->track(video)->sampleEntryChild<AvcCBox>()->level, 40);
    EXPECT_EQ(file->track(video)->sampleEntryChild<PaspBox>()->hSpacing, 16u);
    auto colr = file->track(video)->sampleEntryChild<ColrBox>();
    EXPECT_EQ(colr->colorParameterType, fourcc("nclx"));
    EXPECT_EQ(colr->transferFunctionIndex, 16);
    EXPECT_TRUE(colr->fullRangeFlag);
    EXPECT_NEAR(file->track(video)->width(), 853.33, 0.001);
    EXPECT_EQ(file->track(video)->matrix()[1], 0x10000);
    EXPECT_EQ(file->track(audio)->references(fourcc("folw")), std::vector<uint32_t> {video});
    auto edits = file->track(video)->edits();
    ASSERT_EQ(edits.size(), 2u);
    EXPECT_EQ(edits[0].mediaTime, -1);
    EXPECT_EQ(edits[1].segmentDuration, 5'000'000'000ull);
    EXPECT_EQ(file->track(video)->findBox("edts.elst")->toBytes()[8], 1) << "64-bit edit list";
    EXPECT_EQ(file->track(video)->tkhd()->duration, 5'000'000'500ull) << "the edits make the track duration";
    EXPECT_EQ(file->mvhd()->duration, 5'000'000'500ull);
    EXPECT_EQ(file->nextTrackId(), 4u);
    std::string probe = mp4test::output("ffprobe -v error -show_entries stream=codec_tag_string -of csv=p=0 '" +
                                        path.string() + "'");
    std::erase(probe, ',');
    std::erase(probe, '\n');
    EXPECT_EQ(probe, "avc1mp4atx3g");
}
