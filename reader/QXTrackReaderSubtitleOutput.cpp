#include "qxmedia/reader/QXTrackReaderSubtitleOutput.h"

#include <algorithm>
#include <chrono>
#include <cstring>

extern "C" {
#include <libavcodec/avcodec.h>
}

#include "qxmedia/core/QXMedia.h"
#include "qxmedia/platform/coremedia/CMBlockBuffer.h"
#include "qxmedia/platform/text/QXStringEncoding.h"
#include "qxmedia/source/QXVisualTrack.h"

using namespace qx;

namespace {

constexpr NSStringEncoding kUTF8Encoding = 4;
constexpr NSStringEncoding kASCIIEncoding = 1;

struct AVSubtitleHolder {
    AVSubtitle subtitle {};
    ~AVSubtitleHolder() { avsubtitle_free(&subtitle); }
};

bool isText(int32_t codecId)
{
    const AVCodecDescriptor* descriptor = avcodec_descriptor_get(AVCodecID(codecId));
    // mov_text packets are binary (length, text, boxes) and go in as they are.
    return descriptor && (descriptor->props & AV_CODEC_PROP_TEXT_SUB) && codecId != AV_CODEC_ID_MOV_TEXT;
}

std::vector<uint8_t> copySampleBytes(const CMSampleBufferRef& sample)
{
    const CMBlockBufferRef data = CMSampleBufferGetDataBuffer(sample);
    std::vector<uint8_t> bytes(data ? CMBlockBufferGetDataLength(data) : 0);
    if (!bytes.empty() && CMBlockBufferCopyDataBytes(data, 0, bytes.size(), bytes.data()) != 0) {
        QXLogWarning("Failed to copy data from %s", sample->description().c_str());
        bytes.clear();
    }
    return bytes;
}

} // namespace

CMSampleBufferRef QXTX3GSampleBuffer(const std::vector<uint8_t>& bytes, CMTime presentation, CMTime duration)
{
    CMBlockBufferRef block;
    if (CMBlockBufferCreateWithMemoryBlock(nullptr, nullptr, bytes.size(), nullptr, nullptr, 0, bytes.size(),
                                           kCMBlockBufferAssureMemoryNowFlag,
                                           &block) != 0 ||
        CMBlockBufferReplaceDataBytes(bytes.data(), block, 0, bytes.size()) != 0) {
        return nullptr;
    }
    const CMSampleTimingInfo timing {duration, presentation, kCMTimeInvalid};
    const size_t size = bytes.size();
    CMSampleBufferRef sample;
    if (CMSampleBufferCreate(nullptr, block, true, nullptr, nullptr, nullptr, 1, 1, &timing, 1, &size, &sample) != 0) {
        return nullptr;
    }
    return sample;
}

// ---------------------------------------------------------------------------
// Converted subtitles

std::shared_ptr<QXTrackReaderSubtitleOutput>
QXTrackReaderSubtitleOutput::initWithSource(const std::shared_ptr<QXTrack>& source,
                                            const std::shared_ptr<QXTrack>& destination)
{
    return makeFinished<QXTrackReaderSubtitleOutput>(source, destination);
}

QXTrackReaderSubtitleOutput::QXTrackReaderSubtitleOutput(std::shared_ptr<QXTrack> source,
                                                         const std::shared_ptr<QXTrack>& destinationTrack)
    : QXTrackReaderOutput(std::move(source))
{
    if (const auto* text = dynamic_cast<const QXSubtitleTrack*>(track.get())) {
        obeySubtitleFormatting = text->obeySubtitleFormatting() ? 1 : 0;
    }
    if (const auto* visual = dynamic_cast<const QXVisualTrack*>(track.get())) {
        sourceWidth = visual->width;
        sourceHeight = visual->height;
    }
    destination = std::dynamic_pointer_cast<QXSubtitleTrack>(destinationTrack);
    if (destination) {
        destinationWidth = destination->width;
        destinationHeight = destination->height;
    }
    if (!track) return;
    avctx = QXOpenTrackDecoder(*track, __func__);
    // Bitmap decoders have no script header; text decoders always give one.
    if (avctx && avctx->subtitle_header) {
        const std::string_view header(reinterpret_cast<const char*>(avctx->subtitle_header),
                                      size_t(avctx->subtitle_header_size));
        ass_ctx = ASSSplitContext::create(header);
        if (!ass_ctx) QXLogWarning("%s failed to open ass context: %s", __func__, "no script header");
        // A script without a picture of its own positions in its play area.
        if (ass_ctx && !sourceWidth && !sourceHeight) {
            sourceWidth = uint64_t(std::max(0, ass_ctx->scriptInfo().play_res_x));
            sourceHeight = uint64_t(std::max(0, ass_ctx->scriptInfo().play_res_y));
        }
    }
}

