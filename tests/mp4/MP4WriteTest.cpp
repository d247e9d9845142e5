// Files the layer creates from samples of ffmpeg-made sources, checked by
// ffprobe, mediainfo, an ffmpeg decode and the layer's own reader.

#include "MP4TestSupport.h"

#include "qxmedia/mp4/MP4File.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <functional>

using namespace qx::mp4;
using Stream = qxtest::StreamPackets;

namespace {

std::filesystem::path source(const std::string& name, const std::string& arguments)
{
    auto path = qxtest::generate(name, arguments);
    EXPECT_FALSE(path.empty()) << name;
    return path;
}

std::filesystem::path h264Source()
{
    return source("mp4-h264.mp4", "-f lavfi -i testsrc2=size=320x240:rate=25:duration=3 -c:v libx264 -preset veryfast "
                                  "-pix_fmt yuv420p -g 25 -bf 2");
}

std::filesystem::path audioSource(const std::string& codec, const std::string& layout)
{
    return source("mp4-" + codec + ".mp4", "-f lavfi -i sine=frequency=440:sample_rate=48000:duration=3 -af "
                                           "aformat=channel_layouts=" + layout + " -c:a " + codec + " -b:a 192k");
}

// One sample on its way into the file, in decode order across tracks.
struct Pending {
    double time;
    std::function<bool()> write;
};

void queueStream(std::vector<Pending>& queue, MP4File& file, uint32_t trackId, const Stream& stream,
                 bool dependencies = false)
{
    int64_t firstDts = stream.packets.empty() ? 0 : stream.packets.front().dts;
    for (const auto& packet : stream.packets) {
        double time = double(packet.dts - firstDts) * stream.timeBase.num / stream.timeBase.den;
        queue.push_back({time, [&file, trackId, &packet, dependencies] {
                             int64_t offset = packet.pts - packet.dts;
                             if (dependencies)
                                 return file.writeSampleDependency(trackId, packet.data.data(), packet.data.size(),
                                                                   packet.duration, offset, packet.key,
                                                                   packet.key ? kSampleDependsOnNone
                                                                              : kSampleDependsOnOthers);
                             return file.writeSample(trackId, packet.data.data(), packet.data.size(), packet.duration,
                                                     offset, packet.key);
                         }});
    }
}

bool writeAll(std::vector<Pending>& queue)
{
    std::stable_sort(queue.begin(), queue.end(), [](const Pending& a, const Pending& b) { return a.time < b.time; });
    for (auto& pending : queue)
        if (!pending.write()) return false;
    return true;
}

uint32_t addH264(MP4File& file, const Stream& video)
{
    AvcCBox config;
    ByteReader in(video.extradata);
    EXPECT_TRUE(config.parseFields(in));
    uint32_t id = file.addH264VideoTrack(uint32_t(video.timeBase.den), -1, uint16_t(video.width),
                                         uint16_t(video.height), config.profile, config.profileCompatibility,
                                         config.level, 3);
    for (const auto& sps : config.sps) file.addH264SequenceParameterSet(id, sps.data(), uint16_t(sps.size()));
    for (const auto& pps : config.pps) file.addH264PictureParameterSet(id, pps.data(), uint16_t(pps.size()));
    file.setTrackDurationPerChunk(id, uint64_t(video.timeBase.den) / 2);
    EXPECT_EQ(file.trackDurationPerChunk(id), uint64_t(video.timeBase.den) / 2);
    EXPECT_EQ(file.trackDurationPerChunk(id + 100), UINT64_MAX);
    return id;
}

// The lines of ffprobe's csv output for some entries.
std::vector<std::string> probe(const std::filesystem::path& path, const std::string& entries)
{
    std::string text = mp4test::output("ffprobe -v error -show_entries " + entries + " -of csv=p=0 '" +
                                       path.string() + "'");
    std::vector<std::string> lines;
    size_t start = 0;
    while (start < text.size()) {
        size_t end = text.find('\n', start);
        if (end == std::string::npos) end = text.size();
        if (end > start) lines.push_back(text.substr(start, end - start));
        start = end + 1;
    }
    return lines;
}

std::vector<uint8_t> tx3gSample(const std::string& text)
{
    std::vector<uint8_t> sample {uint8_t(text.size() >> 8), uint8_t(text.size())};
    sample.insert(sample.end(), text.begin(), text.end());
    return sample;
}

} // namespace

