// A conversion run end to end, checked with ffprobe and ffmpeg.

#include <gtest/gtest.h>

#include <cstdlib>
#include <map>
#include <sstream>
#include <thread>

#include "qxmedia/job/QXJob.h"
#include "qxmedia/job/QXPreset.h"
#include "qxmedia/platform/image/QXImage.h"
#include "qxmedia/platform/progress/QXProgress.h"
#include "qxmedia/source/QXChapterTrack.h"
#include "qxmedia/source/QXMovie.h"
#include "support/TestMedia.h"

using namespace qx;

namespace {

std::filesystem::path source(const std::string& name, int seconds)
{
    const std::filesystem::path chapterFile = qxtest::mediaDir() / "run-chapters.ffmeta";
    qxtest::writeFile(chapterFile, ";FFMETADATA1\n"
                                   "[CHAPTER]\nTIMEBASE=1/1000\nSTART=0\nEND=1200\ntitle=Opening\n"
                                   "[CHAPTER]\nTIMEBASE=1/1000\nSTART=1200\nEND=2000\ntitle=Middle\n");
    const std::string length = std::to_string(seconds);
    return qxtest::generate(
        name, "-f lavfi -i testsrc2=size=160x90:rate=25:duration=" + length +
                  " -f lavfi -i sine=frequency=440:sample_rate=48000:duration=" + length +
                  " -f lavfi -i sine=frequency=880:sample_rate=48000:duration=" + length + " -i " +
                  chapterFile.string() +
                  " -filter_complex \"[1:a]aformat=channel_layouts=stereo[a20];[2:a]aformat=channel_layouts=5.1[a51]\""
                  " -map 0:v -map \"[a20]\" -map \"[a51]\" -map_chapters 3"
                  " -c:v libx264 -preset ultrafast -bf 2 -pix_fmt yuv420p -c:a:0 aac -b:a:0 96k -c:a:1 ac3 -b:a:1 192k");
}

// Copies every track of the movie, in its order.
void planCopy(QXJob& job)
{
    job.tracks.clear();
    for (const QXTrackRef& track : job.movie->tracks) {
        job.tracks.push_back(QXTrackJob::initWithSource(track, track->copy(), QXTrackJobTypeRemux));
    }
}

std::shared_ptr<QXJob> copyJob(const std::filesystem::path& input, const std::filesystem::path& output)
{
    auto movie = QXMovie::initWithURL(input);
    if (!movie) return nullptr;
    auto job = QXJob::initWithMovie(movie, QXPreset::initWithIdentifier(QXPresetApple1080p));
    planCopy(*job);
    job->chapters = movie->chapters;
    job->destination = output;
    job->queue();
    return job;
}

// codec name -> packet count, per stream of the file, as ffprobe counts them.
std::multimap<std::string, long> probePackets(const std::filesystem::path& file)
{
    std::string text;
    qxtest::run("ffprobe -v error -count_packets -show_entries stream=codec_name,nb_read_packets -of csv=p=0 '" +
                    file.string() + "'",
                &text);
    std::multimap<std::string, long> packets;
    std::istringstream lines(text);
    for (std::string line; std::getline(lines, line);) {
        const auto comma = line.find(',');
        if (comma == std::string::npos) continue;
        packets.emplace(line.substr(0, comma), std::atol(line.c_str() + comma + 1));
    }
    return packets;
}

class ConversionRun : public ::testing::Test {
protected:
    void SetUp() override
    {
        dir = qxtest::makeTempDir("job-run");
        // Sources a run is asked to trash go to a trash of the test's own.
        ::setenv("XDG_DATA_HOME", qxtest::makeTempDir("job-run-data").c_str(), 1);
    }
    std::filesystem::path dir;
};

} // namespace