QXTrackReaderSubtitleOutput::~QXTrackReaderSubtitleOutput() = default;

std::string QXTrackReaderSubtitleOutput::description() const
{
    return "<QXTrackReaderSubtitleOutput " + (track ? track->description() : std::string("(no track)")) + ">";
}

std::vector<uint8_t> QXTrackReaderSubtitleOutput::subtitleFromString(const std::string& text, bool forced)
{
    return QXTX3GSampleFromString(text, forced);
}

QXTextImage QXTrackReaderSubtitleOutput::imageOfRect(const AVSubtitleRect& rect)
{
    return QXTextImageFromPalettedBitmap(rect.data[0], rect.linesize[0], rect.w, rect.h,
                                         reinterpret_cast<const uint32_t*>(rect.data[1]), rect.nb_colors);
}

QXTextRecognitionPool& QXTrackReaderSubtitleOutput::recognitionPool()
{
    if (!pool_) pool_ = std::make_unique<QXTextRecognitionPool>(track->language);
    return *pool_;
}

void QXTrackReaderSubtitleOutput::addEmptySampleAtTimestamp(CMTime timestamp, CMTime duration)
{
    if (CMSampleBufferRef sample = QXTX3GSampleBuffer(QXTX3GEmptySample(), timestamp, duration)) {
        QXTrackReaderOutput::processSample(sample);
    }
}

void QXTrackReaderSubtitleOutput::processSample(const CMSampleBufferRef& sample)
{
    if (!sample) {
        finishPending(true);
        if (CMSampleBufferRef last = std::exchange(bufferedSubtitle, nullptr)) {
            QXTrackReaderOutput::processSample(last);
            const CMTime end = CMTimeAdd(CMSampleBufferGetPresentationTimeStamp(last), CMSampleBufferGetDuration(last));
            if (CMTIME_IS_NUMERIC(end)) addEmptySampleAtTimestamp(end, CMTimeMake(1, end.timescale));
        }
        QXTrackReaderOutput::processSample(nullptr);
        return;
    }
    if (!avctx) return;
    Pending pending {CMSampleBufferGetPresentationTimeStamp(sample), CMSampleBufferGetDuration(sample), {}};
    if (!decode(sample, pending)) return;
    if (pending.pieces.empty()) {
        QXLogWarning("Ignore emtpy subtitle for %s", sample->description().c_str());
        return;
    }
    pending_.push_back(std::move(pending));
    finishPending(false);
}

