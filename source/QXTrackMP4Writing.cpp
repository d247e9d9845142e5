// Writing track settings into an MP4 file that already holds the track:
// the part of each track class that talks to the MP4 layer.

#include <cstdint>
#include <vector>

extern "C" {
#include <libavcodec/codec_id.h>
}

#include "qxmedia/core/QXLocale.h"
#include "qxmedia/core/QXMedia.h"
#include "qxmedia/mp4/MP4File.h"
#include "qxmedia/mp4/MP4SampleEntries.h"
#include "qxmedia/mp4/MP4Track.h"
#include "qxmedia/platform/text/QXStringEncoding.h"
#include "qxmedia/source/QXAudioTrack.h"
#include "qxmedia/source/QXSubtitleTrack.h"
#include "qxmedia/source/QXVideoTrack.h"

using namespace qx;
using namespace qx::mp4;

namespace {

QXErrorRef trackIDError()
{
    return QXMedia::errorWithDomain(QXMediaErrorDomain, -13011);
}

FourCC fourccOf(const char* type)
{
    return FourCC(uint32_t(uint8_t(type[0])) << 24 | uint32_t(uint8_t(type[1])) << 16 |
                  uint32_t(uint8_t(type[2])) << 8 | uint32_t(uint8_t(type[3])));
}

} // namespace

bool QXTrack::writeToFile(MP4File& file, QXErrorRef* error)
{
    if (trackID == 0) {
        QXSetError(error, trackIDError());
        return false;
    }
    MP4Track* track = file.track(uint32_t(trackID));
    if (!track) {
        QXSetError(error, trackIDError());
        return false;
    }
    // Track names are stored in Mac OS Roman; a name that does not convert
    // is left out rather than mangled.
    if (!name.empty() && QXCanBeConvertedToEncoding(name, NSMacOSRomanStringEncoding)) track->setName(name);
    std::string code = language.empty() ? std::string() : ff_convert_lang_to(language, AV_LANG_ISO639_2_TERM);
    track->setLanguage(code.empty() ? "und" : code);
    track->setFlags(flags());
    track->setLayer(int16_t(layer));
    track->setAlternateGroup(int16_t(alternate_group));
    return true;
}

bool QXTrack::writeTrackAssociationsToFile(MP4File&, QXErrorRef*)
{
    return true;
}

bool QXTrack::writeTrackAssociation(AVTrackAssociationType type, const QXTrack* other, MP4File& file,
                                    QXErrorRef* error)
{
    if (other && other->trackID == 0) {
        QXSetError(error, trackIDError());
        return false;
    }
    MP4Track* track = file.track(uint32_t(trackID));
    if (!track) {
        QXSetError(error, QXMedia::errorWithDomain(QXMediaErrorDomain, -13013));
        return false;
    }
    const FourCC reference = fourccOf(type);
    if (track->hasReference(reference)) {
        if (!other) {
            if (!track->removeReferences(reference)) {
                QXSetError(error, QXMedia::errorWithDomain(QXMediaErrorDomain, -13013));
                return false;
            }
        } else {
            // Only the first entry is pointed elsewhere; further entries stay.
            std::vector<uint32_t> ids = track->references(reference);
            if (ids.empty()) {
                ids.push_back(uint32_t(other->trackID));
            } else {
                ids[0] = uint32_t(other->trackID);
            }
            track->setReferences(reference, ids);
        }
    } else if (other) {
        track->addReference(reference, uint32_t(other->trackID));
    }
    return true;
}

bool QXVisualTrack::writeToFile(MP4File& file, QXErrorRef* error)
{
    if (!QXTrack::writeToFile(file, error)) return false;
    MP4Track* track = file.track(uint32_t(trackID));
    // Words 0, 1, 3, 4, 6, 7 carry the transform's integer parts; the
    // others stay as they are.
    Matrix matrix = track->matrix();
    const double values[] = {transform.a, transform.b, transform.c, transform.d, transform.tx, transform.ty};
    const int words[] = {0, 1, 3, 4, 6, 7};
    for (int i = 0; i < 6; ++i) matrix[size_t(words[i])] = int32_t(uint32_t(int64_t(values[i])) << 16);
    track->setMatrix(matrix);
    return true;
}

bool QXVideoTrack::writeToFile(MP4File& file, QXErrorRef* error)
{
    if (!QXVisualTrack::writeToFile(file, error)) return false;
    MP4Track* track = file.track(uint32_t(trackID));
    track->setWidth(display_width);
    track->setHeight(display_height);
    if (hSpacing && vSpacing) {
        if (auto* pasp = track->sampleEntryChild<PaspBox>()) {
            pasp->hSpacing = hSpacing;
            pasp->vSpacing = vSpacing;
        } else if (track->mediaDataName()) {
            file.addPixelAspectRatio(uint32_t(trackID), hSpacing, vSpacing);
        }
    }
    if (auto* colr = track->sampleEntryChild<ColrBox>()) {
        if (colr->colorParameterType == fourcc("nclc") || colr->colorParameterType == fourcc("nclx")) {
            colr->primariesIndex = uint16_t(primariesIndex);
            colr->transferFunctionIndex = uint16_t(transferFunctionIndex);
            colr->matrixIndex = uint16_t(matrixIndex);
            if (colr->colorParameterType == fourcc("nclx")) colr->fullRangeFlag = colorRange == 2;
        }
    } else {
        file.addColr(uint32_t(trackID), uint16_t(primariesIndex), uint16_t(transferFunctionIndex),
                     uint16_t(matrixIndex), colorRange == 2);
    }
    if (codec_id == AV_CODEC_ID_H264) {
        if (auto* avcC = track->sampleEntryChild<AvcCBox>()) {
            avcC->profile = profile;
            avcC->level = level;
        }
    }
    return true;
}

bool QXAudioTrack::writeToFile(MP4File& file, QXErrorRef* error)
{
    if (!QXTrack::writeToFile(file, error)) return false;
    file.track(uint32_t(trackID))->setVolume(volume);
    return true;
}

bool QXSubtitleTrack::writeToFile(MP4File& file, QXErrorRef* error)
{
    if (!QXVisualTrack::writeToFile(file, error)) return false;
    MP4Track* track = file.track(uint32_t(trackID));
    auto* tx3g = dynamic_cast<Tx3gSampleEntry*>(track->sampleEntry());
    if (!tx3g) return true;
    tx3g->displayFlags = displayFlags;
    tx3g->horizontalJustification = int8_t(horizontal_justification);
    tx3g->verticalJustification = int8_t(vertical_justification);
    tx3g->defTextBoxTop = int16_t(defTextBoxTop);
    tx3g->defTextBoxLeft = int16_t(defTextBoxLeft);
    tx3g->defTextBoxBottom = int16_t(defTextBoxBottom);
    tx3g->defTextBoxRight = int16_t(defTextBoxRight);
    tx3g->backgroundColor = RGBAColor {bg_color_red, bg_color_green, bg_color_blue, bg_color_alpha};
    tx3g->fontId = font_id;
    tx3g->fontSize = font_size;
    tx3g->fontColor = RGBAColor {font_color_red, font_color_green, font_color_blue, font_color_alpha};
    return true;
}
