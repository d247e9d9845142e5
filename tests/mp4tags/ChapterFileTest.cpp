// Chapters on real files: QuickTime chapter tracks and Nero chpl, checked
// against ffprobe.

#include <gtest/gtest.h>

#include "MP4TagsFixtures.h"
#include "qxmedia/mp4/MP4File.h"
#include "qxmedia/mp4/tags/MP4Chapters.h"

using namespace qx::mp4;
using namespace mp4tagstest;

namespace {

std::string probeChapters(const std::filesystem::path& path)
{
    return output("ffprobe -v error -show_entries chapter=start_time,end_time:chapter_tags=title -of csv=p=0 '" +
                  path.string() + "'");
}

const std::vector<MP4Chapter> kThree {{1500, "Eins"}, {1500, "Zw\xc3\xb6lf"}, {999, "Drei"}};

std::filesystem::path withChapters(const std::string& name, MP4ChapterType type)
{
    const auto dir = qxtest::makeTempDir("mp4tags-" + name);
    const auto path = copyTo(plainMovie(), dir, name + ".mp4");
    auto file = MP4File::modify(path);
    EXPECT_TRUE(file);
    if (!file) return path;
    EXPECT_EQ(MP4SetChapters(*file, kThree, type), type);
    EXPECT_TRUE(file->close());
    return path;
}

} // namespace

TEST(MP4ChapterFiles, BothFormsAreReadByFfprobe)
{
    // The last chapter is stretched to the end of the 4 s movie.
    const std::string expected = "0.000000,1.500000,Eins\n1.500000,3.000000,Zw\xc3\xb6lf\n3.000000,4.000000,Drei\n";
    const auto qt = withChapters("qt", MP4ChapterTypeQt);
    EXPECT_EQ(probeChapters(qt), expected) << "QuickTime chapter track alone";
    const auto nero = withChapters("nero", MP4ChapterTypeNero);
    EXPECT_EQ(probeChapters(nero), expected) << "chpl alone";

    auto file = MP4File::read(qt);
    ASSERT_TRUE(file);
    std::vector<MP4Chapter> chapters;
    ASSERT_EQ(MP4GetChapters(*file, chapters), MP4ChapterTypeQt);
    EXPECT_EQ(chapters.back(), (MP4Chapter {1000, "Drei"}));

    // The chapter track: a disabled text track referenced from the video
    // track; its samples carry the title and an encd box.
    MP4Track* video = file->track(file->findTrackId(0, kVideoTrack));
    ASSERT_TRUE(video);
    const auto refs = video->references(fourcc("chap"));
    ASSERT_EQ(refs.size(), 1u);
    MP4Track* text = file->track(refs[0]);
    ASSERT_TRUE(text);
    EXPECT_EQ(text->timeScale(), video->timeScale());
    std::vector<uint8_t> sample;
    ASSERT_TRUE(text->readSample(0, sample));
    const std::vector<uint8_t> first {0, 4, 'E', 'i', 'n', 's', 0, 0, 0, 12, 'e', 'n', 'c', 'd', 0, 0, 1, 0};
    EXPECT_EQ(sample, first);
}

TEST(MP4ChapterFiles, DeletingOneFormLeavesTheOther)
{
    const auto path = withChapters("delete", MP4ChapterTypeAny);
    size_t tracksWithChapters = 0;
    {
        auto file = MP4File::modify(path);
        ASSERT_TRUE(file);
        tracksWithChapters = file->trackCount();
        EXPECT_EQ(MP4DeleteChapters(*file, MP4ChapterTypeQt), MP4ChapterTypeQt);
        EXPECT_EQ(file->trackCount(), tracksWithChapters - 1);
        for (MP4Track* track : file->tracks()) EXPECT_FALSE(track->hasReference(fourcc("chap")));
        std::vector<MP4Chapter> chapters;
        EXPECT_EQ(MP4GetChapters(*file, chapters), MP4ChapterTypeNero);
        ASSERT_TRUE(file->close());
    }
    {
        auto file = MP4File::modify(path);
        ASSERT_TRUE(file);
        EXPECT_EQ(MP4DeleteChapters(*file, MP4ChapterTypeAny), MP4ChapterTypeNero);
        EXPECT_EQ(MP4DeleteChapters(*file, MP4ChapterTypeAny), MP4ChapterTypeNone);
        ASSERT_TRUE(file->close());
    }
    EXPECT_EQ(probeChapters(path), "");

    // Replacing keeps one chapter track, not two.
    const auto twice = withChapters("twice", MP4ChapterTypeAny);
    {
        auto file = MP4File::modify(twice);
        ASSERT_TRUE(file);
        const size_t before = file->trackCount();
        EXPECT_EQ(MP4SetChapters(*file, {{2000, "A"}, {2000, "B"}}, MP4ChapterTypeAny), MP4ChapterTypeAny);
        EXPECT_EQ(file->trackCount(), before);
        ASSERT_TRUE(file->close());
    }
    EXPECT_EQ(probeChapters(twice), "0.000000,2.000000,A\n2.000000,4.000000,B\n");
}

TEST(MP4ChapterFiles, ChaptersPastTheEndAreLeftOut)
{
    const auto dir = qxtest::makeTempDir("mp4tags-past-end");
    const auto path = copyTo(plainMovie(), dir, "past.mp4");
    {
        auto file = MP4File::modify(path);
        ASSERT_TRUE(file);
        EXPECT_EQ(MP4SetChapters(*file, {{3000, "In"}, {5000, "Out"}, {1000, "Further out"}}), MP4ChapterTypeQt);
        ASSERT_TRUE(file->close());
    }
    auto file = MP4File::read(path);
    std::vector<MP4Chapter> chapters;
    ASSERT_EQ(MP4GetChapters(*file, chapters), MP4ChapterTypeQt);
    EXPECT_EQ(chapters, (std::vector<MP4Chapter> {{3000, "In"}, {1000, "Out"}}));

    auto readOnly = MP4File::read(path);
    EXPECT_EQ(MP4SetChapters(*readOnly, kThree), MP4ChapterTypeNone);
    EXPECT_EQ(MP4DeleteChapters(*readOnly, MP4ChapterTypeAny), MP4ChapterTypeNone);
}

TEST(MP4ChapterFiles, ChaptersOfAnFfmpegMovieAreReplaced)
{
    // ffmpeg refers to its chapter track from the video and the audio track.
    const auto dir = qxtest::makeTempDir("mp4tags-ffmpeg-chapters");
    const auto path = copyTo(taggedMovie(), dir, "replace.m4v");
    {
        auto file = MP4File::modify(path);
        ASSERT_TRUE(file);
        const size_t tracks = file->trackCount();
        EXPECT_EQ(MP4SetChapters(*file, {{1000, "New one"}, {1000, "New two"}}, MP4ChapterTypeAny), MP4ChapterTypeAny);
        EXPECT_EQ(file->trackCount(), tracks);
        size_t referring = 0;
        for (MP4Track* track : file->tracks()) referring += track->hasReference(fourcc("chap"));
        EXPECT_EQ(referring, 1u) << "only the video track refers to the new chapter track";
        ASSERT_TRUE(file->close());
    }
    EXPECT_EQ(probeChapters(path), "0.000000,1.000000,New one\n1.000000,4.000000,New two\n");
    auto file = MP4File::read(path);
    std::vector<MP4Chapter> chapters;
    ASSERT_EQ(MP4GetChapters(*file, chapters, MP4ChapterTypeNero), MP4ChapterTypeNero);
    EXPECT_EQ(chapters, (std::vector<MP4Chapter> {{1000, "New one"}, {3000, "New two"}}));
}
