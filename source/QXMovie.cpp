// Opening a movie: probing, one track per stream, associations between
// tracks, tags and chapters of the source kind, size and hash.

#include "qxmedia/source/QXMovie.h"

#include <algorithm>
#include <cctype>
#include <fstream>
#include <regex>
#include <set>

extern "C" {
#include <libavcodec/avcodec.h>
#include <libavformat/avformat.h>
}

#include "qxmedia/core/QXLocale.h"
#include "qxmedia/core/QXMedia.h"
#include "qxmedia/metadata/QXMetaData.h"
#include "qxmedia/mp4/MP4File.h"
#include "qxmedia/mp4/MP4Track.h"
#include "qxmedia/platform/image/QXImage.h"
#include "qxmedia/platform/text/QXLanguageDetection.h"
#include "qxmedia/platform/text/QXStringEncoding.h"
#include "qxmedia/reader/QXMovieReader.h"
#include "qxmedia/source/QXAC3AudioTrack.h"
#include "qxmedia/source/QXChapterTrack.h"
#include "qxmedia/source/QXStreamProbe.h"
#include "qxmedia/source/QXSubtitleTrack.h"
#include "qxmedia/source/QXVideoTrack.h"

using namespace qx;

namespace {

std::string lowercase(std::string text)
{
    std::transform(text.begin(), text.end(), text.begin(), [](unsigned char c) { return char(std::tolower(c)); });
    return text;
}

std::string extensionOf(const QXURL& url)
{
    const std::string extension = url.extension().string();
    return lowercase(extension.empty() ? extension : extension.substr(1));
}

bool isOneOf(const std::string& value, std::initializer_list<const char*> choices)
{
    return std::any_of(choices.begin(), choices.end(), [&](const char* choice) { return value == choice; });
}

// Splits "2,3" into integers; pieces that are not numbers read as 0.
std::vector<int> integerList(const char* text)
{
    std::vector<int> values;
    std::string piece;
    for (const char* p = text;; ++p) {
        if (*p == ',' || *p == '\0') {
            values.push_back(std::atoi(piece.c_str()));
            piece.clear();
            if (*p == '\0') break;
        } else {
            piece += *p;
        }
    }
    return values;
}

const char* metadataValue(const AVStream* stream, const char* key)
{
    const AVDictionaryEntry* entry = av_dict_get(stream->metadata, key, nullptr, 0);
    return entry ? entry->value : nullptr;
}

std::optional<QXData> readWholeFile(const QXURL& url)
{
    std::ifstream in(url, std::ios::binary);
    if (!in) return std::nullopt;
    return QXData(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
}

// Writes the file next to itself and renames it over the original, so a
// failure leaves the original as it was.
bool writeAtomically(const QXURL& url, const std::string& text)
{
    QXURL temporary = url;
    temporary += ".qxmedia-tmp";
    {
        std::ofstream out(temporary, std::ios::binary | std::ios::trunc);
        if (!out || !out.write(text.data(), std::streamsize(text.size())) || !out.flush()) {
            std::error_code ignored;
            std::filesystem::remove(temporary, ignored);
            return false;
        }
    }
    std::error_code failed;
    std::filesystem::rename(temporary, url, failed);
    return !failed;
}

} // namespace

QXMovie::QXMovie(const std::vector<QXURL>& urls)
    : fileURL(urls.empty() ? QXURL() : urls.front()),
      fileURLs(urls),
      metadata(QXMetaData::init()),
      progressSemaphore(dispatch_semaphore_create(1))
{
}

QXMovie::~QXMovie()
{
    releaseReaders();
}

void QXMovie::endRun()
{
    qx::dispatch_group_wait(readLoopGroup, qx::DISPATCH_TIME_FOREVER);
    for (const QXTrackRef& track : tracks) {
        qx::dispatch_sync(track->outQueue, [] {});
        track->outputs.clear();
    }
    releaseReaders();
}

std::shared_ptr<QXMovie> QXMovie::initWithURL(const QXURL& url, QXErrorRef* error)
{
    return initWithURLs({url}, error);
}

std::shared_ptr<QXMovie> QXMovie::initWithURLs(const std::vector<QXURL>& urls, QXErrorRef* error)
{
    if (urls.empty()) {
        QXSetError(error, QXMedia::errorWithDomain(QXMediaErrorDomain, -13001));
        return nullptr;
    }
    auto movie = std::make_shared<QXMovie>(urls);
    movie->reader = QXMovieReader::init();
    if (!movie->open(error)) return nullptr;
    return movie;
}

QXErrorRef QXMovie::error() const
{
    std::lock_guard guard(errorLock_);
    return error_;
}

void QXMovie::setError(const QXErrorRef& error)
{
    std::lock_guard guard(errorLock_);
    if (!error_) error_ = error;
}

bool QXMovie::open(QXErrorRef* error)
{
    rewriteWideSubtitleEncoding();

    AVFormatContext* context = openInput(error);
    if (!context) return false;

    if (context->iformat && context->iformat->name) format = context->iformat->name;
    const std::string extension = extensionOf(fileURL);
    if (format.find("mov") != std::string::npos && isOneOf(extension, {"mp4", "m4v"})) {
        isUpdateable = !QXMedia::sharedMedia().checkMP4FileForCorruption(fileURL);
        if (!isUpdateable) {
            setError(QXMedia::errorWithDomain(QXMediaErrorDomain, -13003, {{NSURLErrorKey, fileURL}}));
        }
    }
    av_dump_format(context, 0, avPath.c_str(), 0);

    bitrate = context->bit_rate;
    duration_ = context->duration == AV_NOPTS_VALUE ? kCMTimeInvalid : CMTimeMake(context->duration, AV_TIME_BASE);
    if (context->metadata) metadata = QXMetaData::initWithDictionary(context->metadata);

    {
        // The probe's packets give each stream's first decode time; it stays
        // attached while the tracks import their streams.
        QXStreamProbe probe(context);
        if (format.find("mov") != std::string::npos) mergeMP4TrackMetadata(context);
        makeTracks(context, error);
    }
    applyDefaultLanguage();
    connectTrackAssociations(context);
    importSourceKind();
    if (context->nb_chapters >= 2 && !chapters) chapters = QXChapterTrack::initWithFormatContext(context);

    const bool subtitlesOnly = std::all_of(tracks.begin(), tracks.end(), [](const QXTrackRef& track) {
        return dynamic_cast<QXSubtitleTrack*>(track.get()) != nullptr;
    });
    if (subtitlesOnly) {
        reader.reset();
        readSubtitleOnlyLanguage();
    }

    avformat_close_input(&context);

    for (const QXURL& url : fileURLs) {
        std::error_code failed;
        const auto size = std::filesystem::file_size(url, failed);
        if (failed) {
            QXSetError(error, QXMedia::errorWithDomain(NSPOSIXErrorDomain, failed.value(), {{NSURLErrorKey, url}}));
        } else {
            fileSize += size;
        }
    }
    fileHash = calculateHash();
    return true;
}

void QXMovie::rewriteWideSubtitleEncoding()
{
    if (!isOneOf(extensionOf(fileURL), {"ass", "smi", "srt", "ssa", "sub"})) return;
    const std::optional<QXData> data = readWholeFile(fileURL);
    if (!data) return;
    const NSStringEncoding encoding = QXStringEncodingForData(*data);
    if (!QXIsWideUnicodeEncoding(encoding)) return;

    QXLogVerbose("Detected encoding %s. Converting to UTF-8", QXLocalizedNameOfStringEncoding(encoding).c_str());
    const std::optional<std::string> text = QXStringFromData(*data, encoding);
    if (!text) {
        QXLogError("Failed to convert encoding %s to %s", QXLocalizedNameOfStringEncoding(encoding).c_str(),
                   QXLocalizedNameOfStringEncoding(NSUTF8StringEncoding).c_str());
        return;
    }
    if (!writeAtomically(fileURL, *text)) QXLogError("Failed to write to file: %s", fileURL.c_str());
}

AVFormatContext* QXMovie::openInput(QXErrorRef* error)
{
    if (fileURLs.size() == 1) {
        avPath = fileURL.string();
    } else {
        avPath = "concat:";
        for (size_t i = 0; i < fileURLs.size(); ++i) avPath += (i ? "|" : "") + fileURLs[i].string();
    }

    AVDictionary* options = nullptr;
    av_dict_set(&options, "export_all", "1", 0);
    if (isOneOf(extensionOf(fileURL), {"m2ts", "mpeg", "mpg", "ts", "vob"})) {
        av_dict_set(&options, "probesize", "104857600", 0);
        av_dict_set(&options, "analyzeduration", "1800000000", 0);
    } else {
        av_dict_set(&options, "probesize", "10485760", 0);
    }
    AVFormatContext* context = nullptr;
    int rc = avformat_open_input(&context, avPath.c_str(), nullptr, &options);
    av_dict_free(&options);
    if (rc < 0) {
        QXSetError(error, QXMedia::errorWithDomain(QXMediaErrorDomain, rc, {{NSURLErrorKey, fileURL}}));
        return nullptr;
    }
    rc = avformat_find_stream_info(context, nullptr);
    if (rc < 0) {
        QXSetError(error, QXMedia::errorWithDomain(QXMediaErrorDomain, rc, {{NSURLErrorKey, fileURL}}));
        avformat_close_input(&context);
        return nullptr;
    }
    return context;
}

// FFmpeg's MP4 demuxer keeps track references, header flags, layer,
// alternate group, volume and the track name (udta/name) to itself; the MP4
// layer reads them and they join the streams' metadata under the keys the
// track import knows.
void QXMovie::mergeMP4TrackMetadata(AVFormatContext* context)
{
    if (fileURLs.size() != 1) return;
    std::unique_ptr<mp4::MP4File> file = mp4::MP4File::read(fileURL);
    if (!file) return;
    const auto tracksByID = file->copyTrackMetadata();
    std::map<uint32_t, std::string> names;
    for (mp4::MP4Track* track : file->tracks()) {
        if (std::string name = track->name(); !name.empty()) names[track->id()] = name;
    }
    file->close();
    for (unsigned i = 0; i < context->nb_streams; ++i) {
        AVStream* stream = context->streams[i];
        auto found = tracksByID.find(uint32_t(stream->id));
        if (found == tracksByID.end()) continue;
        for (const auto& [key, value] : found->second.dictionary()) {
            if (key == "codec_tag") continue; // protected entries are marked after the import
            av_dict_set(&stream->metadata, key.c_str(), value.c_str(), 0);
        }
        if (auto name = names.find(uint32_t(stream->id)); name != names.end()) {
            av_dict_set(&stream->metadata, "title", name->second.c_str(), AV_DICT_DONT_OVERWRITE);
        }
    }
}

void QXMovie::makeTracks(AVFormatContext* context, QXErrorRef* error)
{
    std::map<uint32_t, std::string> protectedEntries;
    if (format.find("mov") != std::string::npos && fileURLs.size() == 1) {
        if (auto file = mp4::MP4File::read(fileURL)) {
            for (const auto& [id, info] : file->copyTrackMetadata()) {
                if (!info.protectedType.empty()) protectedEntries[id] = info.protectedType;
            }
            file->close();
        }
    }

    // Streams that a video stream names as its chapter list are chapters,
    // not subtitles.
    auto isChapterStream = [&](const AVStream* candidate) {
        for (unsigned i = 0; i < context->nb_streams; ++i) {
            const AVStream* stream = context->streams[i];
            if (stream->codecpar->codec_type != AVMEDIA_TYPE_VIDEO) continue;
            if (const char* chap = metadataValue(stream, "chap")) {
                for (int id : integerList(chap)) {
                    if (id == candidate->id) return true;
                }
            }
        }
        return false;
    };

    auto self = shared_from_this();
    streams.assign(context->nb_streams, {});
    for (unsigned i = 0; i < context->nb_streams; ++i) {
        AVStream* stream = context->streams[i];
        const AVCodecParameters* parameters = stream->codecpar;
        const int index = int(i);
        QXTrackRef track;
        bool unknown = false;
        switch (parameters->codec_type) {
        case AVMEDIA_TYPE_VIDEO:
            if (stream->disposition & AV_DISPOSITION_ATTACHED_PIC) {
                if (stream->attached_pic.size > 0) {
                    if (auto image = QXImage::imageWithData(stream->attached_pic.data, size_t(stream->attached_pic.size))) {
                        if (!metadata->artworks.isNull()) {
                            QXArtworkList list = *metadata->artworks.get();
                            list.push_back(image);
                            metadata->artworks.set(std::move(list));
                        } else {
                            metadata->setArtwork(image);
                        }
                    }
                }
            } else {
                auto video = QXVideoTrack::initWithFormatContext(context, index, error);
                if (video && !videoTrack) videoTrack = video;
                track = video;
            }
            break;
        case AVMEDIA_TYPE_AUDIO:
            if (parameters->codec_id == AV_CODEC_ID_EAC3) {
                track = QXEAC3AudioTrack::initWithFormatContext(context, index, error);
            } else if (parameters->codec_id == AV_CODEC_ID_AC3) {
                track = QXAC3AudioTrack::initWithFormatContext(context, index, error);
            } else {
                track = QXAudioTrack::initWithFormatContext(context, index, error);
            }
            break;
        case AVMEDIA_TYPE_DATA:
            if (parameters->codec_id == AV_CODEC_ID_BIN_DATA) {
                chapters = QXChapterTrack::initWithFormatContext(context, index);
            } else {
                unknown = true;
            }
            break;
        case AVMEDIA_TYPE_SUBTITLE: {
            const AVCodecDescriptor* descriptor = avcodec_descriptor_get(parameters->codec_id);
            if (parameters->codec_id == AV_CODEC_ID_MOV_TEXT && parameters->codec_tag == MKTAG('t', 'e', 'x', 't') &&
                isChapterStream(stream)) {
                chapters = QXChapterTrack::initWithFormatContext(context, index);
            } else if (descriptor && (descriptor->props & AV_CODEC_PROP_TEXT_SUB)) {
                track = QXSubtitleTrack::initWithFormatContext(context, index, error);
            } else if (descriptor && (descriptor->props & AV_CODEC_PROP_BITMAP_SUB)) {
                track = QXBitmapSubtitleTrack::initWithFormatContext(context, index, error);
            } else {
                track = QXTrack::initWithFormatContext(context, index, error);
            }
            break;
        }
        default: unknown = true; break;
        }
        if (unknown) {
            track = QXTrack::initWithFormatContext(context, index, error);
            QXLogWarning("Found unknown track of type %d, codec %d (%s) in %s", int(parameters->codec_type),
                         int(parameters->codec_id), track ? track->format().c_str() : "", fileURL.c_str());
        }
        if (track) {
            if (auto found = protectedEntries.find(uint32_t(stream->id)); found != protectedEntries.end()) {
                const std::string& type = found->second;
                track->codec_id = int32_t(uint32_t(uint8_t(type[0])) << 24 | uint32_t(uint8_t(type[1])) << 16 |
                                          uint32_t(uint8_t(type[2])) << 8 | uint32_t(uint8_t(type[3])));
            }
            track->source = self;
            track->sourceURL = fileURL;
            tracks.push_back(track);
        }
        streams[i] = track;
    }
}

void QXMovie::applyDefaultLanguage()
{
    std::string fallback = "en";
    for (const QXTrackRef& track : tracks) {
        if (dynamic_cast<QXVideoTrack*>(track.get()) && !track->language.empty() && track->language != "und") {
            fallback = track->language;
            break;
        }
    }
    for (const QXTrackRef& track : tracks) {
        if (track->language.empty() || track->language == "und") track->language = fallback;
    }
}

void QXMovie::connectTrackAssociations(AVFormatContext* context)
{
    for (unsigned i = 0; i < context->nb_streams; ++i) {
        const AVStream* stream = context->streams[i];
        if (stream->id == 0) continue;
        QXTrackRef track = trackWithID(stream->id);
        if (!track) continue;

        if (auto video = std::dynamic_pointer_cast<QXVideoTrack>(track)) {
            const char* chap = metadataValue(stream, "chap");
            if (chapters && chapters->trackID != 0 && chap) {
                for (int id : integerList(chap)) {
                    if (id == chapters->trackID) continue;
                    if (auto images = std::dynamic_pointer_cast<QXVideoTrack>(trackWithID(id))) {
                        videoTrack = video;
                        chapterImageTrack = images;
                    }
                }
            }
        } else if (auto audio = std::dynamic_pointer_cast<QXAudioTrack>(track)) {
            if (const char* fall = metadataValue(stream, "fall")) {
                if (auto fallback = std::dynamic_pointer_cast<QXAudioTrack>(trackWithID(std::atoi(fall)))) {
                    audio->fallback_track = fallback;
                } else {
                    QXLogWarning("Invalid fallback track: %s", fall);
                }
            }
            if (const char* folw = metadataValue(stream, "folw")) {
                if (auto follower = std::dynamic_pointer_cast<QXSubtitleTrack>(trackWithID(std::atoi(folw)))) {
                    audio->subtitle_track = follower;
                } else {
                    QXLogWarning("Invalid follow track: %s", folw);
                }
            }
        } else if (auto subtitle = std::dynamic_pointer_cast<QXSubtitleTrack>(track)) {
            if (const char* forc = metadataValue(stream, "forc")) {
                if (auto forced = std::dynamic_pointer_cast<QXSubtitleTrack>(trackWithID(std::atoi(forc)))) {
                    subtitle->forced_track = forced;
                } else {
                    QXLogWarning("Invalid forced track: %s", forc);
                }
            }
        }
    }
}

void QXMovie::importSourceKind()
{
    static const std::regex dvdTitle("VTS_[0-9]{2}_[0-9].VOB", std::regex::icase);
    if (std::regex_search(fileURL.filename().string(), dvdTitle)) {
        importDVDTitle();
    } else if (extensionOf(fileURL) == "mpg" && fileURL.parent_path().extension() == ".eyetv") {
        importEyeTVRecording();
    }
}

void QXMovie::importEyeTVRecording()
{
    const QXURL folder = fileURL.parent_path();
    std::error_code failed;
    std::filesystem::directory_iterator entries(folder, failed);
    if (failed) {
        QXLogWarning("Error looking for .eyetvp: %s", failed.message().c_str());
    } else {
        for (const auto& entry : entries) {
            const std::string name = entry.path().filename().string();
            if (name.size() > 7 && name.compare(name.size() - 7, 7, ".eyetvp") == 0) {
                if (auto program = QXMetaData::initWithFromURLEyeTVp(entry.path())) metadata->mergeMetaData(*program);
            }
        }
    }
    QXURL recording = fileURL;
    recording.replace_extension("eyetvr");
    if (std::filesystem::exists(recording)) {
        if (auto info = QXMetaData::initWithFromURLEyeTVr(recording)) metadata->mergeMetaData(*info);
    } else {
        QXLogWarning("Error opening %s", recording.c_str());
    }
}

void QXMovie::readSubtitleOnlyLanguage()
{
    const std::optional<QXData> data = readWholeFile(fileURL);
    if (!data) return;
    std::string text;
    const NSStringEncoding encoding = QXStringEncodingForData(*data, &text);
    if (text.empty()) {
        QXLogWarning("Could not detect encoding for %s", fileURL.c_str());
        return;
    }

    // "Film.de.srt": the last piece of the name, if it is a language code.
    std::string language;
    const std::string stem = lowercase(fileURL.stem().string());
    std::string piece;
    for (char c : stem) {
        if (std::isalpha(static_cast<unsigned char>(c)) || c == '-') {
            piece += c;
        } else {
            piece.clear();
        }
    }
    if (piece.size() == 2 || piece.size() == 3) language = ff_convert_lang_to(piece, AV_LANG_ISO639_1);
    if (language.empty()) {
        const int64_t length = QXCharacterCount(text);
        language = CFStringTokenizerCopyBestStringLanguage(text, CFRangeMake(length / 4, length / 2));
        if (language.size() >= 3) language = language.substr(0, 2);
        if (language.empty()) language = "en";
    }
    for (const QXTrackRef& track : tracks) {
        track->language = language;
        if (auto subtitle = std::dynamic_pointer_cast<QXSubtitleTrack>(track)) subtitle->encoding = encoding;
    }
}

QXTrackRef QXMovie::trackWithStreamIndex(int32_t streamIndex) const
{
    for (const QXTrackRef& track : tracks) {
        if (track->streamIndex == streamIndex) return track;
    }
    return nullptr;
}

QXTrackRef QXMovie::trackWithID(int32_t trackID) const
{
    for (const QXTrackRef& track : tracks) {
        if (track->trackID == trackID) return track;
    }
    return nullptr;
}
