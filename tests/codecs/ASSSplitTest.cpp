// ASS scripts and dialogue lines split into their fields, and override codes into callbacks.

#include <gtest/gtest.h>

#include <cstdio>

extern "C" {
#include <libavcodec/avcodec.h>
#include <libavformat/avformat.h>
}

#include "qxmedia/platform/codecs/ASSOverrideCodes.h"
#include "qxmedia/platform/codecs/ASSSplit.h"
#include "support/TestMedia.h"

using namespace qx;

namespace {

const char* kSrt = "1\n00:00:01,000 --> 00:00:02,500\n<b>Bold</b> and <i>italic</i>, with commas\nsecond line\n\n"
                   "2\n00:00:03,000 --> 00:00:04,000\n<font color=\"#ff0000\">Red</font> text\n\n"
                   "3\n00:00:05,000 --> 00:00:06,000\n<u>Ünïcödé</u> {\\an8}top\n";

std::filesystem::path srtFile()
{
    const auto path = qxtest::mediaDir() / "split.srt";
    if (!std::filesystem::exists(path)) qxtest::writeFile(path, kSrt);
    return path;
}

// Records every callback as one line of text.
struct Recorder {
    std::vector<std::string> events;
    void add(const char* format, ...) __attribute__((format(printf, 2, 3)))
    {
        char line[512];
        va_list arguments;
        va_start(arguments, format);
        std::vsnprintf(line, sizeof line, format, arguments);
        va_end(arguments);
        events.emplace_back(line);
    }
};

Recorder& recorder(void* priv) { return *static_cast<Recorder*>(priv); }

const ASSCodesCallbacks kRecordingCallbacks = {
    [](void* p, const char* text, int length) { recorder(p).add("text %.*s", length, text); },
    [](void* p, int forced) { recorder(p).add("newline %d", forced); },
    [](void* p, char style, int close) { recorder(p).add("style %c %d", style, close); },
    [](void* p, unsigned color, unsigned id) { recorder(p).add("color %06x %u", color, id); },
    nullptr, nullptr, nullptr, // alpha, font and size
    [](void* p, int alignment) { recorder(p).add("align %d", alignment); },
    nullptr, // style reset
    [](void* p, int x1, int y1, int x2, int y2, int t1, int t2) {
        recorder(p).add("move %d %d %d %d %d %d", x1, y1, x2, y2, t1, t2);
    },
    [](void* p, int x, int y) { recorder(p).add("origin %d %d", x, y); },
    [](void* p) { recorder(p).add("end"); },
};

std::vector<std::string> split(std::string_view text, int* result = nullptr)
{
    Recorder r;
    const int status = assSplitOverrideCodes(kRecordingCallbacks, &r, text);
    if (result) *result = status;
    return r.events;
}

using Events = std::vector<std::string>;

} // namespace

// The path of a decoded text subtitle: the decoder's subtitle header and
// its dialogue packets.
TEST(ASSSplit, DecoderHeaderAndPackets)
{
    AVFormatContext* format = nullptr;
    ASSERT_GE(avformat_open_input(&format, srtFile().c_str(), nullptr, nullptr), 0);
    ASSERT_GE(avformat_find_stream_info(format, nullptr), 0);
    const AVCodec* codec = avcodec_find_decoder(format->streams[0]->codecpar->codec_id);
    ASSERT_NE(codec, nullptr);
    AVCodecContext* decoder = avcodec_alloc_context3(codec);
    avcodec_parameters_to_context(decoder, format->streams[0]->codecpar);
    ASSERT_GE(avcodec_open2(decoder, codec, nullptr), 0);
    ASSERT_NE(decoder->subtitle_header, nullptr);

    const auto context = ASSSplitContext::create(reinterpret_cast<const char*>(decoder->subtitle_header));
    ASSERT_TRUE(context);
    EXPECT_NE(context->style("Default"), nullptr);

    std::vector<std::string> texts;
    AVPacket* packet = av_packet_alloc();
    while (av_read_frame(format, packet) >= 0) {
        AVSubtitle subtitle {};
        int got = 0;
        if (avcodec_decode_subtitle2(decoder, &subtitle, &got, packet) >= 0 && got) {
            for (unsigned i = 0; i < subtitle.num_rects; ++i) {
                const std::string line = subtitle.rects[i]->ass ? subtitle.rects[i]->ass : "";
                EXPECT_TRUE(context->splitDialog(line).empty()) << line;
                const auto dialog = context->splitDialog2(line);
                ASSERT_TRUE(dialog) << line;
                EXPECT_EQ(dialog->style, "Default");
                std::string text;
                for (const auto& event : split(dialog->text)) text += event.rfind("text ", 0) ? "" : event.substr(5);
                texts.push_back(text);
            }
        }
        avsubtitle_free(&subtitle);
        av_packet_unref(packet);
    }
    av_packet_free(&packet);
    avcodec_free_context(&decoder);
    avformat_close_input(&format);
    EXPECT_EQ(texts, (std::vector<std::string> {"Bold and italic, with commassecond line", "Red text", "Ünïcödé top"}));
}

