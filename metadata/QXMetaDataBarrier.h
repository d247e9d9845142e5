#pragma once
// The record's "barrier queue": any number of synchronous readers at once, a
// writer alone. A read nested inside a read of the same thread proceeds even
// while a writer waits (the record's reads call each other), so a waiting
// writer never deadlocks the reader it waits for.

#include <condition_variable>
#include <functional>
#include <mutex>
#include <string>

class QXMetaDataBarrier {
public:
    explicit QXMetaDataBarrier(std::string label) : label_(std::move(label)) {}

    void read(const std::function<void()>& block) const;
    void write(const std::function<void()>& block);

    const std::string& label() const { return label_; }

private:
    std::string label_;
    mutable std::mutex lock_;
    mutable std::condition_variable changed_;
    mutable int readers_ = 0;
    mutable int writersWaiting_ = 0;
    mutable bool writing_ = false;
};
