#include "ReaderMedia.h"

#include <string>
#include <unistd.h>
#include <vector>

#include "support/TestMedia.h"

namespace readermedia {

namespace {

const std::string kVideo = "-f lavfi -i testsrc2=size=160x90:rate=25";
const std::string kTone = "-f lavfi -i sine=frequency=440:sample_rate=48000";
const std::string kH264 = " -c:v libx264 -preset ultrafast -pix_fmt yuv420p";

std::filesystem::path srtFile()
{
    const auto path = qxtest::mediaDir() / "reader-subs.srt";
    if (!std::filesystem::exists(path)) {
        qxtest::writeFile(path, "1\n00:00:01,000 --> 00:00:02,000\nOne\n\n2\n00:00:02,500 --> 00:00:03,000\nTwo\n\n");
    }
    return path;
}

std::filesystem::path tsPart(const std::string& name, double seconds, int offset)
{
    const std::string d = ":duration=" + std::to_string(seconds);
    return qxtest::generate(name, kVideo + d + " " + kTone + d + kH264 + " -c:a aac -output_ts_offset " +
                                      std::to_string(offset) + " -f mpegts");
}

// Concatenates files into `name` in the media folder, once.
std::filesystem::path joined(const std::string& name, const std::vector<std::filesystem::path>& parts)
{
    const auto path = qxtest::mediaDir() / name;
    if (std::filesystem::exists(path)) return path;
    std::string command = "cat";
    for (const auto& part : parts) {
        if (part.empty()) return {};
        command += " '" + part.string() + "'";
    }
    const auto partial = qxtest::mediaDir() / ("partial-" + std::to_string(::getpid()) + "-" + name);
    if (qxtest::run(command + " > '" + partial.string() + "'") != 0) return {};
    std::filesystem::rename(partial, path);
    return path;
}

} // namespace

std::filesystem::path matroska()
{
    return qxtest::generate("reader-source.mkv", kVideo + ":duration=4 " + kTone + ":duration=4 " + kTone +
                                                     ":duration=4 -i '" + srtFile().string() +
                                                     "' -map 0:v -map 1:a -map 2:a -map 3" + kH264 +
                                                     " -c:a:0 ac3 -c:a:1 aac -c:s srt");
}

std::filesystem::path lacedMatroska()
{
    const auto path = qxtest::mediaDir() / "reader-laced.mkv";
    const auto source = matroska();
    if (std::filesystem::exists(path) || source.empty()) return path;
    const auto partial = qxtest::mediaDir() / ("partial-" + std::to_string(::getpid()) + "-reader-laced.mkv");
    if (qxtest::run("mkvmerge -q -o '" + partial.string() + "' '" + source.string() + "'") != 0) return {};
    std::filesystem::rename(partial, path);
    return path;
}

std::filesystem::path concatWithMissingPart()
{
    const auto path = qxtest::mediaDir() / "reader-missing-part.ffconcat";
    const auto first = matroska();
    if (first.empty()) return {};
    if (!std::filesystem::exists(path)) {
        qxtest::writeFile(path, "ffconcat version 1.0\nfile '" + first.filename().string() +
                                    "'\nfile 'reader-never-made.mkv'\n");
    }
    return path;
}

std::filesystem::path subtitleFile()
{
    return srtFile();
}

std::filesystem::path mp4()
{
    return qxtest::generate("reader-source.mp4", kVideo + ":duration=4 " + kTone +
                                                     ":duration=4 -c:v libx264 -preset veryfast -bf 2 -c:a aac");
}

std::filesystem::path transportStream()
{
    return tsPart("reader-source.ts", 4, 0);
}

std::filesystem::path cutTransportStream()
{
    const auto whole = qxtest::generate("reader-gop.ts", kVideo + ":duration=12 " + kTone + ":duration=12" + kH264 +
                                                             " -x264-params keyint=150:min-keyint=150:scenecut=0"
                                                             " -c:a aac -f mpegts");
    if (whole.empty()) return {};
    const auto path = qxtest::mediaDir() / "reader-cut.ts";
    if (std::filesystem::exists(path)) return path;
    // Drop the first tenth, on a transport packet boundary.
    const auto packets = std::filesystem::file_size(whole) / 188;
    const auto partial = qxtest::mediaDir() / ("partial-" + std::to_string(::getpid()) + "-reader-cut.ts");
    if (qxtest::run("dd if='" + whole.string() + "' of='" + partial.string() + "' bs=188 skip=" +
                    std::to_string(packets / 10) + " status=none") != 0) {
        return {};
    }
    std::filesystem::rename(partial, path);
    return path;
}

std::filesystem::path jumpingTransportStream()
{
    return joined("reader-jump.ts", {tsPart("reader-jump-a.ts", 3, 0), tsPart("reader-jump-b.ts", 3, 100),
                                     jumpingTransportStreamStraggler(), tsPart("reader-jump-d.ts", 2, 103)});
}

std::filesystem::path jumpingTransportStreamStraggler()
{
    return tsPart("reader-jump-c.ts", 0.5, 3);
}

std::filesystem::path videoJump(int jumpMs)
{
    // The first part's last frame decodes at 1.4 + 0.96 s; the second starts
    // at 1.4 s plus its offset.
    auto part = [](const std::string& name, const std::string& offset) {
        return qxtest::generate(name, "-f lavfi -i testsrc2=size=64x36:rate=25:duration=1" + kH264 +
                                          " -output_ts_offset " + offset + " -f mpegts");
    };
    const std::string offset = jumpMs == 900 ? "1.86" : "1.96";
    return joined("reader-video-jump-" + std::to_string(jumpMs) + ".ts",
                  {part("reader-video-0.ts", "0"), part("reader-video-" + offset + ".ts", offset)});
}

std::filesystem::path rawFrame(long bytes)
{
    // 4096 x 2048 RGBA is 2^25 bytes; 1801 x 18631 grey is one byte less
    // (made grey at the source, so that no chroma step rounds the size).
    const bool whole = bytes == 33554432;
    return qxtest::generate(whole ? "reader-raw-32m.nut" : "reader-raw-32m-1.nut",
                            std::string("-f lavfi -i color=black:rate=1:duration=1:size=") +
                                (whole ? "4096x2048,format=rgba" : "1801x18631,format=gray") +
                                " -c:v rawvideo -f nut");
}

} // namespace readermedia
