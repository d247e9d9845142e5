#pragma once
// Sources for the reading tests, generated with ffmpeg once per build.

#include <filesystem>

namespace readermedia {

// Matroska: H.264, AC-3, AAC, SRT; 4 s.
std::filesystem::path matroska();
// matroska() remuxed by mkvmerge, which laces audio: several packets of
// one block share a buffer.
std::filesystem::path lacedMatroska();
// A concat list of matroska() and a part that does not exist: reading it
// fails for good once the first part is done.
std::filesystem::path concatWithMissingPart();
// SubRip: two cues, the last at 2.5 s.
std::filesystem::path subtitleFile();
// MP4: H.264 with B-frames, AAC; 4 s.
std::filesystem::path mp4();
// Transport stream: H.264, AAC; 4 s.
std::filesystem::path transportStream();
// A transport stream cut in the middle of a 6 s group of pictures: its
// video starts with non-key frames and 5 s of audio come before the first
// key frame.
std::filesystem::path cutTransportStream();
// Four transport streams played one after the other: 3 s from 1.4 s, 3 s
// from 101.4 s, 0.5 s from 4.4 s (back near the end of the first) and 2 s
// from 104.4 s (continuing the second).
std::filesystem::path jumpingTransportStream();
// The third part of jumpingTransportStream() alone.
std::filesystem::path jumpingTransportStreamStraggler();
// Video only, as a transport stream: 1 s from 1.4 s, then 1 s more whose
// first decode time lies `jumpMs` (900 or 1000) after the last of the first.
std::filesystem::path videoJump(int jumpMs);
// NUT with one raw video frame of exactly `bytes` bytes (33554432 or
// 33554431).
std::filesystem::path rawFrame(long bytes);

} // namespace readermedia
