#include "qxmedia/mp4/MP4File.h"

#include <fstream>

namespace qx::mp4 {

// Placeholder until the box parser lands: a file that opens counts as read.
std::unique_ptr<MP4File> MP4File::read(const std::filesystem::path& path)
{
    std::ifstream in(path, std::ios::binary);
    if (!in) return nullptr;
    return std::unique_ptr<MP4File>(new MP4File());
}

void MP4File::close() {}
MP4File::~MP4File() = default;

} // namespace qx::mp4
