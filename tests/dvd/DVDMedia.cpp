#include "DVDMedia.h"

#include <cstdio>
#include <fstream>
#include <iterator>
#include <regex>
#include <sstream>
#include <unistd.h>

#include "support/TestMedia.h"

namespace dvdtest {

namespace {

struct TitleRecipe {
    const char* ffmpegInputs; // video and audio sources, with their maps
    const char* languages;    // dvdauthor's audio and subpicture lines
    const char* chapters;
    bool subpicture;
};

int64_t clockMilliseconds(const std::string& h, const std::string& m, const std::string& s, const std::string& ms)
{
    return ((std::stoll(h) * 60 + std::stoll(m)) * 60 + std::stoll(s)) * 1000 + std::stoll(ms);
}

bool makeFolder(const std::filesystem::path& work, const std::string& kind)
{
    const bool pal = kind == "pal";
    const std::string size = pal ? "720x576:rate=25" : "720x480:rate=30000/1001";
    const std::string target = pal ? "pal-dvd" : "ntsc-dvd";
    std::vector<TitleRecipe> titles;
    if (pal) {
        titles = {{"-f lavfi -i sine=f=440:duration=12 -f lavfi -i sine=f=880:duration=12 -map 0:v -map 1:a -map 2:a",
                   "<audio lang=\"en\"/><audio lang=\"de\"/><subpicture lang=\"fr\"/>", "0,0:04,0:08.5", true},
                  {"-f lavfi -i sine=f=300:duration=7 -map 0:v -map 1:a", "<audio lang=\"es\"/>", "0,0:03", false}};
    } else {
        titles = {{"-f lavfi -i sine=f=500:duration=9 -map 0:v -map 1:a", "<audio lang=\"ja\"/>", "0,0:05", false}};
    }
    const std::string w = "'" + work.string() + "'";
    std::string xml = "<dvdauthor dest=\"" + (work / "DVD").string() + "\"><vmgm/>";
    for (size_t i = 0; i < titles.size(); ++i) {
        const std::string duration = i == 0 ? (pal ? "12" : "9") : "7";
        const std::string mpg = (work / ("t" + std::to_string(i) + ".mpg")).string();
        std::string command = "cd " + w + " && ffmpeg -nostdin -y -v error -f lavfi -i testsrc=size=" + size +
                              ":duration=" + duration + " " + titles[i].ffmpegInputs + " -target " + target +
                              " raw.mpg";
        if (titles[i].subpicture) {
            qxtest::writeFile(work / "sub.xml", "<subpictures><stream><spu start=\"00:00:01.00\" end=\"00:00:03.00\" "
                                                "image=\"sub.png\" xoffset=\"100\" yoffset=\"400\"/></stream></subpictures>");
            command += " && ffmpeg -nostdin -y -v error -f lavfi -i 'color=c=white:s=160x40,format=rgba' -frames:v 1 "
                       "sub.png && spumux -s 0 sub.xml < raw.mpg > '" + mpg + "' 2>/dev/null";
        } else {
            command += " && mv raw.mpg '" + mpg + "'";
        }
        std::string output;
        if (qxtest::run("(" + command + ") 2>&1", &output) != 0) {
            std::fprintf(stderr, "making the DVD title failed:\n%s\n", output.c_str());
            return false;
        }
        xml += std::string("<titleset><titles><video format=\"") + (pal ? "pal" : "ntsc") + "\"/>" +
               titles[i].languages + "<pgc><vob file=\"" + mpg + "\" chapters=\"" + titles[i].chapters +
               "\"/></pgc></titles></titleset>";
    }
    qxtest::writeFile(work / "dvd.xml", xml + "</dvdauthor>");
    return qxtest::run("VIDEO_FORMAT=" + std::string(pal ? "PAL" : "NTSC") + " dvdauthor -x " + w +
                       "/dvd.xml >/dev/null 2>&1") == 0;
}

} // namespace

std::filesystem::path dvdFolder(const std::string& kind)
{
    const auto folder = qxtest::mediaDir() / ("dvd-" + kind);
    if (std::filesystem::exists(folder / "VIDEO_TS" / "VIDEO_TS.IFO")) return folder;
    // Made aside and renamed, so a concurrent test never sees half a folder.
    const auto work = qxtest::mediaDir() / ("partial-dvd-" + kind + "-" + std::to_string(::getpid()));
    std::filesystem::remove_all(work);
    std::filesystem::create_directories(work);
    if (!makeFolder(work, kind)) return {};
    std::error_code ignored;
    std::filesystem::rename(work / "DVD", folder, ignored);
    std::filesystem::remove_all(work);
    return std::filesystem::exists(folder / "VIDEO_TS" / "VIDEO_TS.IFO") ? folder : std::filesystem::path();
}

std::vector<LsdvdTitle> lsdvdTitles(const std::filesystem::path& folder)
{
    std::string output;
    qxtest::run("lsdvd -x '" + folder.string() + "' 2>/dev/null", &output);
    static const std::regex title(R"(^Title: \d+, Length: (\d+):(\d+):(\d+)\.(\d+))");
    static const std::regex chapter(R"(^\s+Chapter: \d+, Length: (\d+):(\d+):(\d+)\.(\d+))");
    static const std::regex audio(R"(^\s+Audio: \d+, Language: (\S+) )");
    static const std::regex subtitle(R"(^\s+Subtitle: \d+, Language: (\S+) )");
    std::vector<LsdvdTitle> titles;
    std::istringstream lines(output);
    std::string line;
    int64_t next = 0;
    std::smatch m;
    while (std::getline(lines, line)) {
        if (std::regex_search(line, m, title)) {
            titles.push_back({clockMilliseconds(m[1], m[2], m[3], m[4]), {}, {}, {}});
            next = 0;
        } else if (titles.empty()) {
            continue;
        } else if (std::regex_search(line, m, chapter)) {
            titles.back().chapterStarts.push_back(next);
            next += clockMilliseconds(m[1], m[2], m[3], m[4]);
        } else if (std::regex_search(line, m, audio)) {
            titles.back().audioLanguages.push_back(m[1]);
        } else if (std::regex_search(line, m, subtitle)) {
            titles.back().subpictureLanguages.push_back(m[1]);
        }
    }
    return titles;
}

std::vector<uint8_t> readBytes(const std::filesystem::path& path)
{
    std::ifstream in(path, std::ios::binary);
    return std::vector<uint8_t>(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
}

} // namespace dvdtest
