// In-place updates, optimising, files beyond 4 GiB, and damaged input.

#include "MP4TestSupport.h"

#include "qxmedia/mp4/MP4File.h"

#include <gtest/gtest.h>

#include <functional>

#include <sys/stat.h>

using namespace qx::mp4;

namespace {

std::filesystem::path movie(const std::string& name, const std::string& flags)
{
    auto path = qxtest::generate(name, "-f lavfi -i testsrc2=size=320x240:rate=25:duration=2 -f lavfi -i "
                                       "sine=duration=2 -c:v libx264 -preset veryfast -c:a aac " + flags);
    EXPECT_FALSE(path.empty());
    return path;
}

std::filesystem::path copyOf(const std::filesystem::path& path, const std::string& test)
{
    auto copy = qxtest::makeTempDir(test) / path.filename();
    std::filesystem::copy_file(path, copy);
    return copy;
}

} // namespace

// The live moov is never written over: an edit goes into free space that
// takes it, else to the end, and the free space left at the end is cut off.
// So edits of a file whose moov comes first alternate between two places.
TEST(MP4Modify, EditsGoIntoFreeSpaceOrTheEndAndKeepEverySample)
{
    auto path = copyOf(movie("mp4-modify-faststart.mp4", "-movflags +faststart"), "mp4-modify-places");
    const std::string digest = mp4test::streamHash(path);
    const uint64_t size = std::filesystem::file_size(path);
    struct Step {
        const char* name;
        std::function<void(MP4File&)> change;
        bool moovFirst; // else last
        bool sameSize;  // as the file before any edit
    };
    const Step steps[] = {
        {"same size", [](MP4File& f) {
             MP4Track* audio = f.track(f.findTrackId(0, kAudioTrack));
             audio->setFlags(kTrackInMovie);
             audio->setVolume(0.5);
             audio->setLanguage("deu");
         }, false, false},
        {"same size again", [](MP4File& f) { f.track(1)->setLayer(1); }, true, true},
        {"shrunk", [](MP4File& f) { f.moov()->removeChildren(kUdta); }, false, false},
        {"a small addition", [](MP4File& f) { f.track(1)->setName("Main"); }, true, true},
        {"grown, with a box nobody knows", [](MP4File& f) {
             f.track(1)->setName(std::string(200, 'v'));
             auto unknown = std::make_unique<Box>(fourcc("XTRA"));
             unknown->trailing = {1, 2, 3, 4, 5, 6, 7};
             f.track(1)->trak().findChild(kUdta)->addChild(std::move(unknown));
         }, false, false},
    };
    for (const Step& step : steps) {
        SCOPED_TRACE(step.name);
        {
            auto file = MP4File::modify(path);
            ASSERT_TRUE(file);
            step.change(*file);
            ASSERT_TRUE(file->close());
        }
        auto file = MP4File::read(path);
        ASSERT_TRUE(file);
        EXPECT_FALSE(file->damaged());
        const auto& top = file->root().children();
        EXPECT_EQ((step.moovFirst ? top[1] : top.back())->type(), kMoov);
        EXPECT_EQ(std::filesystem::file_size(path) == size, step.sameSize);
        EXPECT_TRUE(mp4test::streamHash(path) == digest);
    }
    auto file = MP4File::read(path);
    MP4Track* audio = file->track(file->findTrackId(0, kAudioTrack));
    EXPECT_EQ(audio->flags(), uint32_t(kTrackInMovie));
    EXPECT_EQ(audio->volume(), 0.5);
    EXPECT_EQ(file->track(1)->name(), std::string(200, 'v'));
    Box* unknown = file->track(1)->findBox("udta.XTRA");
    ASSERT_NE(unknown, nullptr);
    EXPECT_EQ(unknown->trailing, (std::vector<uint8_t> {1, 2, 3, 4, 5, 6, 7}));
    EXPECT_EQ(mp4test::output("ffprobe -v error -select_streams a -show_entries stream_tags=language -of csv=p=0 '" +
                              path.string() + "'"),
              "deu\n");
}