TEST_F(ConversionRun, CopiesEveryTrackWithChaptersIntoAnM4VThatDecodes)
{
    const auto input = source("run-copy.mkv", 3);
    ASSERT_FALSE(input.empty());
    auto job = copyJob(input, dir / "out.m4v");
    ASSERT_TRUE(job);
    ASSERT_TRUE(job->chapters && job->chapters->chapterCount() == 2);

    ASSERT_TRUE(job->start());
    EXPECT_TRUE(job->waitUntilFinished()) << (job->error() ? job->error()->description() : "");
    EXPECT_EQ(job->status, QXJobStatusFinished);
    ASSERT_TRUE(std::filesystem::exists(dir / "out.m4v"));

    const auto before = probePackets(input);
    const auto after = probePackets(dir / "out.m4v");
    for (const char* codec : {"h264", "aac", "ac3"}) {
        ASSERT_EQ(before.count(codec), 1u) << codec;
        ASSERT_EQ(after.count(codec), 1u) << codec;
        // The AAC encoder's priming packet lies before the video's first
        // frame, and the timeline drops audio that early.
        const long dropped = std::string(codec) == "aac" ? 1 : 0;
        EXPECT_EQ(after.find(codec)->second, before.find(codec)->second - dropped) << codec;
    }
    std::string chapterList;
    qxtest::run("ffprobe -v error -show_entries chapter=start_time:chapter_tags=title -of csv=p=0 '" +
                    (dir / "out.m4v").string() + "'",
                &chapterList);
    EXPECT_NE(chapterList.find("Opening"), std::string::npos) << chapterList;
    // The second chapter starts with the picture at its time, a P-frame
    // that decodes before the two B-frames shown ahead of it.
    EXPECT_NE(chapterList.find("1.200000,Middle"), std::string::npos) << chapterList;

    std::string decodeErrors;
    EXPECT_EQ(qxtest::run("ffmpeg -v error -i '" + (dir / "out.m4v").string() + "' -f null - 2>&1", &decodeErrors),
              0);
    EXPECT_EQ(decodeErrors, "");

    // Each chapter got a still of the video at the picture's own size.
    for (const QXChapterRef& chapter : job->chapters->chapters) {
        ASSERT_TRUE(chapter->image);
        EXPECT_EQ(chapter->image->pixelsWide(), 160);
        EXPECT_EQ(chapter->image->pixelsHigh(), 90);
        const uint8_t* pixel = chapter->image->bitmapData() + 4 * (45 * 160 + 80);
        EXPECT_EQ(pixel[3], 255);
        EXPECT_GT(pixel[0] + pixel[1] + pixel[2], 0);
    }
    EXPECT_FALSE(job->error());
}

// Pause and cancel come from threads other than the one that started the run.
TEST_F(ConversionRun, CancelOfAPausedRunFromAnotherThreadLeavesNoFileBehind)
{
    const auto input = source("run-long.mkv", 30);
    auto job = copyJob(input, dir / "cancelled.m4v");
    ASSERT_TRUE(job);
    std::thread([&] { job->start(); }).join();
    // Paused, the run cannot end before the cancel reaches it.
    std::thread([&] { job->togglePause(); }).join();
    const auto reading = job->progressMovie();
    ASSERT_TRUE(reading && reading->isPaused);
    EXPECT_EQ(job->status, QXJobStatusProcessing) << "a paused job is still processing";
    EXPECT_LT(job->startTime, 60.0) << "while paused the start time holds the time elapsed";
    // Meanwhile the output grows under a hidden name beside the final one.
    EXPECT_FALSE(std::filesystem::exists(dir / "cancelled.m4v"));
    EXPECT_EQ(job->partialDestination.parent_path(), dir);
    EXPECT_TRUE(std::filesystem::exists(job->partialDestination)) << job->partialDestination;
    EXPECT_EQ(job->partialDestination.extension(), ".m4v") << "the extension picks the brands";

    std::thread([&] { job->cancel(); }).join();
    EXPECT_FALSE(reading->isPaused) << "the cancel releases the pause";
    EXPECT_FALSE(job->waitUntilFinished());
    EXPECT_EQ(job->status, QXJobStatusCancelled);
    EXPECT_EQ(reading->status, QXMovieStatusCancelled);
    ASSERT_TRUE(job->error());
    EXPECT_EQ(job->error()->code(), 3072);
    EXPECT_FALSE(std::filesystem::exists(job->partialDestination));
    EXPECT_TRUE(std::filesystem::is_empty(dir)) << "nothing is left in the folder";
    EXPECT_NE(job->destination.string().find("/Trash/files/"), std::string::npos) << job->destination;
    EXPECT_TRUE(std::filesystem::exists(job->destination)) << "the partial output went to the trash";
}

