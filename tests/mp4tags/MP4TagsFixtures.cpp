#include "MP4TagsFixtures.h"

#include <fstream>
#include <iterator>

namespace mp4tagstest {

namespace {
const std::string kSource = "-f lavfi -i testsrc2=size=320x240:rate=25:duration=4 -f lavfi -i sine=duration=4 ";
const std::string kCodecs = "-c:v libx264 -preset ultrafast -pix_fmt yuv420p -c:a aac ";
} // namespace

std::filesystem::path plainMovie()
{
    return qxtest::generate("mp4tags-plain.mp4", kSource + "-map 0:v -map 1:a " + kCodecs +
                                                     "-map_metadata -1 -map_chapters -1 -f mp4");
}

std::filesystem::path taggedMovie()
{
    const auto meta = qxtest::mediaDir() / "mp4tags-chapters.ffmeta";
    qxtest::writeFile(meta, ";FFMETADATA1\ntitle=Film Title\nartist=Some Artist\ncomment=Hello\n"
                            "[CHAPTER]\nTIMEBASE=1/1000\nSTART=0\nEND=1500\ntitle=Opening\n"
                            "[CHAPTER]\nTIMEBASE=1/1000\nSTART=1500\nEND=4000\ntitle=Middle part\n");
    return qxtest::generate("mp4tags-tagged.m4v", kSource + "-i '" + meta.string() +
                                                      "' -map 0:v -map 1:a -map_metadata 2 -map_chapters 2 " +
                                                      kCodecs + "-metadata media_type=9 -movflags +faststart -f ipod");
}

std::filesystem::path coverPath()
{
    return qxtest::generate("mp4tags-cover.jpg", "-f lavfi -i color=red:size=64x64 -frames:v 1 -f image2");
}

std::vector<uint8_t> coverJpeg() { return readBytes(coverPath()); }

std::filesystem::path copyTo(const std::filesystem::path& source, const std::filesystem::path& dir,
                             const std::string& name)
{
    const auto target = dir / name;
    std::filesystem::copy_file(source, target, std::filesystem::copy_options::overwrite_existing);
    return target;
}

std::vector<uint8_t> readBytes(const std::filesystem::path& path)
{
    std::ifstream in(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>()};
}

std::string output(const std::string& command)
{
    std::string text;
    qxtest::run(command + " 2>/dev/null", &text);
    return text;
}

std::string text(const qx::mp4::MP4ItmfItem& item)
{
    if (item.dataList.empty()) return {};
    const auto& value = item.dataList.front().value;
    return std::string(value.begin(), value.end());
}

} // namespace mp4tagstest
