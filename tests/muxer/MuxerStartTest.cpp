// Making the file: brands, timescale, folders, borrowed files, the ways a
// start fails, and the choice of input class.

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

// Runs a muxer with one video input of three samples into `path`.
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

TEST(MuxerStart, BrandsFollowTheExtensionCaseSensitively)
{
    auto dir = qxtest::makeTempDir("muxer-brands");
    const std::string plain = "mp42isomavc1";
    const std::string m4v = "M4V M4A mp42isomavc1";
    for (auto [name, major, brands] : {std::tuple {"x.mp4", "mp42", plain}, {"x.MP4", "M4V ", m4v},
                                       {"x.m4v", "M4V ", m4v}, {"x.M4V", "M4V ", m4v}, {"x.mov", "M4V ", m4v}}) {
        SCOPED_TRACE(name);
        // Folders that do not exist yet are made.
        const fs::path path = dir / "a" / "b" / name;
        writeSmallFile(path);
        EXPECT_EQ(ffprobeFormat(path, "format_tags=major_brand"), major);
        EXPECT_EQ(ffprobeFormat(path, "format_tags=compatible_brands"), brands);
        EXPECT_EQ(ffprobeFormat(path, "format_tags=minor_version"), "0");
        auto file = mp4::MP4File::read(path);
        ASSERT_TRUE(file);
        EXPECT_EQ(file->timeScale(), 1000u);
    }
}

TEST(MuxerStart, SixtyFourBitDataAsTheFlagSays)
{
    auto dir = qxtest::makeTempDir("muxer-64bit");
    for (bool use64 : {true, false}) {
        const fs::path path = dir / (use64 ? "wide.m4v" : "narrow.m4v");
        writeSmallFile(path, use64);
        auto file = mp4::MP4File::read(path);
        ASSERT_TRUE(file);
        mp4::Box* mdat = file->root().findChild(mp4::fourcc("mdat"));
        ASSERT_NE(mdat, nullptr);
        EXPECT_EQ(mdat->largeSize, use64);
        EXPECT_EQ(samplesOfTrack(path, 1).size(), 3u);
    }
}

TEST(MuxerStart, ABorrowedFileIsNeitherCreatedNorTimescaledNorClosed)
{
    auto dir = qxtest::makeTempDir("muxer-borrowed");
    const fs::path path = dir / "borrowed.mp4";
    mp4::MP4CreateOptions options;
    options.majorBrand = mp4::fourcc("qt  ");
    options.compatibleBrands = {mp4::fourcc("qt  ")};
    options.timeScale = 600;
    auto file = mp4::MP4File::create(path, options);
    ASSERT_TRUE(file);
    file->setTimeScale(600);
    {
        MuxerRun run(file.get());
        EXPECT_FALSE(run.muxer->isFileOwner);
        auto input = TestInput::make(Kind::Audio, 48000);
        input->offsetFromFirstSample = true;
        run.muxer->addInput(input);
        ASSERT_TRUE(run.start());
        Feeder feeder(input, {makeSample(1024, 1024, 1024, 48000), makeSample(2048, 2048, 1024, 48000)});
        ASSERT_TRUE(run.waitForCompletion());
        EXPECT_EQ(run.muxer->status, QXMuxerStatusCompleted);
        EXPECT_EQ(run.muxer->handle, nullptr);
    }
    // Still open, with the owner's timescale; the edit list is in that scale.
    ASSERT_TRUE(file->isOpen());
    EXPECT_EQ(file->timeScale(), 600u);
    mp4::MP4Track* track = file->track(1);
    ASSERT_NE(track, nullptr);
    auto edits = track->edits();
    ASSERT_EQ(edits.size(), 2u);
    EXPECT_EQ(edits[0].segmentDuration, 13u); // 1024 / 48000 s in 1/600
    ASSERT_TRUE(file->close());
    EXPECT_EQ(ffprobeFormat(path, "format_tags=major_brand"), "qt  ");
}

TEST(MuxerStart, NoFolderToWriteIntoFailsWith514AndCallsTheHandlerOnce)
{
    for (const fs::path& url : {fs::path(), fs::path("relative.m4v")}) {
        SCOPED_TRACE(url.string());
        MuxerRun run(url);
        run.muxer->addInput(TestInput::make(Kind::Video, 25));
        QXErrorRef error;
        EXPECT_FALSE(run.start(&error));
        ASSERT_TRUE(error);
        EXPECT_EQ(error->domain(), NSCocoaErrorDomain);
        EXPECT_EQ(error->code(), 514);
        EXPECT_EQ(run.muxer->status, QXMuxerStatusFailed);
        EXPECT_EQ(run.handlerCalls(), 1);
    }
    // Without an out-error the failure is the same, and no error is made.
    qxtest::LogCapture log;
    MuxerRun run{fs::path()};
    EXPECT_FALSE(run.start());
    EXPECT_EQ(run.handlerCalls(), 1);
    EXPECT_FALSE(log.contains("514"));
}

TEST(MuxerStart, AFolderThatCannotBeMadeFailsTheStart)
{
    auto dir = qxtest::makeTempDir("muxer-nofolder");
    qxtest::writeFile(dir / "file", "in the way");
    MuxerRun run(dir / "file" / "sub" / "x.m4v");
    QXErrorRef error;
    EXPECT_FALSE(run.start(&error));
    ASSERT_TRUE(error);
    EXPECT_EQ(error->domain(), NSCocoaErrorDomain);
    EXPECT_EQ(run.muxer->status, QXMuxerStatusFailed);
    EXPECT_EQ(run.handlerCalls(), 1);
}