TEST(MP4Write, H264AacAc3SubtitlesAndChaptersAreReadByOtherTools)
{
    Stream video = qxtest::readStream(h264Source(), SIZE_MAX, AVMEDIA_TYPE_VIDEO);
    Stream aac = qxtest::readStream(audioSource("aac", "stereo"), SIZE_MAX, AVMEDIA_TYPE_AUDIO);
    auto ac3Path = audioSource("ac3", "5.1");
    Stream ac3 = qxtest::readStream(ac3Path, SIZE_MAX, AVMEDIA_TYPE_AUDIO);
    ASSERT_GT(video.packets.size(), 70u);
    ASSERT_FALSE(aac.packets.empty() || ac3.packets.empty());
    // The dac3 fields of the source, as the stream analysis would find them.
    auto ac3File = MP4File::read(ac3Path);
    ASSERT_TRUE(ac3File);
    Dac3Box* dac3 = ac3File->tracks().front()->sampleEntryChild<Dac3Box>();
    ASSERT_NE(dac3, nullptr);
    auto jpeg = source("mp4-chapter.jpg", "-f lavfi -i testsrc2=size=160x120 -frames:v 1");
    std::string jpegText = qxtest::readFile(jpeg);
    std::vector<uint8_t> jpegBytes(jpegText.begin(), jpegText.end());

    auto dir = qxtest::makeTempDir("mp4-write");
    auto out = dir / "out.m4v";
    MP4CreateOptions options;
    options.majorBrand = fourcc("M4V ");
    options.compatibleBrands = {fourcc("M4V "), fourcc("M4A "), fourcc("mp42"), fourcc("isom"), fourcc("avc1")};
    auto file = MP4File::create(out, options);
    ASSERT_TRUE(file);
    file->setVideoProfileLevel(0x7F);

    uint32_t videoId = addH264(*file, video);
    ASSERT_EQ(videoId, 1u);
    file->track(videoId)->setLanguage("eng");
    file->addPixelAspectRatio(videoId, 1, 1);
    file->addColr(videoId, 1, 1, 1, false);

    uint32_t aacId = file->addAudioTrack(uint32_t(aac.sampleRate), 1024);
    file->setTrackESConfiguration(aacId, aac.extradata.data(), aac.extradata.size());
    file->setAudioProfileLevel(0x29);
    file->track(aacId)->setLanguage("fra");
    file->track(aacId)->setName("Stereo");
    file->track(aacId)->setAlternateGroup(1);

    uint32_t ac3Id = file->addAC3AudioTrack(48000, dac3->fscod, dac3->bsid, dac3->bsmod, dac3->acmod, dac3->lfeon,
                                            dac3->bitRateCode);
    MP4Track* ac3Track = file->track(ac3Id);
    ac3Track->setAlternateGroup(1);
    ac3Track->setFlags(kTrackInMovie); // not the default audio
    ac3Track->addReference(fourcc("fall"), aacId);

    uint32_t subId = file->addSubtitleTrack(1000, 320, 60);
    file->track(subId)->setLanguage("eng");

    uint32_t chapterId = file->addChapterTextTrack(videoId, 1000);
    file->track(chapterId)->setName("Chapter Titles");
    uint32_t imageId = file->addJpegVideoTrack(1000, -1, 160, 120);
    file->track(imageId)->setName("Chapter Images");
    file->track(imageId)->setLayer(1);
    file->track(imageId)->setFlags(kTrackInMovie);
    file->track(videoId)->addReference(fourcc("chap"), imageId);
    EXPECT_EQ(file->track(videoId)->references(fourcc("chap")), (std::vector<uint32_t> {chapterId, imageId}));

    std::vector<Pending> queue;
    queueStream(queue, *file, videoId, video, true);
    queueStream(queue, *file, aacId, aac);
    queueStream(queue, *file, ac3Id, ac3);
    const char* lines[] = {"First line", "", "Second line"};
    for (int i = 0; i < 3; ++i) {
        queue.push_back({double(i), [&, i] {
                             auto sample = tx3gSample(lines[i]);
                             return file->writeSample(subId, sample.data(), sample.size(), 1000, 0, true);
                         }});
    }
    const char* titles[] = {"Opening", "Middle", "End"};
    for (int i = 0; i < 3; ++i) {
        queue.push_back({double(i), [&, i] {
                             return file->addChapter(chapterId, 1000, titles[i]) &&
                                    file->writeSample(imageId, jpegBytes.data(), jpegBytes.size(), 1000, 0, true);
                         }});
    }
    ASSERT_TRUE(writeAll(queue));
    // The source starts presenting after its reorder delay: an edit skips it.
    int64_t delay = video.packets.front().pts - video.packets.front().dts;
    file->track(videoId)->addEdit(delay, file->convertFromTrackDuration(videoId, file->track(videoId)->duration()));
    ASSERT_TRUE(file->close());

    // ffprobe: codecs, tags, frame counts, languages, dispositions, chapters.
    auto streams = probe(out, "stream=codec_tag_string,nb_frames:stream_disposition=default,attached_pic");
    std::erase_if(streams, [](const std::string& line) { return line.empty() || line == ","; });
    ASSERT_EQ(streams.size(), 6u);
    EXPECT_EQ(streams[0], "avc1," + std::to_string(video.packets.size()) + ",1,0");
    EXPECT_EQ(streams[1], "mp4a," + std::to_string(aac.packets.size()) + ",1,0");
    EXPECT_EQ(streams[2].substr(0, streams[2].find(",", 5) + 4), "ac-3," + std::to_string(ac3.packets.size()) + ",0,0")
        << "an AC-3 track that is not enabled is not the default";
    EXPECT_EQ(streams[3], "tx3g,3,1,0");
    EXPECT_EQ(streams[4], "text,3,0,0");
    EXPECT_EQ(streams[5], "jpeg,3,0,1") << "the chapter images are an attached picture";
    auto chapters = probe(out, "chapter=start_time,end_time:chapter_tags=title");
    ASSERT_EQ(chapters.size(), 3u);
    EXPECT_EQ(chapters[2], "2.000000,3.000000,End");
    auto start = probe(out, "stream=start_time");
    EXPECT_EQ(start[0], "0.000000") << "the edit list hides the reorder delay";

    EXPECT_EQ(mp4test::decodeErrors(out), "");

    if (qxtest::haveTool("mediainfo")) {
        std::string info = mp4test::output("mediainfo --Output=JSON '" + out.string() + "'");
        std::erase(info, ' ');
        for (const char* format : {"AVC", "AAC", "AC-3", "TimedText", "JPEG"})
            EXPECT_NE(info.find("\"Format\":\"" + std::string(format) + "\""), std::string::npos) << format;
        EXPECT_NE(info.find("Opening"), std::string::npos) << "menu from the chapter track";
    }

    // The layer's own reader: samples come back byte for byte, times too.
    auto back = MP4File::read(out);
    ASSERT_TRUE(back);
    EXPECT_EQ(back->ftyp()->compatibleBrands.size(), 5u);
    MP4Track* v = back->track(videoId);
    ASSERT_EQ(v->sampleCount(), video.packets.size());
    std::vector<uint8_t> data;
    for (uint32_t i = 0; i < v->sampleCount(); i += 7) {
        ASSERT_TRUE(v->readSample(i, data));
        EXPECT_EQ(data, video.packets[i].data) << i;
        SampleInfo info;
        v->sampleInfo(i, info);
        EXPECT_EQ(info.renderingOffset, video.packets[i].pts - video.packets[i].dts);
    }
    // Interleaved by half a second of video per chunk, audio at one second.
    auto videoChunks = dynamic_cast<ChunkOffsetBox*>(v->findBox("mdia.minf.stbl.stco"))->offsets;
    auto audioChunks = dynamic_cast<ChunkOffsetBox*>(back->track(aacId)->findBox("mdia.minf.stbl.stco"))->offsets;
    EXPECT_EQ(videoChunks.size(), 6u);
    EXPECT_EQ(audioChunks.size(), 4u); // three full seconds and the encoder delay
    EXPECT_LT(audioChunks.front(), videoChunks.back());
    EXPECT_LT(videoChunks.front(), audioChunks.back());
    EXPECT_NE(v->findBox("mdia.minf.stbl.sdtp"), nullptr);
    EXPECT_EQ(back->track(aacId)->findBox("mdia.minf.stbl.stss"), nullptr) << "all-sync tracks have no stss";
    EXPECT_GT(back->track(aacId)->sampleEntryChild<EsdsBox>()->avgBitrate, 100000u);
    EXPECT_EQ(back->audioProfileLevel(), 0x29);
    auto meta = back->copyTrackMetadata();
    EXPECT_EQ(meta[videoId].dictionary()["chap"], std::to_string(chapterId) + "," + std::to_string(imageId));
    EXPECT_EQ(meta[ac3Id].dictionary()["fall"], std::to_string(aacId));
    EXPECT_EQ(meta[aacId].dictionary()["alternate_group"], "1");
    EXPECT_EQ(back->mvhd()->nextTrackId, imageId + 1);
}

