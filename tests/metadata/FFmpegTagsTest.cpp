// Tags as FFmpeg's demuxers hand them over: files tagged by ffmpeg, read
// back by ffprobe, imported from the entries ffprobe shows. The MP4
// demuxer names keys in lower case, the Matroska one in upper case.

#include <gtest/gtest.h>

#include <filesystem>
#include <sstream>

extern "C" {
#include <libavutil/dict.h>
}

#include "qxmedia/metadata/QXMetaData.h"
#include "support/TestMedia.h"

namespace {

void expectImported(const std::filesystem::path& file)
{
    std::string text;
    ASSERT_EQ(qxtest::run("ffprobe -v error -show_entries format_tags -of default=nw=1 '" + file.string() + "'", &text),
              0);
    AVDictionary* tags = nullptr;
    std::istringstream lines(text);
    for (std::string line; std::getline(lines, line);) {
        const size_t equals = line.find('=');
        if (line.rfind("TAG:", 0) != 0 || equals == std::string::npos) continue;
        av_dict_set(&tags, line.substr(4, equals - 4).c_str(), line.substr(equals + 1).c_str(), 0);
    }
    ASSERT_TRUE(av_dict_get(tags, "date", nullptr, 0)) << text;

    auto record = QXMetaData::initWithDictionary(tags);
    av_dict_free(&tags);
    ASSERT_TRUE(record);
    ASSERT_TRUE(record->releaseDate.get());
    EXPECT_EQ(QXMetaData::formattedDate(*record->releaseDate.get()).substr(0, 10), "2021-05-04");
    EXPECT_EQ(record->episodeNumber, 7u);
    ASSERT_TRUE(record->artist.get());
    EXPECT_EQ(*record->artist.get(), "Someone");
}

} // namespace

TEST(FFmpegTags, KeysOfEachContainerReachTheRecord)
{
    for (const char* name : {"ffmpeg-tags.m4a", "ffmpeg-tags.mka"}) {
        SCOPED_TRACE(name);
        const auto file = qxtest::generate(name, "-f lavfi -i sine=duration=0.2 -metadata date=2021-05-04 "
                                                 "-metadata episode_sort=7 -metadata artist=Someone -c:a aac");
        ASSERT_FALSE(file.empty());
        expectImported(file);
    }
}
