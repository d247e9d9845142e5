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
        EXPECT_TRUE(file->setTrackIntegerProperty(sub, "mdia.minf.stbl.stsd.tx3g.fontColorGreen", 200));
        EXPECT_FALSE(file->setTrackIntegerProperty(video, "mdia.minf.stbl.stsd.tx3g.fontSize", 1)) << "not a tx3g track";
        EXPECT_FALSE(file->setTrackIntegerProperty(sub, "tkhd.nonsense", 1));
        EXPECT_TRUE(file->setTrackIntegerProperty(audio, "mdia.minf.stbl.stsd.*.channels", 6));
        EXPECT_TRUE(file->setTrackFloatProperty(audio, "tkhd.volume", 0.75));

        EXPECT_TRUE(file->setTrackIntegerProperty(video, "mdia.minf.stbl.stsd.*[0].avcC.AVCLevelIndication", 40));
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
        EXPECT_TRUE(file->setTrackIntegerProperty(audio, "tref.folw.entries.trackId", video));
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
    EXPECT_EQ(tx3g->fontColor.green, 200);
    EXPECT_EQ(tx3g->findChild<FtabBox>()->fonts.size(), 1u);
    EXPECT_EQ(file->track(sub)->alternateGroup(), 3);
    EXPECT_EQ(dynamic_cast<AudioSampleEntry*>(file->track(audio)->sampleEntry())->channelCount, 6);
    EXPECT_EQ(file->track(audio)->volume(), 0.75);
    EXPECT_EQ(file->track(video)->sampleEntryChild<AvcCBox>()->level, 40);
    EXPECT_EQ(file->track(video)->sampleEntryChild<PaspBox>()->hSpacing, 16u);
    auto colr = file->track(video)->sampleEntryChild<ColrBox>();
    EXPECT_EQ(colr->colorParameterType, fourcc("nclx"));
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
    std::string probe = mp4test::output("ffprobe -v error -show_entries stream=codec_tag_string -of csv=p=0 '" +
                                        path.string() + "'");
    std::erase(probe, ',');
    std::erase(probe, '\n');
    EXPECT_EQ(probe, "avc1mp4atx3g");
}

TEST(MP4Properties, TrackMetadataOfAnotherMuxersFile)
{
    // ffmpeg's ipod muxer writes a chapter text track referenced by tref/chap.
    auto chapters = qxtest::makeTempDir("mp4-meta") / "c.txt";
    qxtest::writeFile(chapters, ";FFMETADATA1\n[CHAPTER]\nTIMEBASE=1/1000\nSTART=0\nEND=1000\ntitle=A\n"
                                "[CHAPTER]\nTIMEBASE=1/1000\nSTART=1000\nEND=2000\ntitle=B\n");
    auto path = qxtest::generate("mp4-model-meta.m4v",
                                "-f lavfi -i testsrc2=size=160x120:rate=25:duration=2 -f lavfi -i sine=duration=2 "
                                "-i " + chapters.string() +
                                " -map 0 -map 1 -map_chapters 2 -c:v libx264 -preset veryfast -c:a aac -f ipod");
    ASSERT_FALSE(path.empty());
    auto file = MP4File::read(path);
    ASSERT_TRUE(file);
    auto meta = file->copyTrackMetadata();
    ASSERT_EQ(meta.size(), 3u);
    uint32_t text = file->findTrackId(0, kTextTrack);
    ASSERT_NE(text, 0u);
    EXPECT_EQ(meta[1].dictionary()["chap"], std::to_string(text));
    EXPECT_EQ(meta[2].dictionary()["volume"], "256");
    EXPECT_EQ(meta[1].dictionary().count("codec_tag"), 0u);

    // A protected entry is reported by its type.
    auto bytes = qxtest::readFile(path);
    Box* entry = file->track(2)->sampleEntry();
    ASSERT_NE(entry, nullptr);
    bytes.replace(entry->fileOffset + 4, 4, "drms");
    auto patched = qxtest::makeTempDir("mp4-meta-drm") / "drm.m4a";
    qxtest::writeFile(patched, bytes);
    auto drm = MP4File::read(patched);
    ASSERT_TRUE(drm);
    EXPECT_EQ(drm->copyTrackMetadata()[2].dictionary()["codec_tag"], "drms");
}
