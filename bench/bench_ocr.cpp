// OCR throughput of subtitle pictures: the pool of recognition engines (one
// Tesseract per worker, one worker per core) against one engine run
// serially on the same pictures; with --vobsub also the time a job takes to
// turn a VobSub track of 1000 lines into timed text.
//
//   build/bench/bench_ocr [--lines N] [--vobsub]

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <future>
#include <iostream>
#include <string>
#include <thread>
#include <vector>

#include <omp.h>
#include <unistd.h>

#include "qxmedia/job/QXJob.h"
#include "qxmedia/job/QXPreset.h"
#include "qxmedia/platform/vision/QXTextRecognition.h"
#include "qxmedia/source/QXMovie.h"

using namespace qx;
using Clock = std::chrono::steady_clock;

namespace {

constexpr const char* kFont = "/usr/share/fonts/truetype/dejavu/DejaVuSans.ttf";
const std::vector<std::string> kWords {"the", "station", "night", "train", "quarter", "nine", "told", "nobody",
                                       "tickets", "closed", "evening", "suitcase", "before", "dawn", "voice",
                                       "empty", "boxes", "truth", "Thomas", "where", "were", "you", "last", "saw"};

std::string lineText(size_t index)
{
    std::string text;
    for (size_t word = 0; word < 6; ++word) {
        if (!text.empty()) text += ' ';
        text += kWords[(index * 7 + word * 5 + word * index) % kWords.size()];
    }
    text[0] = char(std::toupper(static_cast<unsigned char>(text[0])));
    return text + ".";
}

int shell(const std::string& command)
{
    return std::system(command.c_str());
}

double seconds(Clock::time_point since)
{
    return std::chrono::duration<double>(Clock::now() - since).count();
}

// A line rendered white on black with an outline, as a subtitle decoder
// hands it over (palette indices), made ready for recognition.
QXTextImage picture(const std::filesystem::path& dir, size_t index)
{
    constexpr int width = 900, height = 56;
    const auto textFile = dir / ("line" + std::to_string(index) + ".txt");
    const auto raw = dir / ("line" + std::to_string(index) + ".gray");
    std::ofstream(textFile) << lineText(index);
    shell("ffmpeg -v error -y -f lavfi -i color=c=black:s=900x56 -vf \"drawtext=fontfile=" + std::string(kFont) +
          ":textfile=" + textFile.string() + ":fontcolor=white:fontsize=30:x=10:y=12:borderw=2:bordercolor=black\""
          " -frames:v 1 -pix_fmt gray -f rawvideo '" + raw.string() + "'");
    std::vector<uint8_t> pixels(size_t(width * height));
    std::ifstream(raw, std::ios::binary).read(reinterpret_cast<char*>(pixels.data()), std::streamsize(pixels.size()));
    std::vector<uint32_t> palette(256);
    for (uint32_t i = 1; i < 256; ++i) palette[i] = 0xff000000u | i << 16 | i << 8 | i;
    return QXTextImageFromPalettedBitmap(pixels.data(), width, width, height, palette.data(), 256);
}

void throughput(const std::filesystem::path& dir, size_t count)
{
    std::vector<QXTextImage> pictures;
    for (size_t i = 0; i < count; ++i) pictures.push_back(picture(dir, i));

    // Every run includes starting its engines. One engine serially, as
    // Tesseract runs by default (OpenMP inside a picture), then on one thread.
    auto serially = [&pictures] {
        const auto start = Clock::now();
        auto engine = QXTextRecognizer::create("eng");
        for (const QXTextImage& image : pictures) engine->recognize(image);
        return seconds(start);
    };
    const double openmp = serially();
    omp_set_num_threads(1);
    const double serial = serially();
    std::printf("OCR %zu lines: one engine serially %.2f lines/s (with OpenMP %.2f lines/s)\n", count,
                double(count) / serial, double(count) / openmp);

    const unsigned workers = std::max(1u, std::thread::hardware_concurrency());
    const auto start = Clock::now();
    {
        QXTextRecognitionPool pool("eng", workers);
        std::vector<std::future<std::string>> answers;
        for (const QXTextImage& image : pictures) answers.push_back(pool.recognize(image));
        for (auto& answer : answers) answer.get();
    }
    const double pooled = seconds(start);
    std::printf("OCR %zu lines: pool of %u engines %.2f lines/s, %.2fx one engine (%.2fx with OpenMP)\n", count,
                workers, double(count) / pooled, serial / pooled, openmp / pooled);
}

void vobsub(const std::filesystem::path& dir, size_t count)
{
    const auto srt = dir / "many.srt";
    {
        std::ofstream out(srt);
        for (size_t i = 0; i < count; ++i) {
            const long start = long(i) * 1000 + 200, end = start + 700;
            char timing[64];
            std::snprintf(timing, sizeof timing, "%02ld:%02ld:%02ld,%03ld --> %02ld:%02ld:%02ld,%03ld", start / 3600000,
                          start / 60000 % 60, start / 1000 % 60, start % 1000, end / 3600000, end / 60000 % 60,
                          end / 1000 % 60, end % 1000);
            out << i + 1 << "\n" << timing << "\n" << lineText(i) << "\n\n";
        }
    }
    const std::string length = std::to_string(count + 1);
    std::ofstream(dir / "spu.xml") << "<subpictures format=\"PAL\"><stream><textsub filename=\"" << srt.string()
                                   << "\" characterset=\"UTF-8\" fontsize=\"28.0\" font=\"" << kFont
                                   << "\" horizontal-alignment=\"center\" vertical-alignment=\"bottom\" "
                                      "movie-fps=\"25\" subtitle-fps=\"25\" movie-width=\"720\" movie-height=\"574\"/>"
                                      "</stream></subpictures>";
    const std::string d = "'" + dir.string() + "/";
    if (shell("ffmpeg -v error -y -f lavfi -i color=c=black:s=720x576:r=25:d=" + length +
              " -c:v mpeg2video -q:v 31 -g 250 -f dvd " + d + "plain.mpg'") != 0 ||
        shell("cd " + d + "' && VIDEO_FORMAT=PAL spumux -s0 spu.xml < plain.mpg > sub.vob 2>/dev/null") != 0 ||
        shell("ffmpeg -v error -y -f lavfi -i color=c=black:s=720x576:r=5:d=" + length +
              " -c:v libx264 -preset ultrafast " + d + "video.mkv'") != 0 ||
        shell("ffmpeg -v error -y -i " + d + "video.mkv' -i " + d + "sub.vob' -map 0:v -map 1:s -c copy " + d +
              "vobsub.mkv'") != 0) {
        std::fprintf(stderr, "could not make the VobSub source\n");
        return;
    }
    const auto start = Clock::now();
    auto movie = QXMovie::initWithURL(dir / "vobsub.mkv");
    auto job = movie ? QXJob::initWithMovie(movie, QXPreset::initWithIdentifier(QXPresetApple1080p)) : nullptr;
    if (!job) return;
    std::vector<QXTrackJobRef> lines = job->tracks;
    for (QXTrackJobRef& line : lines) {
        if (line->source->mediaType() == AVMediaTypeVideo) {
            line = QXTrackJob::initWithSource(line->source, line->source->copy(), QXTrackJobTypeRemux);
        }
    }
    job->tracks = lines;
    job->destination = dir / "out.m4v";
    job->queue();
    if (!job->start() || !job->waitUntilFinished()) std::fprintf(stderr, "the conversion failed\n");
    const double took = seconds(start);
    std::printf("VobSub track of %zu lines to timed text: %.1f s (%.1f lines/s)\n", count, took, double(count) / took);
}

} // namespace

int main(int argc, char** argv)
{
    size_t count = 60;
    bool withVobSub = false;
    for (int i = 1; i < argc; ++i) {
        const std::string argument = argv[i];
        if (argument == "--lines" && i + 1 < argc) count = std::strtoul(argv[++i], nullptr, 10);
        if (argument == "--vobsub") withVobSub = true;
    }
    const auto dir = std::filesystem::temp_directory_path() / ("bench-ocr-" + std::to_string(::getpid()));
    std::filesystem::create_directories(dir);
    throughput(dir, count);
    if (withVobSub) vobsub(dir, 1000);
    std::filesystem::remove_all(dir);
    return 0;
}
