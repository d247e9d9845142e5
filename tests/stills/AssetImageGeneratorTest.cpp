// QXAssetImageGenerator against the frames `ffmpeg -ss T -frames:v 1`
// decodes (PSNR of at least 40 dB), and cancelling.

#include <cmath>
#include <algorithm>
#include <condition_variable>
#include <mutex>

#include <gtest/gtest.h>

extern "C" {
#include <libavutil/error.h>
}

#include "qxmedia/platform/image/QXImage.h"
#include "qxmedia/source/QXAssetImageGenerator.h"
#include "qxmedia/source/QXMovie.h"
#include "support/TestMedia.h"

namespace {

using qx::CMTimeGetSeconds;
using qx::CMTimeMakeWithSeconds;

struct Source {
    const char* name;
    const char* arguments;
    double frameSeconds;
    double lastFrame; // time of the last picture
    // ffmpeg -ss answers the picture before the one shown at T in program
    // streams (its guessed B-frame times); there only the times are checked.
    bool matchFFmpeg = true;
};

const Source kSources[] = {
    {"stills-h264.mp4", "-f lavfi -i testsrc2=size=320x240:rate=25:duration=4 -c:v libx264 -bf 3 -g 50", 0.04, 3.96},
    {"stills-mpeg2.mpg", "-f lavfi -i testsrc2=size=352x288:rate=25:duration=4 -c:v mpeg2video -bf 2 -g 12 -q:v 3",
     0.04, 3.96, false},
    {"stills-hevc.mkv", "-f lavfi -i testsrc2=size=320x240:rate=30000/1001:duration=4 -c:v libx265 -x265-params "
                        "log-level=none:bframes=4",
     1001.0 / 30000, 4 - 1001.0 / 30000},
};

// PSNR over RGB of our picture (RGBA) and ffmpeg's packed RGB bytes.
double psnr(const QXImage& image, const std::string& rgb)
{
    const size_t pixels = size_t(image.pixelsWide()) * image.pixelsHigh();
    if (rgb.size() != pixels * 3) return 0;
    double squared = 0;
    for (size_t i = 0; i < pixels; ++i) {
        for (int c = 0; c < 3; ++c) {
            const double d = double(image.bitmapData()[i * 4 + c]) - double(uint8_t(rgb[i * 3 + c]));
            squared += d * d;
        }
    }
    const double mse = squared / double(pixels * 3);
    return mse == 0 ? 99 : 10 * std::log10(255.0 * 255.0 / mse);
}

std::shared_ptr<QXAssetImageGenerator> generatorFor(const std::filesystem::path& path)
{
    QXErrorRef error;
    auto movie = QXMovie::initWithURLs({path}, &error);
    return movie ? QXAssetImageGenerator::initWithAsset(movie) : nullptr;
}

class AssetImageGenerator : public testing::TestWithParam<Source> {};

TEST_P(AssetImageGenerator, PicturesMatchFFmpegAtTheRequestedTimes)
{
    const Source& source = GetParam();
    const auto path = qxtest::generate(source.name, source.arguments);
    ASSERT_FALSE(path.empty());
    auto generator = generatorFor(path);
    ASSERT_TRUE(generator);
    // Out of order on purpose: every call seeks on the context it keeps open.
    for (double seconds : {1.0, 0.0, 2.52, 1.5, 3.0}) {
        SCOPED_TRACE(seconds);
        qx::CMTime actual = qx::kCMTimeInvalid;
        QXErrorRef error;
        auto image = generator->copyCGImageAtTime(CMTimeMakeWithSeconds(seconds, 600), &actual, &error);
        ASSERT_TRUE(image);
        EXPECT_GE(CMTimeGetSeconds(actual), seconds - 1e-6);
        EXPECT_LT(CMTimeGetSeconds(actual), seconds + source.frameSeconds - 1e-6);

        if (!source.matchFFmpeg) continue;
        std::string rgb;
        char command[512];
        std::snprintf(command, sizeof command,
                      "ffmpeg -nostdin -v error -ss %.3f -i '%s' -frames:v 1 -f rawvideo -pix_fmt rgb24 -", seconds,
                      path.c_str());
        ASSERT_EQ(qxtest::run(command, &rgb), 0);
        EXPECT_GE(psnr(*image, rgb), 40.0);
    }
    // Past the end: the last picture, with its own time.
    qx::CMTime actual = qx::kCMTimeInvalid;
    EXPECT_TRUE(generator->copyCGImageAtTime(CMTimeMakeWithSeconds(60, 600), &actual));
    EXPECT_NEAR(CMTimeGetSeconds(actual), source.lastFrame, 0.005); // Matroska keeps milliseconds
}

INSTANTIATE_TEST_SUITE_P(Sources, AssetImageGenerator, testing::ValuesIn(kSources),
                         [](const auto& info) {
                             std::string name = std::string(info.param.name).substr(7);
                             std::replace(name.begin(), name.end(), '.', '_');
                             return name;
                         });

// Collects the answers of an asynchronous request.
struct Answers {
    std::mutex lock;
    std::condition_variable changed;
    std::vector<QXAssetImageGeneratorResult> results;
    std::vector<double> requested;

    QXAssetImageGeneratorCompletionHandler handler()
    {
        return [this](qx::CMTime time, std::shared_ptr<QXImage> image, qx::CMTime, QXAssetImageGeneratorResult result,
                      QXErrorRef) {
            std::lock_guard guard(lock);
            EXPECT_EQ(bool(image), result == QXAssetImageGeneratorSucceeded);
            results.push_back(result);
            requested.push_back(CMTimeGetSeconds(time));
            changed.notify_all();
        };
    }
    bool waitFor(size_t count)
    {
        std::unique_lock guard(lock);
        return changed.wait_for(guard, std::chrono::seconds(60), [&] { return results.size() >= count; });
    }
};

TEST(AssetImageGeneratorAsync, CancelAnswersThePendingTimesAndANewRequestRunsAgain)
{
    const auto path = qxtest::generate(kSources[0].name, kSources[0].arguments);
    auto generator = generatorFor(path);
    ASSERT_TRUE(generator);

    std::vector<qx::CMTime> times;
    for (int i = 0; i < 40; ++i) times.push_back(CMTimeMakeWithSeconds(i * 0.1, 600));
    Answers cancelledRun;
    generator->generateCGImagesAsynchronouslyForTimes(times, cancelledRun.handler());
    generator->cancelAllCGImageGeneration();
    ASSERT_TRUE(cancelledRun.waitFor(times.size()));
    {
        std::lock_guard guard(cancelledRun.lock);
        EXPECT_EQ(cancelledRun.results.size(), times.size());
        EXPECT_GT(std::count(cancelledRun.results.begin(), cancelledRun.results.end(), QXAssetImageGeneratorCancelled),
                  0);
        EXPECT_EQ(std::count(cancelledRun.results.begin(), cancelledRun.results.end(), QXAssetImageGeneratorFailed), 0);
    }

    Answers secondRun;
    generator->generateCGImagesAsynchronouslyForTimes({CMTimeMakeWithSeconds(0.5, 600), CMTimeMakeWithSeconds(2, 600)},
                                                      secondRun.handler());
    ASSERT_TRUE(secondRun.waitFor(2));
    std::lock_guard guard(secondRun.lock);
    EXPECT_EQ(std::count(secondRun.results.begin(), secondRun.results.end(), QXAssetImageGeneratorSucceeded), 2);
}

} // namespace
