#pragma once
/// @file
/// Everything a host program uses: open a movie and look at its tracks,
/// chapters and tags; choose a preset and run a job that writes an M4V;
/// read and write the tags and chapters of an MP4 in place; route the
/// framework's log lines and errors.
///
///     QXMedia::sharedMedia().setLogHandler([](int32_t flag, const std::string& line) { ... });
///     QXErrorRef error;
///     auto movie = QXMovie::initWithURL("in.mkv", &error);
///     auto job = QXJob::initWithMovie(movie, QXPreset::initWithIdentifier(QXPresetApple1080p));
///     job->destination = "out.m4v";
///     job->start();
///     job->waitUntilFinished();
///
/// examples/ holds a converter, a tag editor and a library lister.
///
/// Headers that are installed only because these include them are not part
/// of the interface; see the architecture notes.

/// @namespace qx
/// The framework's types that have no QX prefix: times, sample buffers,
/// dispatch queues, values and the MP4 layer.
/// @namespace qx::mp4
/// The MP4 layer: boxes, tracks, tags and chapters of a file.

#include "qxmedia/core/QXErrorCode.h"
#include "qxmedia/core/QXExport.h"
#include "qxmedia/core/QXMedia.h"
#include "qxmedia/core/QXTimeFormat.h"
#include "qxmedia/core/QXVersion.h"
#include "qxmedia/job/QXJob.h"
#include "qxmedia/job/QXPreset.h"
#include "qxmedia/job/QXTrackJob.h"
#include "qxmedia/library/QXLibraryMetadata.h"
#include "qxmedia/library/QXMediaManager.h"
#include "qxmedia/metadata/QXMetaData.h"
#include "qxmedia/mp4/MP4File.h"
#include "qxmedia/mp4/tags/MP4Chapters.h"
#include "qxmedia/mp4/tags/MP4Tags.h"
#include "qxmedia/platform/foundation/CMTime.h"
#include "qxmedia/platform/foundation/QXError.h"
#include "qxmedia/platform/foundation/QXValue.h"
#include "qxmedia/source/QXAudioTrack.h"
#include "qxmedia/source/QXChapter.h"
#include "qxmedia/source/QXChapterTrack.h"
#include "qxmedia/source/QXMovie.h"
#include "qxmedia/source/QXSubtitleTrack.h"
#include "qxmedia/source/QXTrack.h"
#include "qxmedia/source/QXVideoTrack.h"
