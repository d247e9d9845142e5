// The finishing steps of an in-place update around its rename: the library
// entry of the source is refreshed and the file made fast-start before it,
// the file handed to the library after it. They run only after success.

#include "qxmedia/job/QXJob.h"

void QXJob::finishUpdatedFile()
{
    // Library refresh of originalTrack and optimize: filled in with the
    // library and fast-start steps.
}

void QXJob::addUpdatedFileToLibrary()
{
    // addToiTunes: filled in with the library hand-over.
}
