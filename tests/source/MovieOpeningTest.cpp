// Opening movies from each kind of source: the tracks, chapters, tags and errors they come out with.

#include <gtest/gtest.h>

#include <fstream>

extern "C" {
#include <libavcodec/codec_id.h>
}

#include "SourceMedia.h"
#include "qxmedia/core/QXMedia.h"
#include "qxmedia/metadata/QXMetaData.h"
#include "qxmedia/mp4/MP4File.h"
#include "qxmedia/mp4/MP4Track.h"
#include "qxmedia/source/QXAC3AudioTrack.h"
#include "qxmedia/source/QXChapterTrack.h"
#include "qxmedia/source/QXMovie.h"
#include "qxmedia/source/QXSubtitleTrack.h"
#include "qxmedia/source/QXVideoTrack.h"
#include "support/TestMedia.h"

using namespace qx;

namespace {

std::shared_ptr<QXMovie> open(const std::filesystem::path& path, QXErrorRef* error = nullptr)
{
    EXPECT_FALSE(path.empty()) << "fixture was not generated";
    return QXMovie::initWithURL(path, error);
}

} // namespace

TEST(MovieOpening, MatroskaWithEveryKindOfTrack)
{
    auto movie = open(sourcemedia::matroska());
    ASSERT_TRUE(movie);
    EXPECT_EQ(movie->format, "matroska,webm");
    ASSERT_EQ(movie->tracks.size(), 5u);
    EXPECT_TRUE(std::dynamic_pointer_cast<QXVideoTrack>(movie->tracks[0]));
    auto ac3 = std::dynamic_pointer_cast<QXAC3AudioTrack>(movie->tracks[1]);
    ASSERT_TRUE(ac3);
    EXPECT_TRUE(std::dynamic_pointer_cast<QXSubtitleTrack>(movie->tracks[4]));
    EXPECT_EQ(movie->videoTrack, movie->tracks[0]);
    EXPECT_EQ(ac3->language, "en");
    EXPECT_EQ(movie->tracks[0]->language, "en") << "no video language: the default is en";
    EXPECT_EQ(ac3->bit_rate_code, 14) << "the first frame was analysed: 384 kbit/s";

    ASSERT_TRUE(movie->chapters);
    EXPECT_EQ(movie->chapters->chapters.size(), 3u);
    EXPECT_EQ(*movie->metadata->name.get(), "Test Movie");
    EXPECT_TRUE(movie->isMuxable());
    EXPECT_NEAR(CMTimeGetSeconds(movie->duration()), 6.0, 0.1);
    EXPECT_EQ(movie->fileHash.size(), 16u);
    EXPECT_FALSE(movie->isUpdateable);
}

TEST(MovieOpening, HevcAndEac3FromAnMP4AreUpdateableAndCopied)
{
    // The E-AC-3 track's dec3 is checked against the file in the track tests.
    auto movie = open(sourcemedia::hevcEac3());
    ASSERT_TRUE(movie);
    EXPECT_TRUE(movie->isUpdateable);
    EXPECT_FALSE(movie->error());
    ASSERT_EQ(movie->tracks.size(), 2u);
    EXPECT_TRUE(movie->tracks[0]->isMuxable()) << "HEVC from an MP4";
    EXPECT_TRUE(std::dynamic_pointer_cast<QXEAC3AudioTrack>(movie->tracks[1]));
}

TEST(MovieOpening, TransportStreamIsProbedLongAndNotMuxable)
{
    auto movie = open(sourcemedia::transportStream());
    ASSERT_TRUE(movie);
    EXPECT_EQ(movie->format, "mpegts");
    ASSERT_TRUE(movie->videoTrack);
    EXPECT_FALSE(movie->videoTrack->isMuxable()) << "timestamps may jump: always encode";
    EXPECT_TRUE(movie->isEncodeable());
}

TEST(MovieOpening, M4VChapterStreamIsNotATrack)
{
    auto movie = open(sourcemedia::m4v());
    ASSERT_TRUE(movie);
    EXPECT_TRUE(movie->isUpdateable);
    ASSERT_EQ(movie->tracks.size(), 3u) << "video, audio, subtitles; the chapter text stream is chapters";
    auto subtitle = std::dynamic_pointer_cast<QXSubtitleTrack>(movie->tracks[2]);
    ASSERT_TRUE(subtitle);
    EXPECT_TRUE(subtitle->isMuxable());
    ASSERT_TRUE(movie->chapters);
    EXPECT_EQ(movie->chapters->chapters.size(), 3u);
    EXPECT_NE(movie->chapters->trackID, 0);
    EXPECT_EQ(movie->streams.size(), 4u);
}

