// Converts one file through a job with a catalogue preset, for
// bench_encode.sh to time against HandBrakeCLI. Not a benchmark loop: one
// conversion per run, timed from outside.
//
//   bench_encode_job INPUT OUTPUT [PRESET]     (default: the 1080p preset)

#include <cstdio>

#include "qxmedia/job/QXJob.h"
#include "qxmedia/job/QXPreset.h"
#include "qxmedia/source/QXMovie.h"

int main(int argc, char** argv)
{
    if (argc < 3) {
        std::fprintf(stderr, "usage: %s INPUT OUTPUT [PRESET]\n", argv[0]);
        return 2;
    }
    auto movie = QXMovie::initWithURL(argv[1]);
    if (!movie) {
        std::fprintf(stderr, "cannot open %s\n", argv[1]);
        return 1;
    }
    auto job = QXJob::initWithMovie(movie, QXPreset::initWithIdentifier(argc > 3 ? argv[3] : QXPresetApple1080p));
    job->destination = argv[2];
    job->queue();
    if (!job->start() || !job->waitUntilFinished()) {
        std::fprintf(stderr, "conversion failed: %s\n", job->error() ? job->error()->description().c_str() : "");
        return 1;
    }
    return 0;
}