TEST_F(ConversionRun, AnOutputThatIsTheSourceIsRefusedBeforeAnythingIsWritten)
{
    const auto original = source("run-copy.mkv", 3);
    const auto input = dir / "source.mkv";
    std::filesystem::copy_file(original, input);
    std::filesystem::create_symlink(input, dir / "link.mkv");
    const auto size = std::filesystem::file_size(input);
    const auto written = std::filesystem::last_write_time(input);
    // The source through its own name, a relative spelling and a link.
    for (const std::filesystem::path& output : {input, dir / "." / "source.mkv", dir / "link.mkv"}) {
        auto job = copyJob(input, output);
        ASSERT_TRUE(job);
        QXErrorRef error;
        EXPECT_FALSE(job->start(&error)) << output;
        EXPECT_FALSE(job->waitUntilFinished());
        EXPECT_EQ(job->status, QXJobStatusFailed);
        ASSERT_TRUE(error) << output;
        EXPECT_EQ(job->error(), error);
    }
    EXPECT_EQ(std::filesystem::file_size(input), size);
    EXPECT_EQ(std::filesystem::last_write_time(input), written);
    EXPECT_EQ(std::distance(std::filesystem::directory_iterator(dir), {}), 2) << "no partial file was made";
}

// A run that cannot write or cannot read fails with the error start()
// gave, leaves the sources alone even when asked to trash them, and leaves
// nothing under either name.
TEST_F(ConversionRun, FailuresToWriteOrReadEndTheRunWithTheirError)
{
    const auto original = source("run-copy.mkv", 3);
    qxtest::writeFile(dir / "plain-file", "x");
    std::filesystem::create_directories(dir / "folder.m4v");
    struct Case {
        const char* what;
        std::filesystem::path output;
        bool removeSource;
    };
    for (const Case& test : {Case {"under a plain file", dir / "plain-file" / "out.m4v", false},
                             Case {"over a folder", dir / "folder.m4v", false},
                             Case {"source gone", dir / "never.m4v", true}}) {
        SCOPED_TRACE(test.what);
        const auto input = dir / "doomed.mkv";
        std::filesystem::copy_file(original, input, std::filesystem::copy_options::overwrite_existing);
        auto job = copyJob(input, test.output);
        ASSERT_TRUE(job);
        job->moveToTrash = true;
        if (test.removeSource) std::filesystem::remove(input);
        QXErrorRef startError;
        job->start(&startError);
        EXPECT_FALSE(job->waitUntilFinished());
        EXPECT_EQ(job->status, QXJobStatusFailed);
        ASSERT_TRUE(job->error());
        EXPECT_NE(job->error()->code(), 3072);
        if (startError) {
            EXPECT_EQ(job->error(), startError);
        }
        EXPECT_EQ(std::filesystem::exists(input), !test.removeSource);
        EXPECT_FALSE(std::filesystem::exists(job->partialDestination));
        EXPECT_FALSE(std::filesystem::is_regular_file(test.output));
    }
}

// With no video line in the plan the audio starts the timeline, and every
// audio packet of the source is written.
TEST_F(ConversionRun, APlanWithoutVideoWritesEveryAudioPacket)
{
    const auto input = source("run-copy.mkv", 3);
    auto job = copyJob(input, dir / "audio.m4v");
    ASSERT_TRUE(job);
    std::erase_if(job->tracks, [](const QXTrackJobRef& line) {
        return line->source->mediaType() == std::string(AVMediaTypeVideo);
    });
    ASSERT_TRUE(job->start());
    EXPECT_TRUE(job->waitUntilFinished()) << (job->error() ? job->error()->description() : "");
    auto expected = probePackets(input);
    expected.erase("h264");
    EXPECT_EQ(probePackets(dir / "audio.m4v"), expected);
}
