#pragma once
/// @file
/// Dispatch queues: serial queues that run their blocks one at a time in
/// order, concurrent queues with barriers, and the process-wide global queues.
///
/// Blocks may block (on semaphores, groups, other queues) on purpose. A serial
/// queue owns a thread of its own for as long as it has work, so a blocked
/// serial queue never holds up another queue. The global queues share an
/// elastic pool per priority: it keeps about one running worker per core, adds
/// a worker at once when one blocks in a dispatch wait while work is pending,
/// adds one when pending work makes no progress because its workers are
/// blocked elsewhere (mutexes, I/O), and lets workers go after a few idle
/// seconds. Threads carry the names of the queues they serve.

#include <cstddef>
#include <functional>
#include <memory>
#include <string_view>

namespace qx {

/// A unit of work.
using dispatch_block_t = std::function<void()>;

class DispatchQueue;
/// A queue, shared by its users; it stays alive while it has blocks to run.
using dispatch_queue_t = std::shared_ptr<DispatchQueue>;

/// The kind of a new queue.
enum class dispatch_queue_attr_t { serial, concurrent };
/// One block at a time, in order.
inline constexpr dispatch_queue_attr_t DISPATCH_QUEUE_SERIAL = dispatch_queue_attr_t::serial;
/// Blocks side by side, with barriers.
inline constexpr dispatch_queue_attr_t DISPATCH_QUEUE_CONCURRENT = dispatch_queue_attr_t::concurrent;

///@{
/// The priorities of the global queues (see dispatch_get_global_queue()).
inline constexpr long DISPATCH_QUEUE_PRIORITY_HIGH = 2;
inline constexpr long DISPATCH_QUEUE_PRIORITY_DEFAULT = 0;
inline constexpr long DISPATCH_QUEUE_PRIORITY_LOW = -2;
inline constexpr long DISPATCH_QUEUE_PRIORITY_BACKGROUND = -32768;
///@}

/// A new queue. The label names the queue's threads (first 15 bytes) and is
/// returned by dispatch_queue_get_label.
dispatch_queue_t dispatch_queue_create(std::string_view label, dispatch_queue_attr_t attr = DISPATCH_QUEUE_SERIAL);

/// The global concurrent queue of a priority. HIGH and LOW share the default
/// pool; BACKGROUND has its own pool of lower-priority (niced) threads. `flags`
/// is reserved and ignored.
dispatch_queue_t dispatch_get_global_queue(long priority, unsigned long flags = 0);

/// The queue's label as given at creation; "" for a null queue.
const char* dispatch_queue_get_label(const dispatch_queue_t& queue);

/// Submits a block and returns at once. A queue stays alive while it has
/// blocks to run.
void dispatch_async(const dispatch_queue_t& queue, dispatch_block_t block);

/// Runs a block on the queue and waits for it to end; the block runs on the
/// calling thread once the queue lets it. On a concurrent queue this is a
/// read: it runs beside other reads and never beside a barrier. A read from
/// inside a block of the same concurrent queue proceeds at once, even while a
/// barrier waits, so reads may nest. dispatch_sync onto a serial queue that
/// the calling thread is already running would deadlock: it aborts with a
/// message instead.
void dispatch_sync(const dispatch_queue_t& queue, const dispatch_block_t& block);

///@{
/// On a queue made with DISPATCH_QUEUE_CONCURRENT: the block runs alone, after
/// everything submitted before it and before everything submitted after it.
/// On any other queue these are dispatch_async / dispatch_sync. A barrier
/// sync from inside a read of the same queue aborts (it would deadlock); from
/// inside a barrier of the same queue it runs at once.
void dispatch_barrier_async(const dispatch_queue_t& queue, dispatch_block_t block);
void dispatch_barrier_sync(const dispatch_queue_t& queue, const dispatch_block_t& block);
///@}

/// Runs block(0) ... block(iterations - 1) and returns when all have run. On a
/// concurrent queue they run in parallel (the calling thread takes part), on a
/// serial queue in order on that queue.
void dispatch_apply(size_t iterations, const dispatch_queue_t& queue, const std::function<void(size_t)>& block);

/// True if the calling thread is running a block of `queue` (also from inside
/// a dispatch_sync nested in such a block).
bool dispatch_queue_is_current(const dispatch_queue_t& queue);
///@{
/// Abort with a message when the calling thread is not (is) on `queue`.
void dispatch_assert_queue(const dispatch_queue_t& queue);
void dispatch_assert_queue_not(const dispatch_queue_t& queue);
///@}

/// Diagnostics of a global queue's pool.
struct dispatch_pool_stats {
    size_t threads = 0; ///< alive
    size_t idle = 0;    ///< waiting for work
    size_t blocked = 0; ///< blocked in a dispatch wait
    size_t pending = 0; ///< blocks not yet started
};
/// A snapshot of the pool behind the global queue of a priority; the figures may change at once.
dispatch_pool_stats dispatch_get_pool_stats(long priority);
/// How long idle threads (pool workers and serial-queue threads) stay before
/// they exit; 5 seconds unless changed.
void dispatch_set_idle_timeout_ms(unsigned milliseconds);

} // namespace qx
