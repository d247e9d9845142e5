// Making the file: brands, folders, borrowed files, the ways a start fails,
// the file's date and tags, and the choice of input class.

#include <gtest/gtest.h>
#include <sys/xattr.h>

extern "C" {
#include <libavcodec/codec_id.h>
}

#include "MuxerSupport.h"
#include "qxmedia/core/QXMedia.h"
#include "qxmedia/metadata/QXMetaData.h"
#include "support/TestMedia.h"

using namespace qx;
using namespace muxertest;
namespace fs = std::filesystem;

namespace {

// Three video samples through one input into `path`.
void writeSmallFile(const fs::path& path, bool use64BitData = true)
{
    MuxerRun run(path);
    run.muxer->use64BitData = use64BitData;
    auto input = TestInput::make(Kind::Video, 25);
    run.muxer->addInput(input);
    ASSERT_TRUE(run.start());
    Feeder feeder(input, {makeSample(0, 0, 1, 25), makeSample(1, 1, 1, 25), makeSample(2, 2, 1, 25)});
    ASSERT_TRUE(run.waitForCompletion());
    EXPECT_EQ(run.muxer->status, QXMuxerStatusCompleted);
}

} // namespace

TEST(MuxerStart, TheFileFollowsItsExtensionAndTheFlags)
{
    auto dir = qxtest::makeTempDir("muxer-brands");
    const std::string m4v = "M4V \nM4V M4A mp42isomavc1";
    for (auto [name, brands] : {std::pair {"x.mp4", "mp42\nmp42isomavc1"}, {"x.MP4", m4v.c_str()},
                                {"x.m4v", m4v.c_str()}, {"x.M4V", m4v.c_str()}}) {
        SCOPED_TRACE(name);
        const fs::path path = dir / "new" / "folders" / name;
        writeSmallFile(path);
        EXPECT_EQ(ffprobe("-show_entries format_tags=major_brand,compatible_brands -of default=nw=1:nk=1", path),
                  brands);
        auto file = mp4::MP4File::read(path);
        ASSERT_TRUE(file);
        EXPECT_EQ(file->timeScale(), 1000u);
        EXPECT_TRUE(file->root().findChild(mp4::fourcc("mdat"))->largeSize);
    }
    writeSmallFile(dir / "narrow.m4v", false);
    auto file = mp4::MP4File::read(dir / "narrow.m4v");
    ASSERT_TRUE(file);
    EXPECT_FALSE(file->root().findChild(mp4::fourcc("mdat"))->largeSize);
    EXPECT_EQ(file->track(1)->sampleCount(), 3u);
}

TEST(MuxerStart, ABorrowedFileIsNeitherCreatedNorTimescaledNorClosed)
{
    auto dir = qxtest::makeTempDir("muxer-borrowed");
    mp4::MP4CreateOptions options;
    options.majorBrand = mp4::fourcc("qt  ");
    options.compatibleBrands = {options.majorBrand};
    auto file = mp4::MP4File::create(dir / "borrowed.mp4", options);
    ASSERT_TRUE(file);
    file->setTimeScale(600);
    {
        MuxerRun run(file.get());
        auto input = TestInput::make(Kind::Audio, 48000);
        input->offsetFromFirstSample = true;
        run.muxer->addInput(input);
        ASSERT_TRUE(run.start());
        Feeder feeder(input, {makeSample(1024, 1024, 1024, 48000), makeSample(2048, 2048, 1024, 48000)});
        ASSERT_TRUE(run.waitForCompletion());
        EXPECT_EQ(run.muxer->status, QXMuxerStatusCompleted);
    }
    ASSERT_TRUE(file->isOpen());
    EXPECT_EQ(file->timeScale(), 600u);
    auto edits = file->track(1)->edits();
    ASSERT_EQ(edits.size(), 2u);
    EXPECT_EQ(edits[0].segmentDuration, 13u); // 1024 / 48000 s in the owner's 1/600
    ASSERT_TRUE(file->close());
    EXPECT_EQ(ffprobe("-show_entries format_tags=major_brand -of default=nw=1:nk=1", dir / "borrowed.mp4"), "qt  ");
}

