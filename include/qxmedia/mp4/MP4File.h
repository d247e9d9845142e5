#pragma once
// An MP4 file opened through the MP4 layer.

#include <filesystem>
#include <memory>

namespace qx::mp4 {

class MP4File {
public:
    // Opens and parses the file for reading; null when it cannot be read as
    // MP4. Damage found while parsing is logged through MP4Log.
    static std::unique_ptr<MP4File> read(const std::filesystem::path& path);
    void close();
    ~MP4File();

private:
    MP4File() = default;
};

} // namespace qx::mp4
