#pragma once
// Opening one title of a DVD folder as a source: the title set's VOB files
// joined, so the movie's DVD import finds the information files beside them.

#include <memory>
#include <vector>

#include "qxmedia/platform/foundation/QXError.h"
#include "qxmedia/platform/foundation/QXValue.h"

class QXMovie;

// The files of title `titleNumber` (from 1) of a VIDEO_TS folder or the
// folder above it; empty with an error when the folder or title is unknown.
std::vector<QXURL> QXDVDTitleURLs(const QXURL& folder, int titleNumber, QXErrorRef* error = nullptr);
// QXMovie::initWithURLs on those files.
std::shared_ptr<QXMovie> QXMovieWithDVDTitle(const QXURL& folder, int titleNumber, QXErrorRef* error = nullptr);
