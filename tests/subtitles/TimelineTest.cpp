// The subtitle timeline leaves the outputs gapless and without overlaps:
// converted subtitles cut the earlier of two overlapping lines, copied tx3g
// cuts the later one; gaps become empty samples, and converted tracks end
// with an empty sample of one tick.

#include <gtest/gtest.h>

#include "TX3GReading.h"
#include "qxmedia/platform/coremedia/CMBlockBuffer.h"
#include "qxmedia/reader/QXTrackReaderSubtitleOutput.h"
#include "qxmedia/source/QXMovie.h"
#include "support/TestMedia.h"

using namespace qx;
using namespace subtitletest;

namespace {

struct Span {
    int64_t start, duration;
    std::string text; // "" for an empty sample
    bool operator==(const Span&) const = default;
};

std::ostream& operator<<(std::ostream& out, const Span& span)
{
    return out << "{" << span.start << "+" << span.duration << " '" << span.text << "'}";
}

std::vector<uint8_t> bytesOf(const CMSampleBufferRef& sample)
{
    const CMBlockBufferRef data = CMSampleBufferGetDataBuffer(sample);
    std::vector<uint8_t> bytes(CMBlockBufferGetDataLength(data));
    CMBlockBufferCopyDataBytes(data, 0, bytes.size(), bytes.data());
    return bytes;
}

// Feeds the spans (text as the sample's bytes, times in `timescale`), then
// the end, and reads what left the output, in milliseconds.
std::vector<Span> run(QXTrackReaderOutput& output, const std::vector<Span>& input, int32_t timescale,
                      bool tx3gInput)
{
    for (const Span& span : input) {
        std::vector<uint8_t> bytes = tx3gInput ? QXTX3GSampleFromString(span.text, false)
                                               : std::vector<uint8_t>(span.text.begin(), span.text.end());
        output.processSample(QXTX3GSampleBuffer(bytes, CMTimeMake(span.start * timescale / 1000, timescale),
                                                CMTimeMake(span.duration * timescale / 1000, timescale)));
    }
    output.processSample(nullptr);
    std::vector<Span> result;
    while (CMSampleBufferRef sample = output.copyNextSample()) {
        const CMTime start = CMTimeConvertScale(CMSampleBufferGetPresentationTimeStamp(sample), 1000,
                                                kCMTimeRoundingMethod_Default);
        const CMTime duration = CMSampleBufferGetDuration(sample);
        // The closing sample of one tick is kept in ticks so it shows.
        const int64_t length = duration.value == 1 ? 1
                                                   : CMTimeConvertScale(duration, 1000, kCMTimeRoundingMethod_Default).value;
        result.push_back({start.value, length, parseTX3G(bytesOf(sample)).text});
    }
    return result;
}

struct TimelineCase {
    const char* name;
    std::vector<Span> input;
    std::vector<Span> converted;
    std::vector<Span> copied;
    const char* convertedLog;
    const char* copiedLog;
};

const std::vector<TimelineCase> kCases {
    {"first line late fills from zero", {{10000, 2000, "A"}},
     {{0, 10000, ""}, {10000, 2000, "A"}, {12000, 1, ""}},
     {{0, 10000, ""}, {10000, 2000, "A"}}, nullptr, nullptr},
    {"overlap", {{1000, 2000, "A"}, {2000, 2000, "B"}},
     {{0, 1000, ""}, {1000, 1000, "A"}, {2000, 2000, "B"}, {4000, 1, ""}},
     {{0, 1000, ""}, {1000, 2000, "A"}, {3000, 1000, "B"}}, nullptr, "Adjusting start of Subtitle"},
    {"contained line", {{1000, 4000, "A"}, {2000, 2000, "B"}},
     {{0, 1000, ""}, {1000, 1000, "A"}, {2000, 2000, "B"}, {4000, 1, ""}},
     {{0, 1000, ""}, {1000, 4000, "A"}}, nullptr, "Ignoring late Subtitle"},
    {"gap", {{1000, 1000, "A"}, {3000, 500, "B"}},
     {{0, 1000, ""}, {1000, 1000, "A"}, {2000, 1000, ""}, {3000, 500, "B"}, {3500, 1, ""}},
     {{0, 1000, ""}, {1000, 1000, "A"}, {2000, 1000, ""}, {3000, 500, "B"}}, nullptr, nullptr},
    {"line before the held one", {{2000, 1000, "A"}, {1000, 500, "B"}},
     {{0, 2000, ""}, {2000, 1000, "A"}, {3000, 1, ""}},
     {{0, 2000, ""}, {2000, 1000, "A"}}, "Ignoring late subtitle sample", "Ignoring late Subtitle"},
};

class Timeline : public ::testing::TestWithParam<TimelineCase> {
protected:
    static void SetUpTestSuite()
    {
        const auto srt = qxtest::mediaDir() / "timeline.srt";
        qxtest::writeFile(srt, "1\n00:00:01,000 --> 00:00:02,000\nx\n\n");
        movie = QXMovie::initWithURL(srt);
    }
    static void TearDownTestSuite() { movie.reset(); }
    static inline std::shared_ptr<QXMovie> movie;
};

} // namespace

TEST_P(Timeline, ConvertedSubtitlesAreCutAtTheNextStart)
{
    ASSERT_TRUE(movie && movie->tracks.size() == 1);
    const TimelineCase& c = GetParam();
    qxtest::LogCapture log;
    auto destination = QXSubtitleTrack::initWithTrack(*movie->tracks[0]);
    auto output = QXTrackReaderSubtitleOutput::initWithSource(movie->tracks[0], destination);
    const int32_t timescale = int32_t(movie->tracks[0]->naturalTimeScale);
    EXPECT_EQ(run(*output, c.input, timescale, false), c.converted);
    if (c.convertedLog) {
        EXPECT_TRUE(log.contains(c.convertedLog));
    }
}

TEST_P(Timeline, CopiedTimedTextIsCutAtThePreviousEnd)
{
    const TimelineCase& c = GetParam();
    qxtest::LogCapture log;
    auto source = QXSubtitleTrack::init();
    source->naturalTimeScale = 90000;
    auto destination = QXSubtitleTrack::initWithTrack(*source);
    destination->naturalTimeScale = 600;
    auto output = QXTrackReaderRawSubtitleOutput::initWithSource(source, destination);
    EXPECT_EQ(run(*output, c.input, 90000, true), c.copied);
    if (c.copiedLog) {
        EXPECT_TRUE(log.contains(c.copiedLog));
    }
}

INSTANTIATE_TEST_SUITE_P(Subtitles, Timeline, ::testing::ValuesIn(kCases), [](const auto& info) {
    std::string name = info.param.name;
    for (char& c : name) c = std::isalnum(static_cast<unsigned char>(c)) ? c : '_';
    return name;
});
