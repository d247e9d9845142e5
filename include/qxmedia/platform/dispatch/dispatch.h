#pragma once
/// @file
/// qx::dispatch: queues, groups, semaphores, dispatch_apply, dispatch_once and
/// barriers, with libdispatch's names and meaning.

#include "qxmedia/platform/dispatch/DispatchGroup.h"
#include "qxmedia/platform/dispatch/DispatchOnce.h"
#include "qxmedia/platform/dispatch/DispatchQueue.h"
#include "qxmedia/platform/dispatch/DispatchSemaphore.h"
#include "qxmedia/platform/dispatch/DispatchTime.h"
