#pragma once
// Support for the output tests: a source read through the real pipeline
// into the outputs the factory chooses, drained as a channel would drain
// them; a source's packets as samples; and what leaves an output fed by hand.

#include <chrono>
#include <filesystem>
#include <memory>
#include <string>
#include <vector>

#include "qxmedia/platform/coremedia/CMSampleBuffer.h"
#include "qxmedia/reader/QXTrackReaderOutput.h"
#include "qxmedia/source/QXMovie.h"

namespace outputtest {

// Every track of a movie with the output the factory picks for copying it
// (or encoding it), read to the end. Each output is drained on a thread of
// its own while the read loop runs.
class PipelineRun {
public:
    explicit PipelineRun(const std::filesystem::path& path, bool encode = false);
    ~PipelineRun();

    // Reads the movie and drains every output; false on a failed start or
    // when an output does not end in time.
    bool run(std::chrono::seconds limit = std::chrono::seconds(60));

    std::shared_ptr<QXMovie> movie;
    std::vector<std::shared_ptr<QXTrackReaderOutput>> outputs;
    // What each output delivered, in order, per track.
    std::vector<std::vector<qx::CMSampleBufferRef>> delivered;
};

// The packets of one stream as samples, demuxed by FFmpeg directly: times
// in the stream's time base as the read loop stamps them, key flags as
// attachments. Empty when the file does not open.
std::vector<qx::CMSampleBufferRef> readPackets(const std::filesystem::path& path, int streamIndex);

// The MD5 of every packet's bytes (lowercase hex) per stream, in demuxing
// order, as ffprobe reads them.
std::vector<std::vector<std::string>> packetHashes(const std::filesystem::path& file);

// Feeds the samples (and the end marker, if asked) to the output's
// processSample on the calling thread.
void feed(QXTrackReaderOutput& output, const std::vector<qx::CMSampleBufferRef>& samples, bool end);
// The samples that have left the output so far, taken without waiting.
std::vector<qx::CMSampleBufferRef> takeReady(QXTrackReaderOutput& output);

// A decode time the read loop copied from the presentation time.
qx::CMTime copiedTime(int64_t value, int32_t timescale);

} // namespace outputtest