TEST(MovieOpening, TrackReferencesFromTheMP4Layer)
{
    // Copy the source and give it references: the second audio track falls
    // back to the first, the first follows the first subtitle, which has
    // the second as its forced track.
    const auto dir = qxtest::makeTempDir("references");
    const auto path = dir / "references.mp4";
    std::filesystem::copy_file(sourcemedia::multiTrackMP4(), path);
    {
        auto file = mp4::MP4File::modify(path);
        ASSERT_TRUE(file);
        file->track(2)->addReference(mp4::fourcc("folw"), 4);
        file->track(3)->addReference(mp4::fourcc("fall"), 2);
        file->track(4)->addReference(mp4::fourcc("forc"), 5);
        file->track(5)->setFlags(1);
        file->track(5)->setName("Forced");
        ASSERT_TRUE(file->close());
    }
    auto movie = open(path);
    ASSERT_TRUE(movie);
    ASSERT_EQ(movie->tracks.size(), 5u);
    auto ac3 = std::dynamic_pointer_cast<QXAudioTrack>(movie->trackWithID(2));
    auto aac = std::dynamic_pointer_cast<QXAudioTrack>(movie->trackWithID(3));
    auto subtitle = std::dynamic_pointer_cast<QXSubtitleTrack>(movie->trackWithID(4));
    auto forced = std::dynamic_pointer_cast<QXSubtitleTrack>(movie->trackWithID(5));
    ASSERT_TRUE(ac3 && aac && subtitle && forced);
    EXPECT_EQ(aac->fallback_track, ac3);
    EXPECT_EQ(ac3->subtitle_track, subtitle);
    EXPECT_EQ(subtitle->forced_track, forced);
    // The tx3g description's flags come after the name's mark and replace it.
    EXPECT_EQ(forced->forcedFlag(), 0u);
    EXPECT_TRUE(forced->enabled) << "tkhd flags from the MP4 layer";
}

TEST(MovieOpening, JoinedFilesOpenAsOne)
{
    const auto first = sourcemedia::transportStream();
    auto movie = QXMovie::initWithURLs({first, first});
    ASSERT_TRUE(movie);
    EXPECT_EQ(movie->avPath, "concat:" + first.string() + "|" + first.string());
    EXPECT_EQ(movie->fileSize, 2 * std::filesystem::file_size(first));
    auto single = open(first);
    ASSERT_TRUE(single);
    EXPECT_EQ(movie->fileHash, single->fileHash) << "the hash is that of the first file";
}

TEST(MovieOpening, WideSubtitleFileIsRewrittenAndNamesItsLanguage)
{
    const auto dir = qxtest::makeTempDir("subtitles");
    const auto path = dir / "Film.de.SRT";
    // UTF-16LE with a BOM.
    std::string wide = "\xff\xfe";
    for (char c : sourcemedia::srtText()) {
        wide += c;
        wide += '\0';
    }
    qxtest::writeFile(path, wide);
    auto movie = open(path);
    ASSERT_TRUE(movie);
    EXPECT_EQ(qxtest::readFile(path), sourcemedia::srtText()) << "rewritten as UTF-8";
    ASSERT_EQ(movie->tracks.size(), 1u);
    EXPECT_EQ(movie->tracks[0]->language, "de");

    const auto unknown = dir / "Film.xx.srt";
    qxtest::writeFile(unknown, "1\n00:00:01,000 --> 00:00:02,000\nDas ist ein ganz normaler deutscher Satz, der "
                               "hoffentlich erkannt wird.\n\n2\n00:00:03,000 --> 00:00:04,000\nUnd noch einer, "
                               "damit die Erkennung genug Text hat.\n\n");
    auto guessed = open(unknown);
    ASSERT_TRUE(guessed);
    EXPECT_EQ(guessed->tracks[0]->language, "de") << "from the text";
}

TEST(MovieOpening, DamagedMP4OpensButIsNotUpdateable)
{
    const auto dir = qxtest::makeTempDir("damaged");
    const auto path = dir / "damaged.mp4";
    std::filesystem::copy_file(sourcemedia::hevcEac3(), path);
    // Append a box with an empty type at the end of moov.
    std::string bytes = qxtest::readFile(path);
    const size_t moov = bytes.find("moov") - 4;
    auto* p = reinterpret_cast<uint8_t*>(bytes.data() + moov);
    uint32_t size = uint32_t(p[0]) << 24 | uint32_t(p[1]) << 16 | uint32_t(p[2]) << 8 | p[3];
    const std::string suspect("\0\0\0\x08\0\0\0\0", 8);
    bytes.insert(moov + size, suspect);
    size += 8;
    p = reinterpret_cast<uint8_t*>(bytes.data() + moov);
    p[0] = uint8_t(size >> 24), p[1] = uint8_t(size >> 16), p[2] = uint8_t(size >> 8), p[3] = uint8_t(size);
    // The samples behind moov moved by 8 bytes; opening does not read them.
    qxtest::writeFile(path, bytes);
    auto movie = open(path);
    ASSERT_TRUE(movie);
    EXPECT_FALSE(movie->isUpdateable);
    ASSERT_TRUE(movie->error());
    EXPECT_EQ(movie->error()->code(), -13003);
}

TEST(MovieOpening, GarbageAndTruncatedFilesFailCleanly)
{
    const auto dir = qxtest::makeTempDir("garbage");
    const auto garbage = dir / "garbage.mkv";
    std::string noise(100000, '\0');
    for (size_t i = 0; i < noise.size(); ++i) noise[i] = char((i * 2654435761u) >> 13);
    qxtest::writeFile(garbage, noise);
    QXErrorRef error;
    EXPECT_FALSE(QXMovie::initWithURL(garbage, &error));
    ASSERT_TRUE(error);
    EXPECT_EQ(error->domain(), QXMediaErrorDomain);

    const auto truncated = dir / "truncated.mkv";
    const std::string whole = qxtest::readFile(sourcemedia::matroska());
    for (size_t length : {size_t(200), whole.size() / 3}) {
        qxtest::writeFile(truncated, whole.substr(0, length));
        QXErrorRef truncatedError;
        auto movie = QXMovie::initWithURL(truncated, &truncatedError);
        EXPECT_TRUE(movie || truncatedError) << length;
    }
    QXErrorRef missing;
    EXPECT_FALSE(QXMovie::initWithURL(dir / "missing.mp4", &missing));
    EXPECT_TRUE(missing);
}