TEST(MP4Write, HevcAndEac3KeepTheirConfigurationRecords)
{
    auto hevcPath = source("mp4-hevc.mp4", "-f lavfi -i testsrc2=size=320x240:rate=25:duration=2 -c:v libx265 "
                                           "-preset ultrafast -pix_fmt yuv420p -tag:v hvc1 -x265-params log-level=error");
    auto eac3Path = audioSource("eac3", "5.1");
    Stream hevc = qxtest::readStream(hevcPath, SIZE_MAX, AVMEDIA_TYPE_VIDEO);
    Stream eac3 = qxtest::readStream(eac3Path, SIZE_MAX, AVMEDIA_TYPE_AUDIO);
    ASSERT_EQ(hevc.codec, int(AV_CODEC_ID_HEVC));
    ASSERT_FALSE(hevc.extradata.empty());
    auto eac3File = MP4File::read(eac3Path);
    ASSERT_TRUE(eac3File);
    Dec3Box* dec3 = eac3File->tracks().front()->sampleEntryChild<Dec3Box>();
    ASSERT_NE(dec3, nullptr);

    auto out = qxtest::makeTempDir("mp4-hevc") / "out.mp4";
    MP4CreateOptions options;
    options.use64BitData = true;
    options.majorBrand = fourcc("mp42");
    options.compatibleBrands = {fourcc("mp42"), fourcc("isom"), fourcc("avc1")};
    auto file = MP4File::create(out, options);
    ASSERT_TRUE(file);
    uint32_t videoId = file->addHEVCVideoTrack(uint32_t(hevc.timeBase.den), -1, uint16_t(hevc.width),
                                               uint16_t(hevc.height));
    ASSERT_TRUE(file->setHEVCConfiguration(videoId, hevc.extradata.data(), hevc.extradata.size()));
    file->addColr(videoId, 1, 1, 1, true);
    uint32_t audioId = file->addEAC3AudioTrack(48000, dec3->content.data(), dec3->content.size());
    std::vector<Pending> queue;
    queueStream(queue, *file, videoId, hevc);
    queueStream(queue, *file, audioId, eac3);
    ASSERT_TRUE(writeAll(queue));
    ASSERT_TRUE(file->close(MP4_CLOSE_DO_NOT_COMPUTE_BITRATE));

    auto streams = probe(out, "stream=codec_name,codec_tag_string,nb_frames");
    ASSERT_EQ(streams.size(), 2u);
    EXPECT_EQ(streams[0], "hevc,hvc1," + std::to_string(hevc.packets.size()));
    EXPECT_EQ(streams[1].substr(0, 10), "eac3,ec-3,");
    EXPECT_EQ(mp4test::decodeErrors(out), "");
    auto back = MP4File::read(out);
    ASSERT_TRUE(back);
    EXPECT_EQ(back->track(videoId)->sampleEntryChild<HvcCBox>()->content, hevc.extradata);
    EXPECT_EQ(back->track(audioId)->sampleEntryChild<Dec3Box>()->content, dec3->content);
    EXPECT_TRUE(back->root().findChild(kMdat)->largeSize);
    auto colr = back->track(videoId)->sampleEntryChild<ColrBox>();
    ASSERT_NE(colr, nullptr);
    EXPECT_TRUE(colr->fullRangeFlag);
}
