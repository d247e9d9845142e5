#include "qxmedia/dvd/QXDVDAttributes.h"

#include <cctype>

#include "qxmedia/core/QXMedia.h"

namespace {

int bcd(uint8_t value)
{
    return (value >> 4) * 10 + (value & 0x0f);
}

} // namespace

QXTime QXTime::initWithData(const QXDVDBytes& data)
{
    return QXTime{data.u8(0), data.u8(1), data.u8(2), data.u8(3)};
}

int64_t QXTime::milliseconds() const
{
    const int frames = (frame_u & 0x0f) + 10 * ((frame_u >> 4) & 0x03);
    const int frameMilliseconds = (frame_u & 0xc0) == 0xc0 ? 33 : 40;
    return (int64_t(bcd(hour)) * 3600 + bcd(minute) * 60 + bcd(second)) * 1000 + frames * frameMilliseconds;
}

QXVideoAttributes QXVideoAttributes::initWithData(const QXDVDBytes& data)
{
    const uint8_t first = data.u8(0), second = data.u8(1);
    QXVideoAttributes video;
    video.allowAutomaticLetterbox = first & 0x01;
    video.allowAutomaticPanAndScan = first & 0x02;
    video.display_aspect_ratio = (first >> 2) & 0x03;
    video.video_format = (first >> 4) & 0x03;
    video.mpeg_version = (first >> 6) & 0x03;
    video.film_mode = second & 0x01;
    video.letterboxed = second & 0x02;
    const int sizeCode = (second >> 2) & 0x03;
    video.picture_size = video.video_format == 0 ? sizeCode : video.video_format == 1 ? 4 + sizeCode : -1;
    video.constantBitRate = second & 0x10;
    video.line21_cc_2 = second & 0x40;
    video.line21_cc_1 = second & 0x80;
    return video;
}

QXAudioAttributes QXAudioAttributes::initWithData(const QXDVDBytes& data)
{
    const uint8_t first = data.u8(0), second = data.u8(1);
    QXAudioAttributes audio;
    audio.application_mode = first & 0x03;
    audio.lang_type = (first >> 2) & 0x03;
    audio.has_multichannel_extension = first & 0x10;
    audio.audio_format = (first >> 5) & 0x07;
    audio.channels = (second & 0x07) + 1;
    audio.sample_frequency = (second >> 4) & 0x03;
    audio.quantization = (second >> 6) & 0x03;
    if (audio.lang_type == 1) audio.lang_code = QXDVDLanguageCode(data, 2);
    audio.lang_extension = data.u8(4);
    audio.code_extension = data.u8(5);
    audio.app_info_value = data.u8(7);
    return audio;
}

QXSubpictureAttributes QXSubpictureAttributes::initWithData(const QXDVDBytes& data)
{
    QXSubpictureAttributes subpicture;
    subpicture.lang_type = data.u8(0) & 0x03;
    subpicture.code_mode = (data.u8(0) >> 5) & 0x07;
    subpicture.lang_code = QXDVDLanguageCode(data, 2);
    subpicture.code_extension = data.u8(5);
    return subpicture;
}

std::string QXDVDLanguageCode(const QXDVDBytes& data, size_t offset)
{
    const char first = char(data.u8(offset)), second = char(data.u8(offset + 1));
    if (!std::isalpha(static_cast<unsigned char>(first)) || !std::isalpha(static_cast<unsigned char>(second))) return {};
    return std::string{first, second};
}

QXMenuAttributes QXMenuAttributes::initWithData(const QXDVDBytes& data)
{
    constexpr size_t kAudioRecordSize = 8, kSubpictureRecordSize = 6;
    QXMenuAttributes menu;
    menu.video = QXVideoAttributes::initWithData(data.slice(0, 2));
    size_t audioCount = data.u16(2);
    if (audioCount > 8) {
        QXLogWarning("The number of audio streams cannot be greater than 8.");
        audioCount = 8;
    }
    for (size_t i = 0; i < audioCount; ++i) {
        menu.audio.push_back(QXAudioAttributes::initWithData(data.slice(4 + i * kAudioRecordSize, kAudioRecordSize)));
    }
    const size_t subpictureCount = data.u16(84);
    if (subpictureCount > 1) QXLogWarning("The number of subpicture streams cannot be greater than one.");
    if (subpictureCount != 0) menu.subpicture = QXSubpictureAttributes::initWithData(data.slice(86, kSubpictureRecordSize));
    return menu;
}
