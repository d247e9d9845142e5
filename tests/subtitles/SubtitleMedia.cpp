#include "SubtitleMedia.h"

#include <algorithm>
#include <fstream>
#include <functional>

#include "support/TestMedia.h"

namespace subtitletest {

namespace {

constexpr const char* kFont = "/usr/share/fonts/truetype/dejavu/DejaVuSans.ttf";
constexpr int kLineWidth = 900, kLineHeight = 56;

void put(std::vector<uint8_t>& out, uint32_t value, int bytes)
{
    for (int i = bytes - 1; i >= 0; --i) out.push_back(uint8_t(value >> (8 * i)));
}

void segment(std::vector<uint8_t>& out, int64_t ms, uint8_t type, const std::vector<uint8_t>& payload)
{
    out.push_back('P');
    out.push_back('G');
    put(out, uint32_t(ms * 90), 4); // presentation time, 90 kHz
    put(out, 0, 4);
    out.push_back(type);
    put(out, uint32_t(payload.size()), 2);
    out.insert(out.end(), payload.begin(), payload.end());
}

// Run-length coding of one line of palette indices.
void encodeLine(std::vector<uint8_t>& out, const uint8_t* line, int width)
{
    for (int x = 0; x < width;) {
        const uint8_t colour = line[x];
        int run = 1;
        while (x + run < width && line[x + run] == colour && run < 16383) ++run;
        if (colour != 0 && run < 3) {
            for (int i = 0; i < run; ++i) out.push_back(colour);
        } else {
            out.push_back(0);
            const bool longRun = run >= 64;
            const uint8_t flags = uint8_t((colour ? 0x80 : 0) | (longRun ? 0x40 : 0));
            if (longRun) {
                out.push_back(uint8_t(flags | (run >> 8)));
                out.push_back(uint8_t(run));
            } else {
                out.push_back(uint8_t(flags | run));
            }
            if (colour) out.push_back(colour);
        }
        x += run;
    }
    out.push_back(0);
    out.push_back(0);
}

std::vector<uint8_t> composition(int width, int height, uint16_t number, bool withObject, bool forced, int x, int y)
{
    std::vector<uint8_t> p;
    put(p, uint32_t(width), 2);
    put(p, uint32_t(height), 2);
    p.push_back(0x10);
    put(p, number, 2);
    p.push_back(withObject ? 0x80 : 0x00); // epoch start, or a normal clearing set
    p.push_back(0);
    p.push_back(0);
    p.push_back(withObject ? 1 : 0);
    if (withObject) {
        put(p, 0, 2);
        p.push_back(0);
        p.push_back(forced ? 0x40 : 0x00);
        put(p, uint32_t(x), 2);
        put(p, uint32_t(y), 2);
    }
    return p;
}

} // namespace

GreyPicture renderLine(const std::string& text)
{
    const std::string key = std::to_string(std::hash<std::string>()(text));
    const auto textFile = qxtest::mediaDir() / ("line-" + key + ".txt");
    qxtest::writeFile(textFile, text);
    const auto raw = qxtest::generate(
        "line-" + key + ".gray",
        "-f lavfi -i color=c=black:s=" + std::to_string(kLineWidth) + "x" + std::to_string(kLineHeight) +
            " -vf \"drawtext=fontfile=" + kFont + ":textfile=" + textFile.string() +
            ":fontcolor=white:fontsize=30:x=10:y=12:borderw=2:bordercolor=black\" -frames:v 1 -pix_fmt gray -f rawvideo");
    GreyPicture picture;
    const std::string bytes = raw.empty() ? std::string() : qxtest::readFile(raw);
    if (bytes.size() != size_t(kLineWidth * kLineHeight)) return picture;
    picture.width = kLineWidth;
    picture.height = kLineHeight;
    picture.pixels.assign(bytes.begin(), bytes.end());
    return picture;
}

void writeSup(const std::filesystem::path& path, const std::vector<PictureEvent>& events, int width, int height)
{
    std::vector<uint8_t> out;
    uint16_t number = 0;
    for (const PictureEvent& event : events) {
        const GreyPicture& picture = event.picture;
        const bool shows = !picture.pixels.empty();
        const int x = shows ? (width - picture.width) / 2 : 0, y = shows ? height - picture.height - 20 : 0;
        segment(out, event.startMs, 0x16, composition(width, height, number++, shows, event.forced, x, y));
        if (shows) {
            std::vector<uint8_t> window {1, 0};
            put(window, uint32_t(x), 2);
            put(window, uint32_t(y), 2);
            put(window, uint32_t(picture.width), 2);
            put(window, uint32_t(picture.height), 2);
            segment(out, event.startMs, 0x17, window);
            // 16 grey levels; level 0 is transparent.
            std::vector<uint8_t> palette {0, 0};
            for (int level = 0; level < 16; ++level) {
                palette.insert(palette.end(), {uint8_t(level), uint8_t(16 + level * 219 / 15), 128, 128,
                                               uint8_t(level ? 255 : 0)});
            }
            segment(out, event.startMs, 0x14, palette);
            std::vector<uint8_t> rle;
            std::vector<uint8_t> line(size_t(picture.width));
            for (int row = 0; row < picture.height; ++row) {
                for (int column = 0; column < picture.width; ++column) {
                    line[size_t(column)] = uint8_t(picture.pixels[size_t(row * picture.width + column)] / 16);
                }
                encodeLine(rle, line.data(), picture.width);
            }
            std::vector<uint8_t> object;
            put(object, 0, 2);
            object.push_back(0);
            object.push_back(0xc0); // first and last fragment
            put(object, uint32_t(rle.size() + 4), 3);
            put(object, uint32_t(picture.width), 2);
            put(object, uint32_t(picture.height), 2);
            object.insert(object.end(), rle.begin(), rle.end());
            segment(out, event.startMs, 0x15, object);
        }
        segment(out, event.startMs, 0x80, {});
        // The clearing set at the event's end.
        segment(out, event.endMs, 0x16, composition(width, height, number++, false, false, 0, 0));
        segment(out, event.endMs, 0x80, {});
    }
    std::ofstream(path, std::ios::binary).write(reinterpret_cast<const char*>(out.data()), std::streamsize(out.size()));
}

std::filesystem::path videoSource(int width, int height, int seconds)
{
    const std::string size = std::to_string(width) + "x" + std::to_string(height);
    return qxtest::generate("subtitle-video-" + size + "-" + std::to_string(seconds) + ".mkv",
                            "-f lavfi -i testsrc2=size=" + size + ":rate=25:duration=" + std::to_string(seconds) +
                                " -c:v libx264 -preset ultrafast -pix_fmt yuv420p");
}

double characterErrorRate(const std::string& recognised, const std::string& reference)
{
    std::vector<size_t> previous(recognised.size() + 1), current(recognised.size() + 1);
    for (size_t j = 0; j <= recognised.size(); ++j) previous[j] = j;
    for (size_t i = 1; i <= reference.size(); ++i) {
        current[0] = i;
        for (size_t j = 1; j <= recognised.size(); ++j) {
            const size_t substitution = previous[j - 1] + (reference[i - 1] == recognised[j - 1] ? 0 : 1);
            current[j] = std::min({previous[j] + 1, current[j - 1] + 1, substitution});
        }
        std::swap(previous, current);
    }
    return reference.empty() ? 0.0 : double(previous[recognised.size()]) / double(reference.size());
}

} // namespace subtitletest