TEST(MP4Modify, TracksAddedToAnExistingFileGetTheirOwnMdat)
{
    auto path = copyOf(movie("mp4-modify-faststart.mp4", "-movflags +faststart"), "mp4-modify-chapters");
    {
        auto file = MP4File::modify(path);
        ASSERT_TRUE(file);
        uint32_t chapters = file->addChapterTextTrack(1, 1000);
        ASSERT_NE(chapters, 0u);
        EXPECT_TRUE(file->addChapter(chapters, 1200, "One"));
        EXPECT_TRUE(file->addChapter(chapters, 800, "Two"));
        ASSERT_TRUE(file->close());
    }
    std::string chapters = mp4test::output("ffprobe -v error -show_entries chapter=end_time:chapter_tags=title -of "
                                           "csv=p=0 '" + path.string() + "'");
    EXPECT_EQ(chapters, "1.200000,One\n2.000000,Two\n");
    EXPECT_EQ(mp4test::decodeErrors(path), "");

    // Deleting the track again removes the reference to it too.
    auto file = MP4File::modify(path);
    uint32_t id = file->findTrackId(0, kTextTrack);
    ASSERT_TRUE(file->deleteTrack(id));
    EXPECT_FALSE(file->track(1)->hasReference(fourcc("chap")));
    ASSERT_TRUE(file->close());
    EXPECT_EQ(mp4test::output("ffprobe -v error -show_chapters -of csv=p=0 '" + path.string() + "'"), "");
}

TEST(MP4Optimize, MovesMoovFirstAndKeepsEverySample)
{
    auto source = movie("mp4-modify-moovlast.mp4", "");
    auto dir = qxtest::makeTempDir("mp4-optimize");
    auto out = dir / "fast.mp4";
    std::vector<double> reported;
    ASSERT_TRUE(MP4File::optimize(source, out, [&](double p) { reported.push_back(p); }));
    auto file = MP4File::read(out);
    ASSERT_TRUE(file);
    EXPECT_EQ(file->root().children()[1]->type(), kMoov);
    EXPECT_EQ(mp4test::streamHash(out), mp4test::streamHash(source));
    ASSERT_FALSE(reported.empty());
    EXPECT_EQ(reported.back(), 1.0);
    EXPECT_TRUE(std::is_sorted(reported.begin(), reported.end()));

    // Cancelled: no output is left behind.
    auto cancelled = dir / "cancelled.mp4";
    EXPECT_FALSE(MP4File::optimize(source, cancelled, {}, [] { return true; }));
    EXPECT_FALSE(std::filesystem::exists(cancelled));
    EXPECT_FALSE(MP4File::optimize(dir / "missing.mp4", dir / "x.mp4"));
}