bool QXTrackReaderSubtitleOutput::decode(const CMSampleBufferRef& sample, Pending& pending)
{
    std::vector<uint8_t> bytes = copySampleBytes(sample);
    if (isText(track->codec_id)) {
        std::optional<std::string> text;
        if (destination) text = QXStringFromData(bytes.data(), bytes.size(), destination->encoding);
        if (!text) text = QXStringFromData(bytes.data(), bytes.size(), kUTF8Encoding);
        if (!text) text = QXStringFromData(bytes.data(), bytes.size(), kASCIIEncoding);
        if (!text) {
            QXLogWarning("Could not decode subtitle sample %s", sample->description().c_str());
            return false;
        }
        bytes.assign(text->begin(), text->end());
        bytes.push_back(0);
    }
    AVPacketPtr packet(av_packet_alloc());
    if (!packet || av_new_packet(packet.get(), int(bytes.size())) < 0) return false;
    if (!bytes.empty()) std::memcpy(packet->data, bytes.data(), bytes.size());
    packet->pts = QXPacketTime(pending.presentation, pending.presentation.timescale);
    packet->dts = QXPacketTime(CMSampleBufferGetDecodeTimeStamp(sample), pending.presentation.timescale);

    AVSubtitleHolder holder;
    int gotSubtitle = 0;
    const int result = avcodec_decode_subtitle2(avctx.get(), &holder.subtitle, &gotSubtitle, packet.get());
    if (result < 0) {
        QXLogWarning("%s Error decoding subtitle sample: %s", __func__, QXAvErrorText(result).c_str());
        return false;
    }
    if (!gotSubtitle) {
        QXLogWarning("No subtitle for %s", sample->description().c_str());
        return false;
    }
    const AVSubtitle& subtitle = holder.subtitle;
    // Pictures from program streams carry their display time in the
    // subtitle rather than the packet.
    if (!CMTIME_IS_NUMERIC(pending.duration) || pending.duration.value <= 0) {
        if (subtitle.end_display_time > subtitle.start_display_time && subtitle.end_display_time != UINT32_MAX) {
            pending.duration = CMTimeConvertScale(CMTimeMake(subtitle.end_display_time - subtitle.start_display_time, 1000),
                                                  pending.presentation.timescale, kCMTimeRoundingMethod_Default);
        }
    }
    if (subtitle.num_rects == 0) pending.pieces.push_back({QXTX3GEmptySample(), {}, false});
    const QXTX3GGeometry geometry {obeySubtitleFormatting != 0, sourceWidth, sourceHeight, destinationWidth,
                                   destinationHeight};
    for (unsigned i = 0; i < subtitle.num_rects; ++i) {
        const AVSubtitleRect& rect = *subtitle.rects[i];
        switch (rect.type) {
        case SUBTITLE_BITMAP: {
            QXTextImage image = imageOfRect(rect);
            if (image.pixels.empty()) {
                pending.pieces.push_back({QXTX3GEmptySample(), {}, false});
            } else {
                pending.pieces.push_back({{}, recognitionPool().recognize(std::move(image)),
                                          (rect.flags & AV_SUBTITLE_FLAG_FORCED) != 0});
            }
            break;
        }
        case SUBTITLE_TEXT:
            if (rect.text && *rect.text) QXLogWarning("Ignoring plain text subtitle sample %s", sample->description().c_str());
            break;
        case SUBTITLE_ASS: {
            if (!rect.ass || !*rect.ass) break;
            std::vector<ASSDialog> dialogs;
            if (ass_ctx) dialogs = ass_ctx->splitDialog(rect.ass);
            if (dialogs.empty()) {
                if (std::optional<ASSDialog> dialog = ass_ctx ? ass_ctx->splitDialog2(rect.ass) : std::nullopt) {
                    dialogs.push_back(std::move(*dialog));
                }
            }
            std::vector<uint8_t> bytesOfLine;
            // Dialogues of one line share one writing context; the last one's text stands.
            std::string text;
            for (const ASSDialog& dialog : dialogs) text += dialog.text;
            if (!dialogs.empty()) bytesOfLine = QXTX3GSampleFromDialogue(text, geometry);
            pending.pieces.push_back({std::move(bytesOfLine), {}, false});
            break;
        }
        default:
            QXLogWarning("Unhandeled subtitle type %d", int(rect.type));
            break;
        }
    }
    return true;
}

void QXTrackReaderSubtitleOutput::finishPending(bool all)
{
    const size_t limit = (pool_ ? pool_->workerCount() : 1) * kPicturesPerEngine;
    while (!pending_.empty()) {
        Pending& front = pending_.front();
        const bool waitAllowed = all || pending_.size() > limit;
        for (Piece& piece : front.pieces) {
            if (!piece.text.valid()) continue;
            if (!waitAllowed && piece.text.wait_for(std::chrono::seconds(0)) != std::future_status::ready) return;
            std::string text = piece.text.get();
            piece.bytes = text.empty() ? QXTX3GEmptySample() : subtitleFromString(text, piece.forced);
        }
        std::vector<uint8_t> bytes;
        for (const Piece& piece : front.pieces) bytes.insert(bytes.end(), piece.bytes.begin(), piece.bytes.end());
        const CMTime presentation = front.presentation, duration = front.duration;
        pending_.pop_front();
        if (bytes.empty()) continue;
        if (CMSampleBufferRef sample = QXTX3GSampleBuffer(bytes, presentation, duration)) joinTimeline(sample);
    }
}

