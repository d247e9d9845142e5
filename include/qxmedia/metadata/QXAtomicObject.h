#pragma once
// QXAtomicObject: a shared, immutable value behind a lock, so one field can be
// read and written from different threads. Every store makes the held object
// a new one: two objects with equal content are still two objects, which is
// what lets a record tell "set again" from "left alone".

#include <memory>
#include <mutex>
#include <utility>

#include "qxmedia/core/QXExport.h"

template <class T>
class QX_EXPORT QXAtomicObject {
public:
    using Ref = std::shared_ptr<const T>;

    QXAtomicObject() = default;
    QXAtomicObject(const QXAtomicObject&) = delete;
    QXAtomicObject& operator=(const QXAtomicObject&) = delete;

    Ref get() const
    {
        std::lock_guard guard(lock_);
        return value_;
    }
    void set(Ref value)
    {
        std::lock_guard guard(lock_);
        value_.swap(value);
    }
    // Stores a new object holding value.
    void set(T value) { set(std::make_shared<const T>(std::move(value))); }
    void clear() { set(Ref()); }

    bool isNull() const { return get() == nullptr; }
    // The value, or fallback when the field is absent.
    T valueOr(T fallback) const
    {
        Ref held = get();
        return held ? *held : std::move(fallback);
    }

private:
    mutable std::mutex lock_;
    Ref value_;
};