TEST(MP4Large, DataBeyondFourGiBUsesCo64AndA64BitMdat)
{
    auto video = qxtest::readStream(movie("mp4-modify-moovlast.mp4", ""), SIZE_MAX, AVMEDIA_TYPE_VIDEO);
    ASSERT_FALSE(video.packets.empty());
    auto dir = qxtest::makeTempDir("mp4-large");
    for (bool use64 : {false, true}) {
        auto out = dir / (use64 ? "large64.mp4" : "large32.mp4");
        MP4CreateOptions options;
        options.use64BitData = use64;
        {
            auto file = MP4File::create(out, options);
            ASSERT_TRUE(file);
            AvcCBox config;
            ByteReader in(video.extradata);
            ASSERT_TRUE(config.parseFields(in));
            uint32_t id = file->addH264VideoTrack(uint32_t(video.timeBase.den), -1, 320, 240, config.profile,
                                                  config.profileCompatibility, config.level);
            file->addH264SequenceParameterSet(id, config.sps[0].data(), uint16_t(config.sps[0].size()));
            file->addH264PictureParameterSet(id, config.pps[0].data(), uint16_t(config.pps[0].size()));
            file->setTrackDurationPerChunk(id, 1); // a chunk per sample
            size_t half = video.packets.size() / 2;
            for (size_t i = 0; i < video.packets.size(); ++i) {
                if (i == half) {
                    ASSERT_TRUE(file->skipMediaData(uint64_t(4) << 30)); // sparse
                }
                const auto& p = video.packets[i];
                ASSERT_TRUE(file->writeSample(id, p.data.data(), p.data.size(), p.duration, p.pts - p.dts, p.key));
            }
            ASSERT_TRUE(file->close());
        }
        EXPECT_GT(std::filesystem::file_size(out), uint64_t(4) << 30);
        auto file = MP4File::read(out);
        ASSERT_TRUE(file);
        EXPECT_FALSE(file->damaged());
        Box* mdat = file->root().findChild(kMdat);
        ASSERT_NE(mdat, nullptr);
        EXPECT_TRUE(mdat->largeSize);
        MP4Track* track = file->track(1);
        EXPECT_NE(track->findBox("mdia.minf.stbl.co64"), nullptr);
        std::vector<uint8_t> data;
        uint32_t last = track->sampleCount() - 1;
        ASSERT_TRUE(track->readSample(last, data));
        EXPECT_EQ(data, video.packets[last].data);
        SampleInfo info;
        track->sampleInfo(last, info);
        EXPECT_GT(info.offset, uint64_t(4) << 30);
        EXPECT_EQ(mp4test::output("ffprobe -v error -show_entries stream=nb_frames -of csv=p=0 '" + out.string() + "'"),
                  std::to_string(video.packets.size()) + "\n");

        // Optimised: moov goes first, the chunks beyond 4 GiB keep 64-bit
        // offsets, and the hole stays a hole rather than 4 GiB of zeros.
        auto fast = dir / "fast.mp4";
        ASSERT_TRUE(MP4File::optimize(out, fast));
        auto optimized = MP4File::read(fast);
        ASSERT_TRUE(optimized);
        EXPECT_EQ(optimized->root().children()[1]->type(), kMoov);
        EXPECT_NE(optimized->track(1)->findBox("mdia.minf.stbl.co64"), nullptr);
        ASSERT_TRUE(optimized->track(1)->readSample(last, data));
        EXPECT_EQ(data, video.packets[last].data);
        EXPECT_EQ(mp4test::streamHash(fast), mp4test::streamHash(out));
        struct stat written {};
        ASSERT_EQ(::stat(fast.c_str(), &written), 0);
        EXPECT_LT(uint64_t(written.st_blocks) * 512, uint64_t(64) << 20);
        std::filesystem::remove(fast);
        std::filesystem::remove(out);
    }
}

TEST(MP4Damage, TruncatedAndGarbageFilesFailCleanlyAndSaySo)
{
    auto good = mp4test::bytesOf(movie("mp4-modify-faststart.mp4", "-movflags +faststart"));
    auto dir = qxtest::makeTempDir("mp4-damage");
    auto path = dir / "bad.mp4";

    // Cut at many places: never a crash, always a report or a null.
    for (size_t cut : {size_t(3), size_t(9), size_t(40), size_t(100), size_t(700), good.size() / 2}) {
        mp4test::LogLines log;
        mp4test::writeBytes(path, std::vector<uint8_t>(good.begin(), good.begin() + std::ptrdiff_t(cut)));
        auto file = MP4File::read(path);
        EXPECT_TRUE(!file || file->damaged()) << cut;
        EXPECT_TRUE(log.reportsDamage() || !file) << cut;
    }
    // A zero box type deep inside moov is suspect, printed empty.
    {
        mp4test::LogLines log;
        auto bytes = good;
        auto file = MP4File::read(qxtest::mediaDir() / "mp4-modify-faststart.mp4");
        Box* vmhd = file->track(1)->findBox("mdia.minf.vmhd");
        ASSERT_NE(vmhd, nullptr);
        std::fill_n(bytes.begin() + std::ptrdiff_t(vmhd->fileOffset + 4), 4, 0);
        mp4test::writeBytes(path, bytes);
        auto damaged = MP4File::read(path);
        ASSERT_TRUE(damaged);
        EXPECT_TRUE(log.has(MP4_LOG_WARNING, "atom type  is suspect"));
    }
}

