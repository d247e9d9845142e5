#pragma once
// The progress of a running job: on a terminal one line redrawn in place
// (percentage, speed, time left), for hosts one JSON object per line on
// stdout: {"state":…,"progress":0..1,"fps":…,"eta":seconds or null}.

#include <cstdio>
#include <string>

class QXJob;

class ProgressReport {
public:
    enum class Form { None, Terminal, Json };

    // `duration` (seconds) and `frameRate` of the source turn progress into
    // speed; either may be 0 when unknown.
    ProgressReport(Form form, double duration, double frameRate);

    // Called a few times a second while the job runs.
    void update(const QXJob& job);
    // Once, after the run: the last line with the job's end state.
    void finish(const QXJob& job);

private:
    struct Figures {
        double fraction = 0; // 0...1
        double speed = 0;    // seconds of the source per second, 0 while unknown
        double fps = 0;      // pictures per second, 0 while unknown
        double eta = -1;     // seconds left, negative while unknown
    };
    // The figures after `elapsed` seconds at `fraction` done.
    static Figures figures(double fraction, double elapsed, double duration, double frameRate);
    // "12:05", "1:02:03"; "--:--" for a negative time.
    static std::string clock(double seconds);

    void writeJson(const QXJob& job, const Figures& now);
    void drawLine(const Figures& now);

    Form form_;
    double duration_;
    double frameRate_;
    double start_;
};
