#pragma once
/// @file
/// One-time initialisation: `static qx::dispatch_once_t once;
/// qx::dispatch_once(&once, [] { ... });` runs the block exactly once; callers
/// that come while it runs wait for it.

#include <mutex>

#include "qxmedia/platform/dispatch/DispatchQueue.h"

namespace qx {

/// The predicate of dispatch_once(): a static of its own per initialisation.
using dispatch_once_t = std::once_flag;

/// Runs the block once per predicate, whichever thread comes first; the others wait for it to end.
inline void dispatch_once(dispatch_once_t* predicate, const dispatch_block_t& block)
{
    std::call_once(*predicate, block);
}

} // namespace qx
