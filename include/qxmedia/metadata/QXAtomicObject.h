#pragma once
/// @file
/// QXAtomicObject, the lock-guarded field type of QXMetaData.

#include <memory>
#include <mutex>
#include <utility>

#include "qxmedia/core/QXExport.h"

/// A shared, immutable value behind a lock, so one field can be read and
/// written from different threads. Every store makes the held object a new
/// one: two objects with equal content are still two objects, which is what
/// lets a record tell "set again" from "left alone". The field may be absent
/// (null), which is not the same as an empty value.
template <class T>
class QX_EXPORT QXAtomicObject {
public:
    /// The held object: shared with the field and never changed, so it stays
    /// valid and the same after later stores.
    using Ref = std::shared_ptr<const T>;

    QXAtomicObject() = default;
    QXAtomicObject(const QXAtomicObject&) = delete;
    QXAtomicObject& operator=(const QXAtomicObject&) = delete;

    /// The held object; null when the field is absent.
    Ref get() const
    {
        std::lock_guard guard(lock_);
        return value_;
    }
    /// Holds this object (null makes the field absent).
    void set(Ref value)
    {
        std::lock_guard guard(lock_);
        value_.swap(value);
    }
    /// Stores a new object holding value.
    void set(T value) { set(std::make_shared<const T>(std::move(value))); }
    /// Makes the field absent.
    void clear() { set(Ref()); }

    /// Whether the field is absent.
    bool isNull() const { return get() == nullptr; }
    /// A copy of the value, or fallback when the field is absent.
    T valueOr(T fallback) const
    {
        Ref held = get();
        return held ? *held : std::move(fallback);
    }

private:
    mutable std::mutex lock_;
    Ref value_;
};
