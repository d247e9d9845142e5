#include "qxmedia/platform/vision/QXTextRecognition.h"

#include <algorithm>
#include <array>
#include <filesystem>
#include <utility>

#include <omp.h>
#include <tesseract/baseapi.h>

#include "qxmedia/core/QXLocale.h"
#include "qxmedia/core/QXMedia.h"

namespace qx {

namespace {

// Light margin around a picture: Tesseract misses glyphs that touch the edge.
constexpr int kMargin = 12;

// ISO 639-2 bibliographic codes whose Tesseract data goes by another name
// (Tesseract uses the terminology codes, and script variants for some).
constexpr std::array<std::pair<std::string_view, std::string_view>, 24> kDataNames {{
    {"alb", "sqi"}, {"arm", "hye"}, {"baq", "eus"}, {"bur", "mya"},     {"chi", "chi_sim"},
    {"zho", "chi_sim"}, {"cze", "ces"}, {"dut", "nld"}, {"fre", "fra"}, {"geo", "kat"},
    {"ger", "deu"}, {"gre", "ell"}, {"ice", "isl"}, {"mac", "mkd"},     {"mao", "mri"},
    {"may", "msa"}, {"per", "fas"}, {"rum", "ron"}, {"slo", "slk"},     {"tib", "bod"},
    {"wel", "cym"}, {"nob", "nor"}, {"nno", "nor"}, {"srp", "srp_latn"},
}};

std::string tesseractDataPath()
{
    // Tesseract knows where its data lives (TESSDATA_PREFIX or its built-in
    // folder); an English engine, which every install has, tells us.
    static const std::string path = [] {
        tesseract::TessBaseAPI api;
        if (api.Init(nullptr, "eng", tesseract::OEM_LSTM_ONLY) != 0) return std::string();
        return std::string(api.GetDatapath());
    }();
    return path;
}

// Pixel brightness of a palette entry composed over black, 0 to 255.
uint8_t brightness(uint32_t argb)
{
    const uint32_t alpha = argb >> 24, red = (argb >> 16) & 0xff, green = (argb >> 8) & 0xff, blue = argb & 0xff;
    const uint32_t luma = (red * 299 + green * 587 + blue * 114) / 1000;
    return uint8_t(luma * alpha / 255);
}

} // namespace

QXTextImage QXTextImageFromPalettedBitmap(const uint8_t* indices, int stride, int width, int height,
                                          const uint32_t* palette, int paletteSize)
{
    QXTextImage image;
    if (!indices || !palette || width <= 0 || height <= 0 || paletteSize <= 0) return image;
    std::array<uint8_t, 256> shade {};
    shade.fill(255);
    for (int i = 0; i < std::min(paletteSize, 256); ++i) shade[size_t(i)] = uint8_t(255 - brightness(palette[i]));
    image.width = width + 2 * kMargin;
    image.height = height + 2 * kMargin;
    image.pixels.assign(size_t(image.width) * size_t(image.height), 255);
    for (int y = 0; y < height; ++y) {
        const uint8_t* row = indices + size_t(y) * size_t(stride);
        uint8_t* out = image.pixels.data() + size_t(y + kMargin) * size_t(image.width) + kMargin;
        for (int x = 0; x < width; ++x) out[x] = shade[row[x]];
    }
    return image;
}

std::string QXTesseractLanguage(std::string_view isoCode)
{
    std::string code(isoCode);
    std::transform(code.begin(), code.end(), code.begin(), [](unsigned char c) { return char(std::tolower(c)); });
    // Tracks keep two-letter codes where a language has one.
    if (code.size() == 2) code = ff_convert_lang_to(code, AV_LANG_ISO639_2_TERM);
    if (code.empty() || code == "und" || code == "mis" || code == "mul" || code == "zxx") return {};
    for (const auto& [iso, data] : kDataNames) {
        if (iso == code) return std::string(data);
    }
    return code;
}

bool QXTesseractHasLanguage(const std::string& dataName)
{
    if (dataName.empty() || dataName.find('/') != std::string::npos) return false;
    const std::string folder = tesseractDataPath();
    std::error_code error;
    return !folder.empty() && std::filesystem::exists(std::filesystem::path(folder) / (dataName + ".traineddata"), error);
}

QXTextRecognizer::QXTextRecognizer() : api_(std::make_unique<tesseract::TessBaseAPI>()) {}

QXTextRecognizer::~QXTextRecognizer()
{
    if (api_) api_->End();
}

std::unique_ptr<QXTextRecognizer> QXTextRecognizer::create(const std::string& dataName)
{
    std::unique_ptr<QXTextRecognizer> recognizer(new QXTextRecognizer());
    if (recognizer->api_->Init(nullptr, dataName.c_str(), tesseract::OEM_LSTM_ONLY) != 0) {
        QXLogWarning("Could not start text recognition for %s", dataName.c_str());
        return nullptr;
    }
    // A subtitle is a few lines of one block.
    recognizer->api_->SetPageSegMode(tesseract::PSM_SINGLE_BLOCK);
    return recognizer;
}

std::string QXTextRecognizer::recognize(const QXTextImage& image)
{
    if (image.width <= 0 || image.height <= 0) return {};
    api_->SetImage(image.pixels.data(), image.width, image.height, 1, image.width);
    api_->SetSourceResolution(70);
    std::unique_ptr<char[]> text(api_->GetUTF8Text());
    api_->Clear();
    if (!text) return {};
    // Tesseract ends every line with a line feed and paragraphs with another.
    std::string lines;
    std::string_view rest(text.get());
    while (!rest.empty()) {
        const size_t end = rest.find('\n');
        std::string_view line = rest.substr(0, end);
        while (!line.empty() && (line.back() == ' ' || line.back() == '\r')) line.remove_suffix(1);
        if (!line.empty()) {
            if (!lines.empty()) lines += '\n';
            // A vertical bar is the usual misreading of a capital I in
            // subtitle fonts, and subtitles hardly ever hold a real one.
            for (char c : line) lines += c == '|' ? 'I' : c;
        }
        rest = end == std::string_view::npos ? std::string_view() : rest.substr(end + 1);
    }
    return lines;
}

QXTextRecognitionPool::QXTextRecognitionPool(std::string_view language, unsigned workers)
{
    dataName_ = QXTesseractLanguage(language);
    if (!QXTesseractHasLanguage(dataName_)) {
        if (!dataName_.empty()) {
            QXLogWarning("No text recognition data for language %s, reading subtitles as English",
                         std::string(language).c_str());
        }
        dataName_ = "eng";
    }
    if (workers == 0) workers = std::max(1u, std::thread::hardware_concurrency());
    threads_.reserve(workers);
    for (unsigned i = 0; i < workers; ++i) threads_.emplace_back([this] { work(); });
}

QXTextRecognitionPool::~QXTextRecognitionPool()
{
    {
        std::lock_guard guard(lock_);
        stopping_ = true;
    }
    wake_.notify_all();
    for (std::thread& thread : threads_) thread.join();
}

std::future<std::string> QXTextRecognitionPool::recognize(QXTextImage image)
{
    std::packaged_task<std::string(QXTextRecognizer*)> job(
        [image = std::move(image)](QXTextRecognizer* recognizer) {
            return recognizer ? recognizer->recognize(image) : std::string();
        });
    std::future<std::string> answer = job.get_future();
    {
        std::lock_guard guard(lock_);
        jobs_.push_back(std::move(job));
    }
    wake_.notify_one();
    return answer;
}

void QXTextRecognitionPool::work()
{
    pthread_setname_np(pthread_self(), "qx.ocr");
    // Tesseract parallelises inside a picture with OpenMP; the pool already
    // keeps every core busy with pictures, so each engine runs on its worker.
    omp_set_num_threads(1);
    // Each worker starts its engine once and keeps it warm; a worker whose
    // engine fails answers empty texts, as failed recognition does.
    std::unique_ptr<QXTextRecognizer> recognizer;
    bool started = false;
    for (;;) {
        std::packaged_task<std::string(QXTextRecognizer*)> job;
        {
            std::unique_lock guard(lock_);
            wake_.wait(guard, [this] { return stopping_ || !jobs_.empty(); });
            if (jobs_.empty()) return;
            job = std::move(jobs_.front());
            jobs_.pop_front();
        }
        if (!started) {
            recognizer = QXTextRecognizer::create(dataName_);
            started = true;
        }
        job(recognizer.get());
    }
}

} // namespace qx
