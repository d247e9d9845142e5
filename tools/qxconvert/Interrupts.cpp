#include "Interrupts.h"

#include <pthread.h>
#include <signal.h>
#include <unistd.h>

#include <atomic>
#include <mutex>
#include <thread>

namespace {

std::mutex gLock;
std::function<void()> gAction; // guarded by gLock
std::atomic<int> gSignal {0};

// A signal the tool was started with ignored stays ignored (nohup, a
// shell's background job): blocked, Linux would queue it for sigwait.
sigset_t cancelSignals()
{
    sigset_t set;
    sigemptyset(&set);
    for (int signal : {SIGINT, SIGTERM, SIGHUP}) {
        struct sigaction current {};
        if (sigaction(signal, nullptr, &current) == 0 && current.sa_handler == SIG_IGN) continue;
        sigaddset(&set, signal);
    }
    return set;
}

void waitForSignals(sigset_t set)
{
    for (;;) {
        int taken = 0;
        if (sigwait(&set, &taken) != 0) continue;
        int none = 0;
        if (!gSignal.compare_exchange_strong(none, taken)) continue;
        std::function<void()> action;
        {
            std::lock_guard hold(gLock);
            action = gAction;
        }
        // Without an action nothing is being written: end at once, as the
        // signal's default would, without running exit handlers under the
        // feet of other threads.
        if (!action) ::_exit(128 + taken);
        action();
    }
}

} // namespace

void interrupts::block()
{
    const sigset_t set = cancelSignals();
    pthread_sigmask(SIG_BLOCK, &set, nullptr);
    // Ends with the process; it holds nothing that needs tearing down.
    std::thread(waitForSignals, set).detach();
}

void interrupts::onInterrupt(std::function<void()> action)
{
    {
        std::lock_guard hold(gLock);
        gAction = action;
    }
    // A signal that came before the action was set still cancels.
    if (gSignal != 0 && action) action();
}

int interrupts::received()
{
    return gSignal;
}

int interrupts::exitStatus()
{
    return 128 + gSignal;
}
