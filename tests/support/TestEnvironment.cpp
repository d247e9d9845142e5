// Linked into every test program (as an object, not through the support
// archive, so that nothing has to refer to it). ctest hands a discovered
// test one environment entry, QX_TEST_TMP; what else a test run needs is
// set here.

#include <cstdlib>
#include <string>

namespace {

// Trashed partial outputs and media libraries stay inside the build tree.
const bool kDataHomeInBuildTree = [] {
    const char* media = std::getenv("QX_TEST_TMP");
    if (media) ::setenv("XDG_DATA_HOME", (std::string(media) + "/data-home").c_str(), 1);
    return media != nullptr;
}();

} // namespace

#if defined(__SANITIZE_THREAD__)
// FFmpeg, x264 and x265 are not instrumented. FFmpeg's frame-threaded
// decoders allocate and clear a picture's buffers and side data on their
// own workers while the last reference is often dropped on ours; the order
// between the two is FFmpeg's reference count (an atomic inside libavutil)
// and its worker hand-over, which ThreadSanitizer cannot see. The encoders
// order their own workers with their own atomics and events. In every
// report these lines hide, both accesses lie inside those libraries.
extern "C" const char* __tsan_default_suppressions()
{
    return "race:av_buffer_unref\n"
           "race:av_frame_unref\n"
           "race:libavcodec.so\n"
           "race:libx264.so\n"
           "race:libx265.so\n";
}
#endif
