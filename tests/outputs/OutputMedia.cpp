#include "OutputMedia.h"

#include <string>

#include "support/TestMedia.h"

namespace outputmedia {

namespace {

const std::string kVideo = "-f lavfi -i testsrc2=size=160x90:rate=25:duration=2 ";
const std::string kH264 = " -c:v libx264 -preset ultrafast -bf 3 -pix_fmt yuv420p";
const std::string kTone48 = "-f lavfi -i sine=frequency=440:sample_rate=48000:duration=2 ";
const std::string kTone44 = "-f lavfi -i sine=frequency=660:sample_rate=44100:duration=2 ";

} // namespace

std::filesystem::path matroska()
{
    return qxtest::generate("outputs-source.mkv", kVideo + kTone48 + kTone44 + "-map 0:v -map 1:a -map 2:a" + kH264 +
                                                      " -c:a:0 ac3 -ac:a:0 6 -c:a:1 aac -ac:a:1 2");
}

std::filesystem::path mp4()
{
    return qxtest::generate("outputs-source.mp4", kVideo + kTone44 + kH264 + " -c:a aac -ac 2");
}

std::filesystem::path avi()
{
    return qxtest::generate("outputs-source.avi",
                            kVideo + "-c:v libx264 -preset ultrafast -bf 2 -b_strategy 0 -pix_fmt yuv420p");
}

std::filesystem::path hevc()
{
    return qxtest::generate("outputs-hevc.mp4", kVideo + "-c:v libx265 -preset ultrafast -tag:v hvc1 "
                                                         "-x265-params log-level=error -pix_fmt yuv420p");
}

std::filesystem::path subtitled()
{
    const auto srt = qxtest::mediaDir() / "outputs-subs.srt";
    qxtest::writeFile(srt, "1\n00:00:00,500 --> 00:00:01,500\nOne\n\n");
    return qxtest::generate("outputs-subtitled.mkv", kVideo + "-i '" + srt.string() + "'" + kH264 + " -c:s srt");
}

} // namespace outputmedia
