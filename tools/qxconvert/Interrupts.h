#pragma once
// SIGINT, SIGTERM and SIGHUP as one cancel. block() runs first thing in
// main, before any thread or file exists: every thread inherits the mask,
// and one thread of our own takes the signals with sigwait, so nothing
// runs inside a signal handler and no signal is lost while the output is
// being made.

#include <functional>

namespace interrupts {

// Blocks the three signals and starts the thread that waits for them.
void block();
// The action for the first signal. If a signal came before, it runs at
// once, on the caller's thread; otherwise on the signal thread. Later
// signals are ignored: one cancel is already on its way. While no action
// is set (an empty one clears it) a signal ends the process at once with
// exitStatus(): set one before anything is written.
void onInterrupt(std::function<void()> action);
// The first signal taken, or 0.
int received();
// 128 + the signal, the shell's status for a command a signal ended.
int exitStatus();

} // namespace interrupts
