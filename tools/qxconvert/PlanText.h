#pragma once
// The plan of a job as text, one line per output track:
//    2  from #1   copy    audio     AAC  2 ch 48000 Hz  128 kb/s  eng  group 1  enabled

#include <string>

class QXJob;
class QXTrackJob;

std::string describePlanLine(const QXTrackJob& line);
void printPlan(const QXJob& job);
