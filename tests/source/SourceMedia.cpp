#include "SourceMedia.h"

#include <unistd.h>

extern "C" {
#include <libavformat/avformat.h>
}

#include "support/TestMedia.h"

namespace sourcemedia {

namespace {

std::filesystem::path sideFile(const std::string& name, const std::string& text)
{
    const auto path = qxtest::mediaDir() / name;
    if (!std::filesystem::exists(path)) qxtest::writeFile(path, text);
    return path;
}

std::filesystem::path chaptersFile()
{
    return sideFile("movie-chapters.ffmeta", ";FFMETADATA1\ntitle=Test Movie\n"
                                       "[CHAPTER]\nTIMEBASE=1/1000\nSTART=0\nEND=2000\ntitle=Opening\n"
                                       "[CHAPTER]\nTIMEBASE=1/1000\nSTART=2000\nEND=4000\ntitle=Middle\n"
                                       "[CHAPTER]\nTIMEBASE=1/1000\nSTART=4000\nEND=6000\ntitle=Ending\n");
}

std::filesystem::path srtFile()
{
    return sideFile("movie-subs.srt", srtText());
}

std::filesystem::path assFile()
{
    return sideFile("movie-subs.ass", "[Script Info]\nScriptType: v4.00+\nPlayResX: 640\nPlayResY: 360\n\n"
                                "[V4+ Styles]\nFormat: Name, Fontname, Fontsize, PrimaryColour, SecondaryColour, "
                                "OutlineColour, BackColour, Bold, Italic, Underline, StrikeOut, ScaleX, ScaleY, "
                                "Spacing, Angle, BorderStyle, Outline, Shadow, Alignment, MarginL, MarginR, "
                                "MarginV, Encoding\n"
                                "Style: Default,Arial,20,&H00FFFFFF,&H000000FF,&H00000000,&H00000000,0,0,0,0,100,"
                                "100,0,0,1,2,0,2,10,10,10,1\n\n"
                                "[Events]\nFormat: Layer, Start, End, Style, Name, MarginL, MarginR, MarginV, "
                                "Effect, Text\n"
                                "Dialogue: 0,0:00:01.00,0:00:02.50,Default,,0,0,0,,Bonjour {\\i1}tout{\\i0} le monde\n"
                                "Dialogue: 0,0:00:03.00,0:00:04.00,Default,,0,0,0,,Au revoir\n");
}

const char* kVideo = "-f lavfi -i testsrc2=size=320x180:rate=25:duration=6 ";

} // namespace

std::string srtText()
{
    return "1\n00:00:01,000 --> 00:00:02,500\nHello world\n\n2\n00:00:03,000 --> 00:00:04,000\nGoodbye\n\n";
}

std::filesystem::path matroska()
{
    const std::string chapters = chaptersFile().string();
    return qxtest::generate(
        "movie-source.mkv",
        std::string(kVideo) +
            "-f lavfi -i sine=frequency=440:sample_rate=48000:duration=6 "
            "-f lavfi -i sine=frequency=880:sample_rate=48000:duration=6 -i '" + srtFile().string() + "' -i '" +
            assFile().string() + "' -i '" + chapters +
            "' -filter_complex \"[1:a]aformat=channel_layouts=5.1[a51];[2:a]aformat=channel_layouts=stereo[a20]\" "
            "-map 0:v -map \"[a51]\" -map \"[a20]\" -map 3 -map 4 -map_metadata 5 -map_chapters 5 "
            "-c:v libx264 -preset ultrafast -crf 30 -pix_fmt yuv420p -c:a:0 ac3 -b:a:0 384k -c:a:1 aac -b:a:1 96k "
            "-c:s:0 srt -c:s:1 ass -metadata:s:a:0 language=eng -metadata:s:a:1 language=fra "
            "-metadata:s:s:0 language=eng -metadata:s:s:1 language=fra -disposition:s:0 default");
}

std::filesystem::path hevcEac3()
{
    return qxtest::generate("movie-hevc-eac3.mp4",
                            "-f lavfi -i testsrc2=size=320x180:rate=25:duration=3 "
                            "-f lavfi -i sine=frequency=440:sample_rate=48000:duration=3 "
                            "-af aformat=channel_layouts=5.1 -c:v libx265 -preset ultrafast -crf 32 -pix_fmt yuv420p "
                            "-tag:v hvc1 -x265-params log-level=error -c:a eac3 -b:a 256k -movflags +faststart");
}

std::filesystem::path transportStream()
{
    return qxtest::generate("movie-source.ts", std::string(kVideo) +
                                             "-f lavfi -i sine=frequency=440:sample_rate=48000:duration=6 "
                                             "-c:v libx264 -preset ultrafast -crf 30 -pix_fmt yuv420p -c:a mp2");
}

std::filesystem::path m4v()
{
    return qxtest::generate("movie-source.m4v", std::string(kVideo) +
                                              "-f lavfi -i sine=frequency=440:sample_rate=48000:duration=6 -i '" +
                                              srtFile().string() + "' -i '" + chaptersFile().string() +
                                              "' -map 0:v -map 1:a -map 2 -map_metadata 3 -map_chapters 3 "
                                              "-c:v libx264 -preset ultrafast -crf 30 -profile:v high -pix_fmt yuv420p "
                                              "-c:a aac -b:a 96k -c:s mov_text -metadata:s:s:0 language=deu "
                                              "-metadata media_type=9 -movflags +faststart -f ipod");
}

std::filesystem::path coverOnly()
{
    const auto cover = qxtest::generate("movie-cover.png", "-f lavfi -i color=c=red:size=64x64 -frames:v 1");
    return qxtest::generate("movie-cover-only.m4a", "-f lavfi -i sine=frequency=440:sample_rate=44100:duration=2 -i '" +
                                                  cover.string() +
                                                  "' -map 0:a -map 1:v -c:a aac -c:v png -disposition:v:0 attached_pic");
}

std::filesystem::path multiTrackMP4()
{
    return qxtest::generate("movie-multi.mp4", std::string(kVideo) +
                                             "-f lavfi -i sine=frequency=440:sample_rate=48000:duration=6 -i '" +
                                             srtFile().string() +
                                             "' -map 0:v -map 1:a -map 1:a -map 2 -map 2 "
                                             "-c:v libx264 -preset ultrafast -crf 30 -pix_fmt yuv420p -c:a:0 ac3 "
                                             "-c:a:1 aac -c:s mov_text");
}

std::filesystem::path vfwMatroska()
{
    const auto path = qxtest::mediaDir() / "track-vfw-h264.mkv";
    if (std::filesystem::exists(path)) return path;
    const auto avi = qxtest::generate("track-vfw-h264.avi",
                                      std::string(kVideo) + "-t 1 -c:v libx264 -preset ultrafast -bf 2 -pix_fmt yuv420p");
    if (avi.empty() || !qxtest::haveTool("mkvmerge")) return {};
    const auto partial = qxtest::mediaDir() / ("partial-" + std::to_string(::getpid()) + "-track-vfw-h264.mkv");
    if (qxtest::run("mkvmerge -q --engage allow_avc_in_vfw_mode -o '" + partial.string() + "' '" + avi.string() +
                    "' >/dev/null 2>&1") > 1) { // 1 is "finished with warnings"
        return {};
    }
    std::filesystem::rename(partial, path);
    return path;
}

OpenedInput::OpenedInput(const std::filesystem::path& path)
{
    if (path.empty() || avformat_open_input(&context, path.c_str(), nullptr, nullptr) < 0) {
        context = nullptr;
        return;
    }
    if (avformat_find_stream_info(context, nullptr) < 0) avformat_close_input(&context);
}

OpenedInput::~OpenedInput()
{
    avformat_close_input(&context);
}

AVStream* OpenedInput::stream(int index) const
{
    return context && index >= 0 && unsigned(index) < context->nb_streams ? context->streams[index] : nullptr;
}

} // namespace sourcemedia
