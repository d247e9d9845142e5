#pragma once
// DVD folders made with ffmpeg, spumux and dvdauthor, once per build, and
// what lsdvd reads from them.

#include <cstdint>
#include <filesystem>
#include <string>
#include <vector>

namespace dvdtest {

// "pal": title 1 of 12 s with chapters at 0, 4, 8.5 s (snapped to GOPs),
// audio en + de and a French subpicture stream; title 2 of 7 s, chapters at
// 0 and 3 s, audio es. "ntsc": one title of 9 s, chapters at 0 and 5 s.
// Answers the folder that holds VIDEO_TS, or an empty path on failure.
std::filesystem::path dvdFolder(const std::string& kind);

struct LsdvdTitle {
    int64_t milliseconds = 0;
    std::vector<int64_t> chapterStarts; // summed from the chapter lengths
    std::vector<std::string> audioLanguages, subpictureLanguages;
};
// `lsdvd -x` of a folder, title by title.
std::vector<LsdvdTitle> lsdvdTitles(const std::filesystem::path& folder);

std::vector<uint8_t> readBytes(const std::filesystem::path& path);

} // namespace dvdtest
