#pragma once
// Text recognition of subtitle pictures over Tesseract.
//
// QXTextImage is an 8-bit grey picture with dark text on a light ground (the
// form Tesseract reads best). QXTextRecognizer is one warm Tesseract engine.
// QXTextRecognitionPool runs one engine per worker thread, so pictures of
// one track are read in parallel; each answer comes back through a future,
// so the caller keeps its own order. Nothing is written to disk.

#include <condition_variable>
#include <cstdint>
#include <deque>
#include <functional>
#include <future>
#include <memory>
#include <mutex>
#include <string>
#include <string_view>
#include <thread>
#include <vector>

namespace tesseract {
class TessBaseAPI;
}

namespace qx {

struct QXTextImage {
    int width = 0;
    int height = 0;
    std::vector<uint8_t> pixels; // width * height bytes, row after row
};

// A palettised subtitle bitmap (FFmpeg's AVSubtitleRect: one index a pixel,
// 0xAARRGGBB palette entries) composed over black, inverted to dark-on-light
// and framed by a light margin. Empty when the picture has no size.
QXTextImage QXTextImageFromPalettedBitmap(const uint8_t* indices, int stride, int width, int height,
                                          const uint32_t* palette, int paletteSize);

// Tesseract's data name for an ISO 639-2 code (B or T form, or ISO 639-1),
// e.g. "ger" -> "deu", "chi" -> "chi_sim". Empty for undetermined languages.
std::string QXTesseractLanguage(std::string_view isoCode);
// Whether Tesseract's trained data for that data name is installed.
bool QXTesseractHasLanguage(const std::string& dataName);

class QXTextRecognizer {
public:
    // An engine for the data name; null when Tesseract cannot start with it.
    static std::unique_ptr<QXTextRecognizer> create(const std::string& dataName);
    ~QXTextRecognizer();
    QXTextRecognizer(const QXTextRecognizer&) = delete;
    QXTextRecognizer& operator=(const QXTextRecognizer&) = delete;

    // The lines read, joined by line feeds, without trailing blanks.
    std::string recognize(const QXTextImage& image);

private:
    QXTextRecognizer();
    std::unique_ptr<tesseract::TessBaseAPI> api_;
};

class QXTextRecognitionPool {
public:
    // `language` is an ISO 639-2 code; without its trained data the pool
    // reads English and logs that once. `workers` 0 means one per core.
    QXTextRecognitionPool(std::string_view language, unsigned workers = 0);
    ~QXTextRecognitionPool();
    QXTextRecognitionPool(const QXTextRecognitionPool&) = delete;
    QXTextRecognitionPool& operator=(const QXTextRecognitionPool&) = delete;

    std::future<std::string> recognize(QXTextImage image);

    const std::string& dataName() const { return dataName_; }
    unsigned workerCount() const { return unsigned(threads_.size()); }

private:
    void work();

    std::string dataName_;
    std::mutex lock_;
    std::condition_variable wake_;
    std::deque<std::packaged_task<std::string(QXTextRecognizer*)>> jobs_;
    bool stopping_ = false;
    std::vector<std::thread> threads_;
};

} // namespace qx
