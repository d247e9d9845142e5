#pragma once
/// @file
/// Groups: count work in flight and tell when all of it is done.

#include <memory>

#include "qxmedia/platform/dispatch/DispatchQueue.h"
#include "qxmedia/platform/dispatch/DispatchTime.h"

namespace qx {

class DispatchGroup;
/// A group, shared by its users.
using dispatch_group_t = std::shared_ptr<DispatchGroup>;

/// A new group with no work.
dispatch_group_t dispatch_group_create();

///@{
/// One more unit of work in the group / one unit done. A leave without its
/// enter aborts.
void dispatch_group_enter(const dispatch_group_t& group);
void dispatch_group_leave(const dispatch_group_t& group);
///@}

/// dispatch_async of a block that counts as work of the group.
void dispatch_group_async(const dispatch_group_t& group, const dispatch_queue_t& queue, dispatch_block_t block);

/// Submits `block` to `queue` once the group has no work; at once if it has
/// none now. Each registered block runs once.
void dispatch_group_notify(const dispatch_group_t& group, const dispatch_queue_t& queue, dispatch_block_t block);

/// Waits until the group has no work. Returns 0 then, non-zero on timeout.
long dispatch_group_wait(const dispatch_group_t& group, dispatch_time_t timeout);

} // namespace qx