void QXTrackReaderSubtitleOutput::joinTimeline(const CMSampleBufferRef& sample)
{
    const CMTime P = CMSampleBufferGetPresentationTimeStamp(sample);
    if (!bufferedSubtitle) {
        if (P > kCMTimeZero) addEmptySampleAtTimestamp(kCMTimeZero, P);
        bufferedSubtitle = sample;
        return;
    }
    const CMSampleBufferRef held = bufferedSubtitle;
    const CMTime Pu = CMSampleBufferGetPresentationTimeStamp(held);
    const CMTime Du = CMSampleBufferGetDuration(held);
    if (P < Pu) {
        QXLogWarning("Ignoring late subtitle sample: %s", sample->description().c_str());
        return;
    }
    const bool durationValid = CMTIME_IS_NUMERIC(Du);
    const CMTime E = durationValid ? CMTimeAdd(Pu, Du) : kCMTimeInvalid;
    if (durationValid && E < P) {
        // The held line goes first: the track's samples follow each other.
        QXTrackReaderOutput::processSample(held);
        addEmptySampleAtTimestamp(E, CMTimeSubtract(P, E));
    } else if (!durationValid || E > P) {
        // Overlapping subtitles: the earlier one ends where the next begins.
        const CMSampleTimingInfo timing {CMTimeSubtract(P, Pu), Pu, kCMTimeInvalid};
        CMSampleBufferRef cut;
        if (CMSampleBufferCreateCopyWithNewTiming(nullptr, held, 1, &timing, &cut) == 0) {
            QXTrackReaderOutput::processSample(cut);
        }
    } else {
        QXTrackReaderOutput::processSample(held);
    }
    bufferedSubtitle = sample;
}

// ---------------------------------------------------------------------------
// Copied tx3g

std::shared_ptr<QXTrackReaderRawSubtitleOutput>
QXTrackReaderRawSubtitleOutput::initWithSource(const std::shared_ptr<QXTrack>& source,
                                               const std::shared_ptr<QXTrack>& destination)
{
    return makeFinished<QXTrackReaderRawSubtitleOutput>(source, destination);
}

QXTrackReaderRawSubtitleOutput::QXTrackReaderRawSubtitleOutput(std::shared_ptr<QXTrack> source,
                                                               const std::shared_ptr<QXTrack>& destination)
    : QXTrackReaderOutput(std::move(source))
{
    timescale = destination && destination->naturalTimeScale > 0 ? int32_t(destination->naturalTimeScale)
                : track                                          ? int32_t(track->naturalTimeScale)
                                                                 : 1000;
    if (timescale <= 0) timescale = 1000;
}

std::string QXTrackReaderRawSubtitleOutput::description() const
{
    return "<QXTrackReaderRawSubtitleOutput " + (track ? track->description() : std::string("(no track)")) + ">";
}

void QXTrackReaderRawSubtitleOutput::addEmptySampleAtTimestamp(CMTime timestamp, CMTime duration)
{
    if (CMSampleBufferRef sample = QXTX3GSampleBuffer(QXTX3GEmptySample(), timestamp, duration)) {
        QXTrackReaderOutput::processSample(sample);
    }
}

void QXTrackReaderRawSubtitleOutput::processSample(const CMSampleBufferRef& sample)
{
    if (!sample) {
        QXTrackReaderOutput::processSample(nullptr);
        return;
    }
    const CMTime P = CMTimeConvertScale(CMSampleBufferGetPresentationTimeStamp(sample), timescale,
                                        kCMTimeRoundingMethod_RoundHalfAwayFromZero);
    const CMTime D = CMTimeConvertScale(CMSampleBufferGetDuration(sample), timescale,
                                        kCMTimeRoundingMethod_RoundHalfAwayFromZero);
    const CMTime E = previousEnd;
    CMSampleTimingInfo timing;
    if (P > E) {
        const CMTime gap = CMTimeSubtract(P, E);
        addEmptySampleAtTimestamp(E, gap);
        previousEnd = CMTimeAdd(previousEnd, gap);
        timing = {D, previousEnd, previousEnd};
    } else if (P == E) {
        timing = {D, E, E};
    } else if (CMTimeAdd(P, D) <= E) {
        QXLogWarning("Ignoring late Subtitle: %s", sample->description().c_str());
        return;
    } else {
        QXLogWarning("Adjusting start of Subtitle: %s", sample->description().c_str());
        timing = {CMTimeSubtract(CMTimeAdd(P, D), E), E, E};
    }
    CMSampleBufferRef copy;
    if (CMSampleBufferCreateCopyWithNewTiming(nullptr, sample, 1, &timing, &copy) != 0) return;
    previousEnd = CMTimeAdd(previousEnd, timing.duration);
    QXTrackReaderOutput::processSample(copy);
}
