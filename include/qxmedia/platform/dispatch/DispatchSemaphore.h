#pragma once
/// @file
/// Counting semaphores: the back-pressure between pipeline stages.

#include <memory>

#include "qxmedia/platform/dispatch/DispatchTime.h"

namespace qx {

class DispatchSemaphore;
/// A semaphore, shared by its users.
using dispatch_semaphore_t = std::shared_ptr<DispatchSemaphore>;

/// A semaphore holding `value` counts. Null when `value` is negative.
dispatch_semaphore_t dispatch_semaphore_create(long value);

/// A semaphore whose sleeping waiters are woken once `wakeBatch` counts are
/// free (or a few milliseconds after the first), not at every signal: for a
/// full pipeline stage, whose producer would otherwise be woken for each
/// sample its consumer takes.
dispatch_semaphore_t dispatch_semaphore_create_batched(long value, long wakeBatch);

/// Takes one count, waiting until `timeout` (DISPATCH_TIME_FOREVER: without
/// limit) for one to be there. Returns 0 on success and non-zero on timeout.
long dispatch_semaphore_wait(const dispatch_semaphore_t& semaphore, dispatch_time_t timeout);

/// Gives one count back. Returns non-zero if a waiting thread was woken.
long dispatch_semaphore_signal(const dispatch_semaphore_t& semaphore);

/// Gives `count` counts back at once, waking each waiter they serve once.
/// Returns the number of threads woken.
long dispatch_semaphore_signal_count(const dispatch_semaphore_t& semaphore, long count);

} // namespace qx
