#pragma once
// How the read loop answers a failed av_read_frame. A damaged or flaky
// source may fail a few times and still give the rest of its packets, so
// eleven failures are read past (a busy source, EAGAIN, is waited for and
// not counted). The twelfth ends the read: an input/output error keeps
// what was read and finishes normally, any other fails the movie.

class QXReadErrorBudget {
public:
    enum class Answer {
        Retry,           // read the next packet
        RetryAfterPause, // the source is busy: wait a moment, then read on
        StopKeepingRead, // end the read as if the source had ended
        Fail,            // end the read and fail the movie
    };

    static constexpr int kTolerated = 11;

    // Counts the failure `rc` (a negative FFmpeg error code other than
    // AVERROR_EOF) and answers what the loop does next.
    Answer answer(int rc);

    int failures() const { return failures_; }

private:
    int failures_ = 0;
};
