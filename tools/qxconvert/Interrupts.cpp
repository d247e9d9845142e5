#include "Interrupts.h"

#include <pthread.h>
#include <signal.h>

#include <atomic>
#include <mutex>
#include <thread>

namespace {

std::mutex gLock;
std::function<void()> gAction; // guarded by gLock
std::atomic<int> gSignal {0};

sigset_t cancelSignals()
{
    sigset_t set;
    sigemptyset(&set);
    sigaddset(&set, SIGINT);
    sigaddset(&set, SIGTERM);
    sigaddset(&set, SIGHUP);
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
        if (action) action();
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