TEST(MP4Model, MoovOfOtherMuxersIsWrittenBackByteForByte)
{
    // Files of ffmpeg's mp4, ipod and mov muxers: every typed box must
    // serialise to exactly what it was read from, or in-place edits of
    // such files would not fit.
    auto srt = qxtest::makeTempDir("mp4-model") / "subs.srt";
    qxtest::writeFile(srt, "1\n00:00:00,500 --> 00:00:01,500\nHello\n");
    auto meta = srt.parent_path() / "chapters.txt";
    qxtest::writeFile(meta, ";FFMETADATA1\ntitle=T\n[CHAPTER]\nTIMEBASE=1/1000\nSTART=0\nEND=1000\ntitle=A\n"
                            "[CHAPTER]\nTIMEBASE=1/1000\nSTART=1000\nEND=2000\ntitle=B\n");
    std::vector<std::filesystem::path> files = {
        movie("mp4-modify-faststart.mp4", "-movflags +faststart"),
        qxtest::generate("mp4-model.m4v", "-f lavfi -i testsrc2=size=320x240:rate=25:duration=2 -f lavfi -i "
                                          "sine=duration=2 -i '" + srt.string() + "' -i '" + meta.string() +
                                          "' -map 0 -map 1 -map 2 -map_chapters 3 -c:v libx264 -preset veryfast "
                                          "-c:a aac -c:s mov_text -f ipod"),
        qxtest::generate("mp4-model.mov", "-f lavfi -i testsrc2=size=320x240:rate=25:duration=1 -f lavfi -i "
                                          "sine=duration=1 -c:v libx264 -preset veryfast -c:a pcm_s16le"),
        qxtest::generate("mp4-model-hevc.mp4", "-f lavfi -i testsrc2=size=320x240:rate=25:duration=1 -f lavfi -i "
                                               "sine=duration=1 -af aformat=channel_layouts=5.1 -c:v libx265 "
                                               "-preset ultrafast -tag:v hvc1 -x265-params log-level=error "
                                               "-c:a eac3"),
    };
    for (const auto& path : files) {
        ASSERT_FALSE(path.empty());
        auto file = MP4File::read(path);
        ASSERT_TRUE(file) << path;
        EXPECT_FALSE(file->damaged());
        Box* moov = file->moov();
        std::vector<uint8_t> original(moov->fileSize);
        ASSERT_TRUE(file->readAt(moov->fileOffset, original.data(), original.size()));
        EXPECT_TRUE(moov->toBytes() == original) << path.filename();
    }
}

TEST(MP4Damage, SampleTablesPromisingMoreThanTheFileHoldStopAtItsEnd)
{
    auto path = qxtest::makeTempDir("mp4-tables") / "t.mp4";
    {
        auto file = MP4File::create(path);
        uint32_t id = file->addAudioTrack(48000, 1024);
        const uint8_t sample[4] = {1, 2, 3, 4};
        for (int i = 0; i < 4; ++i) file->writeSample(id, sample, sizeof sample);
        ASSERT_TRUE(file->close());
    }
    {
        // Four billion samples of one byte in one chunk, as a damaged file may say.
        auto file = MP4File::modify(path);
        ASSERT_TRUE(file);
        Box* stbl = file->track(1)->stbl();
        auto stsz = stbl->findChild<StszBox>();
        stsz->sizes.clear();
        stsz->constantSize = 1;
        stsz->constantCount = 4'000'000'000u;
        stbl->findChild<StscBox>()->runs = {{1, 4'000'000'000u, 1}};
        ASSERT_TRUE(file->close());
    }
    {
        // Samples beyond the end are damage: not edited.
        mp4test::LogLines log;
        EXPECT_FALSE(MP4File::modify(path));
        EXPECT_TRUE(log.reportsDamage());
    }
    auto file = MP4File::read(path);
    ASSERT_TRUE(file);
    MP4Track* track = file->track(1);
    SampleInfo info;
    EXPECT_TRUE(track->sampleInfo(0, info));
    EXPECT_FALSE(track->sampleInfo(3'999'999'999u, info)) << "beyond the end of the file";
    std::vector<uint8_t> data;
    EXPECT_TRUE(track->readSample(2, data));
    EXPECT_EQ(data, std::vector<uint8_t> {3});
}
