#pragma once
// The record's "barrier queue": a concurrent dispatch queue on which reads
// run side by side and a write runs alone. Reads nest (the record's reads
// call each other), and a nested read proceeds even while a writer waits.

#include <functional>
#include <string>

#include "qxmedia/platform/dispatch/dispatch.h"

class QXMetaDataBarrier {
public:
    explicit QXMetaDataBarrier(std::string label);

    void read(const std::function<void()>& block) const;   // dispatch_sync
    void write(const std::function<void()>& block);        // dispatch_barrier_sync

    const char* label() const { return qx::dispatch_queue_get_label(queue_); }

private:
    qx::dispatch_queue_t queue_;
};