TEST(ASSSplit, LegacyStylesFormatsAndLineEndings)
{
    const std::string script = "\xEF\xBB\xBF[Script Info]\r\n"
                               "ScriptType: v4.00\r\n"
                               "[V4 Styles]\r\n"
                               "Format: Name, Fontname, Fontsize, PrimaryColour, SecondaryColour, TertiaryColour, "
                               "BackColour, Bold, Italic, BorderStyle, Outline, Shadow, Alignment, MarginL, MarginR, "
                               "MarginV, AlphaLevel, Encoding\r\n"
                               "Style: Default,Tahoma,24,16777215,65535,&H00FF00&,-2147483640,-1,0,1,2,3,10,15,15,"
                               "20,0,0\r\n"
                               "Style: *Sign,Verdana,18,255,0,0,0,0,-1,1,0,0,6,0,0,0,0,1\r\n"
                               "[Fonts]\r\n"
                               "[Events]\r\n"
                               "Format: Marked, Start, End, Style, Name, MarginL, MarginR, MarginV, Effect, Text\r\n"
                               "Dialogue: Marked=0,0:01:02.5,1:00:00.123,Sign,Bob,0000,0000,0000,,a, b,  c\r\n"
                               "Comment: Marked=0,0:00:00.00,0:00:01.00,Default,,0,0,0,,hidden\r\n";
    const auto context = ASSSplitContext::create(script);
    ASSERT_TRUE(context);
    ASSERT_EQ(context->styles().size(), 2u);
    EXPECT_EQ(context->styles()[0].back_color, 0x80000008u);
    EXPECT_EQ(context->styles()[0].alignment, 5); // legacy 10: middle centre
    EXPECT_EQ(context->style("Sign"), &context->styles()[1]);

    ASSERT_EQ(context->dialogs().size(), 1u);
    EXPECT_EQ(context->dialogs()[0].end, 360012);
    EXPECT_EQ(context->dialogs()[0].text, "a, b,  c");
    // Fields in another order, and a line with too few of them.
    const auto reordered = ASSSplitContext::create("[Events]\nFormat: Start, End, Text, Style\n"
                                                   "Dialogue: 0:00:01.00,0:00:02.00,hello, world\n"
                                                   "Dialogue: 0:00:01.00\n");
    ASSERT_TRUE(reordered && reordered->dialogs().size() == 1u);
    EXPECT_EQ(reordered->dialogs()[0].style, "world");

    EXPECT_FALSE(ASSSplitContext::create(""));
    EXPECT_FALSE(ASSSplitContext::create("just some text\nwithout sections"));
}

TEST(ASSSplit, Times)
{
    const std::pair<const char*, int> cases[] = {{"1:02:03.45", 372345}, {" 0:00:01.5 ", 150}, {"0:00:01.999", 199},
                                                 {"0:61:00.00", -1}, {"0:00", -1}, {"-1:00:00.00", -1}};
    for (const auto& [text, centiseconds] : cases) EXPECT_EQ(assParseTime(text), centiseconds) << text;
}

TEST(ASSOverrideCodes, TagsBecomeCallbacksAndBrokenOnesAreDropped)
{
    const std::pair<const char*, Events> cases[] = {
        {"{\\b1\\i1}x{\\b0\\u1\\b\\b700}z",
         {"style b 0", "style i 0", "text x", "style b 1", "style u 0", "style b -1", "style b 0", "text z", "end"}},
        {"{\\c&H0000FF&\\3c&H123456&\\c}{\\1c&h00ff00}",
         {"color 0000ff 1", "color 123456 3", "color ffffffff 1", "color 00ff00 1", "end"}},
        {"{\\an8}{\\a6\\a10\\a4}", {"align 8", "align 8", "align 5", "align 0", "end"}},
        {"{\\pos(640,360)}a{\\move(1,2,3,4,50,60)\\org(5.6,7)}",
         {"move 640 360 640 360 -1 -1", "text a", "move 1 2 3 4 50 60", "origin 6 7", "end"}},
        {"one\\Ntwo\\nthree\\hfour",
         {"text one", "newline 1", "text two", "newline 0", "text three\xC2\xA0" "four", "end"}},
        // Tags without a use, comments, transforms with tags inside, clips, drawings.
        {"{\\blur2\\fad(10,20)\\t(0,500,\\c&HFF&\\fs40)\\clip(1,2,3,4) a comment \\i1}x{\\p1}m 0 0{\\p0}y",
         {"style i 0", "text x", "text y", "end"}},
        {"{\\pos(1)\\move(1,2)\\pos(a,b)\\org(}z", {"text z", "end"}},
        {"", {"end"}},
    };
    for (const auto& [text, events] : cases) EXPECT_EQ(split(text), events) << text;
    // Escaped braces and a lone backslash stay text; an open block is text.
    int result = 0;
    EXPECT_EQ(split("\\{x\\} a\\b {\\i1", &result), (Events {"text {x} a\\b {\\i1", "end"}));
    EXPECT_EQ(result, -1);
    ASSCodesCallbacks none {}; // callbacks may be left out
    EXPECT_EQ(assSplitOverrideCodes(none, nullptr, "{\\b1\\pos(1,2)}a\\Nb"), 0);
}
