#include <gtest/gtest.h>

extern "C" {
#include <libavcodec/codec_id.h>
}

#include "qxmedia/job/QXJob.h"
#include "qxmedia/job/QXPreset.h"
#include "qxmedia/source/QXMovie.h"
#include "qxmedia/source/QXVideoTrack.h"

TEST(JobLifecycle, ChunkOffsetsWidenAboveTheCodecsLimit)
{
    const std::tuple<int32_t, uint64_t, bool> cases[] = {
        {AV_CODEC_ID_H264, 0x40000000, false}, {AV_CODEC_ID_H264, 0x40000001, true}, {0, 0x40000001, true},
        {AV_CODEC_ID_HEVC, 0x20000000, false}, {AV_CODEC_ID_HEVC, 0x20000001, true}, {AV_CODEC_ID_VP9, 0x20000001, true},
    };
    for (const auto& [codec, size, wide] : cases) {
        auto movie = std::make_shared<QXMovie>(std::vector<QXURL> {});
        movie->fileSize = size;
        if (codec) {
            movie->tracks.push_back(QXVideoTrack::init());
            movie->tracks.back()->codec_id = codec;
        }
        EXPECT_EQ(QXJob::initWithMovie(movie, QXPreset::initWithIdentifier(QXPresetApple1080p))->use64BitData, wide)
            << codec << " " << size;
    }
}