TEST(MuxerStart, AFailedStartReportsOnceAndStartsNoInput)
{
    auto dir = qxtest::makeTempDir("muxer-fail");
    qxtest::writeFile(dir / "file", "in the way");
    fs::create_directories(dir / "folder.m4v");
    struct Case {
        fs::path url;
        bool refusingInput;
        QXErrorDomain domain;
        int64_t code;
    };
    for (const Case& c : {Case {"", false, NSCocoaErrorDomain, 514}, Case {"relative.m4v", false, NSCocoaErrorDomain, 514},
                          Case {dir / "file" / "x.m4v", false, NSCocoaErrorDomain, 516},
                          Case {dir / "folder.m4v", false, QXMediaErrorDomain, -13002},
                          Case {dir / "x.m4v", true, QXMediaErrorDomain, -13011}}) {
        SCOPED_TRACE(c.url.string());
        MuxerRun run(c.url);
        auto video = TestInput::make(Kind::Video, 25);
        auto audio = TestInput::make(Kind::Audio, 48000);
        audio->refuse = c.refusingInput;
        run.muxer->addInput(video);
        run.muxer->addInput(audio);
        QXErrorRef error;
        EXPECT_FALSE(run.start(&error));
        ASSERT_TRUE(error);
        EXPECT_EQ(error->domain(), c.domain);
        EXPECT_EQ(error->code(), c.code);
        EXPECT_EQ(run.muxer->status, QXMuxerStatusFailed);
        EXPECT_EQ(run.handlerCalls(), 1);
        if (c.code == -13002) {
            EXPECT_EQ(*error->userInfo().at(NSURLErrorKey).url(), c.url);
        }
        // A channel that ends now finds inputs that never started.
        video->markAsFinished();
        EXPECT_EQ(video->status, QXMuxerInputStatusIdle);
    }
    // Without an out-error nothing is made (and logged).
    qxtest::LogCapture log;
    MuxerRun run {fs::path()};
    EXPECT_FALSE(run.start());
    EXPECT_EQ(run.handlerCalls(), 1);
    EXPECT_TRUE(log.lines().empty());
}

TEST(MuxerFinish, TheRecordsTagsDateAndNamesGoToTheFileAndLateInputsAreIgnored)
{
    auto dir = qxtest::makeTempDir("muxer-attributes");
    qxtest::LogCapture log;
    const fs::path path = dir / "x.m4v";
    MuxerRun run(path);
    run.muxer->metadata = QXMetaData::init();
    const QXDate date = std::chrono::sys_days(std::chrono::year(2001) / 2 / 3);
    run.muxer->metadata->creationDate.set(date);
    run.muxer->metadata->tags.set(QXStringList {"Red", "Holiday"});
    run.muxer->metadata->name.set(std::string("Written Title"));
    auto input = TestInput::make(Kind::Subtitle, 1000);
    run.muxer->addInput(input);
    ASSERT_TRUE(run.start());
    run.muxer->addInput(TestInput::make(Kind::Audio, 48000));
    EXPECT_EQ(run.muxer->inputs.size(), 1u);
    input->markAsFinished();
    ASSERT_TRUE(run.waitForCompletion());
    EXPECT_EQ(run.muxer->status, QXMuxerStatusCompleted);
    EXPECT_EQ(std::chrono::file_clock::to_sys(fs::last_write_time(path)), date);
    std::string probed;
    qxtest::run("ffprobe -v error -show_entries format_tags=title -of csv=p=0 '" + path.string() + "'", &probed);
    EXPECT_EQ(probed, "Written Title\n") << "the record's tags are in the file";
    char tags[64] = {};
    const ssize_t size = ::getxattr(path.c_str(), "user.xdg.tags", tags, sizeof tags - 1);
    if (size >= 0) {
        EXPECT_EQ(std::string(tags, size_t(size)), "Red,Holiday");
    } else {
        EXPECT_TRUE(log.contains("Failed to set tags: ", QXLogFlagWarning)); // no user attributes here
    }
}

TEST(MuxerInputFactory, CodecsWithoutAnInputClassGiveNoInputAndSaySo)
{
    qxtest::LogCapture log;
    auto source = QXTrack::init();
    source->codec_id = AV_CODEC_ID_MPEG2VIDEO;
    auto destination = QXTrack::init();
    destination->codec_id = AV_CODEC_ID_VP9;
    auto output = QXTrackReaderOutput::initWithSource(source);
    EXPECT_EQ(QXMuxerInput::initWithSource(output, destination, false), nullptr);
    EXPECT_EQ(QXMuxerInput::initWithSource(output, destination, true), nullptr);
    // Both name the source's codec.
    EXPECT_TRUE(log.contains("No idea how to mux 2", QXLogFlagWarning));
    EXPECT_TRUE(log.contains("No idea how to encode 2", QXLogFlagWarning));
}