TEST(MuxerStart, AFileThatCannotBeCreatedFailsWith13002)
{
    auto dir = qxtest::makeTempDir("muxer-nocreate");
    const fs::path path = dir / "taken.m4v";
    fs::create_directories(path); // a folder where the file should go
    MuxerRun run(path);
    auto input = TestInput::make(Kind::Video, 25);
    run.muxer->addInput(input);
    QXErrorRef error;
    EXPECT_FALSE(run.start(&error));
    ASSERT_TRUE(error);
    EXPECT_EQ(error->domain(), QXMediaErrorDomain);
    EXPECT_EQ(error->code(), -13002);
    const QXValue* url = error->userInfo().count(NSURLErrorKey) ? &error->userInfo().at(NSURLErrorKey) : nullptr;
    ASSERT_NE(url, nullptr);
    ASSERT_NE(url->url(), nullptr);
    EXPECT_EQ(*url->url(), path);
    EXPECT_EQ(run.muxer->status, QXMuxerStatusFailed);
    EXPECT_EQ(run.handlerCalls(), 1);
    // The input was never asked to make its track.
    EXPECT_EQ(input->destination->trackID, 0);
    EXPECT_EQ(input->status, QXMuxerInputStatusIdle);
}

TEST(MuxerStart, AnInputThatRefusesFailsTheStartAndNoInputRuns)
{
    auto dir = qxtest::makeTempDir("muxer-refuse");
    MuxerRun run(dir / "x.m4v");
    auto good = TestInput::make(Kind::Video, 25);
    auto bad = TestInput::make(Kind::Audio, 48000);
    bad->refuse = true;
    run.muxer->addInput(good);
    run.muxer->addInput(bad);
    QXErrorRef error;
    EXPECT_FALSE(run.start(&error));
    ASSERT_TRUE(error);
    EXPECT_EQ(error->code(), -13011);
    EXPECT_EQ(run.muxer->status, QXMuxerStatusFailed);
    EXPECT_EQ(run.handlerCalls(), 1);
    EXPECT_EQ(good->status, QXMuxerInputStatusIdle);
    // A channel that ends now finds an input that never started.
    good->markAsFinished();
    bad->markAsFinished();
    EXPECT_EQ(good->status, QXMuxerInputStatusIdle);
}

TEST(MuxerStart, InputsAreAddedOnlyBeforeTheStart)
{
    auto dir = qxtest::makeTempDir("muxer-add");
    MuxerRun run(dir / "x.m4v");
    auto first = TestInput::make(Kind::Subtitle, 1000);
    run.muxer->addInput(first);
    ASSERT_TRUE(run.start());
    run.muxer->addInput(TestInput::make(Kind::Audio, 48000));
    EXPECT_EQ(run.muxer->inputs.size(), 1u);
    first->markAsFinished();
    ASSERT_TRUE(run.waitForCompletion());
    EXPECT_EQ(run.handlerCalls(), 1);
    EXPECT_EQ(run.muxer->status, QXMuxerStatusCompleted);
}

TEST(MuxerStart, TheDateAndTheTagsOfTheRecordGoToTheFile)
{
    auto dir = qxtest::makeTempDir("muxer-attributes");
    qxtest::LogCapture log;
    const fs::path path = dir / "x.m4v";
    MuxerRun run(path);
    run.muxer->metadata = QXMetaData::init();
    const QXDate date = std::chrono::sys_days(std::chrono::year(2001) / 2 / 3);
    run.muxer->metadata->creationDate.set(date);
    run.muxer->metadata->tags.set(QXStringList {"Red", "Holiday"});
    auto input = TestInput::make(Kind::Subtitle, 1000);
    run.muxer->addInput(input);
    ASSERT_TRUE(run.start());
    input->markAsFinished();
    ASSERT_TRUE(run.waitForCompletion());
    EXPECT_EQ(run.muxer->status, QXMuxerStatusCompleted);
    EXPECT_EQ(std::chrono::file_clock::to_sys(fs::last_write_time(path)), date);

    char tags[64] = {};
    const ssize_t size = ::getxattr(path.c_str(), "user.xdg.tags", tags, sizeof tags - 1);
    if (size >= 0) {
        EXPECT_EQ(std::string(tags, size_t(size)), "Red,Holiday");
    } else {
        // A file system without user attributes: the run completes all the
        // same, with a warning.
        EXPECT_TRUE(log.contains("Failed to set tags: ", QXLogFlagWarning));
    }
}

TEST(MuxerInputFactory, CodecsWithoutAnInputClassGiveNoInputAndSaySo)
{
    qxtest::LogCapture log;
    auto source = QXTrack::init();
    source->codec_id = AV_CODEC_ID_MPEG2VIDEO;
    auto output = QXTrackReaderOutput::initWithSource(source);
    auto destination = QXTrack::init();
    destination->codec_id = AV_CODEC_ID_VP9;
    EXPECT_EQ(QXMuxerInput::initWithSource(output, destination, false), nullptr);
    EXPECT_TRUE(log.contains("No idea how to mux 2", QXLogFlagWarning));
    // Encoding names the source's codec too.
    EXPECT_EQ(QXMuxerInput::initWithSource(output, destination, true), nullptr);
    EXPECT_TRUE(log.contains("No idea how to encode 2", QXLogFlagWarning));
}
