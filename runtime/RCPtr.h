// RCPtr<T> holds an RCObject, WkPtr<T> finds it again while somebody holds it. Include runtime/RCObject.h to get them.
// T may be incomplete where a pointer is only declared, as a member is; it is complete where the pointer is used.
#pragma once

#include <atomic>
#include <compare>
#include <type_traits>
#include <typeinfo>

#include "runtime/Atomic.h"
#include "runtime/RCObject.h"

// A strong reference, or null. The pointer word is swapped atomically, so that two threads that assign to one RCPtr
// each release what they took out; copying from an RCPtr that another thread may change needs the owner's lock.
template <typename T>
class RCPtr {
public:
    RCPtr() = default;
    // Takes a reference on object, which may be null.
    RCPtr(T* object) : ptr(Held(object)) {}
    RCPtr(const RCPtr& other) : ptr(Held(other.Get())) {}
    // Takes the reference of other, which becomes null.
    RCPtr(RCPtr&& other) noexcept : ptr(other.Take()) {}
    // Narrows to T: null if the object isn't one.
    template <typename U>
    requires(!std::is_same_v<U, T> && !std::is_same_v<U, WkReference>) RCPtr(const RCPtr<U>& other)
        : ptr(Held(Cast(other.Get()))) {}
    // The destructor needs no exchange: nobody else may use an object that is being destroyed.
    virtual ~RCPtr() {
        if (T* held = Get()) held->Release();
    }

    // The new reference is taken before the old one is dropped, so that assigning its own pointer is safe.
    RCPtr& operator=(T* object) { return Adopt(Held(object)); }
    RCPtr& operator=(const RCPtr& other) { return Adopt(Held(other.Get())); }
    RCPtr& operator=(RCPtr&& other) noexcept { return Adopt(other.Take()); }

    // Relaxed: whoever lets another thread see this RCPtr orders it with a lock, as reading and counting are two steps.
    T* Get() const { return ptr.load(std::memory_order_relaxed); }
    T* operator->() const { return Get(); }
    T& operator*() const { return *Get(); }
    explicit operator bool() const { return Get() != nullptr; }

    friend bool operator==(const RCPtr& a, const RCPtr& b) { return a.Get() == b.Get(); }
    friend bool operator==(const RCPtr& a, const T* b) { return a.Get() == b; }
    friend std::strong_ordering operator<=>(const RCPtr& a, const RCPtr& b) {
        return std::compare_three_way()(a.Get(), b.Get());
    }

private:
    template <typename>
    friend class WkPtr;

    struct Adopted {};
    RCPtr(T* object, Adopted) : ptr(object) {}

    static T* Held(T* object) {
        if (object) object->AddRef();
        return object;
    }
    template <typename U>
    static T* Cast(U* object) {
        if constexpr (std::is_convertible_v<U*, T*>) {
            return object;
        } else {
            return dynamic_cast<T*>(object);
        }
    }
    T* Take() { return AtomicExchange<T>(&ptr, nullptr); }
    RCPtr& Adopt(T* object) {
        if (T* old = AtomicExchange(&ptr, object)) old->Release();
        return *this;
    }

    std::atomic<T*> ptr{nullptr};
};

// What stands for an object in all weak pointers to it. It lives until the object and the last of them are gone.
class WkReference final : public RCObject {
public:
    explicit WkReference(RCObject* object) : target(object) {}
    ~WkReference() override;

private:
    friend class RCObject;
    template <typename>
    friend class WkPtr;

    RCObject* target;  // null when the object has lost its last reference; changed under the reference lock
};

// A weak reference to an object that other threads may drop: it keeps nothing alive. Empty when default-made, made from
// null, or made from an object that is dying. Once its object has lost its last reference it stays empty for good, even
// if the object takes itself back.
template <typename T>
class WkPtr : public RCPtr<WkReference> {
public:
    WkPtr() = default;
    // The caller holds object, or is constructing it.
    WkPtr(T* object) : RCPtr<WkReference>(object ? object->GetWkReference() : nullptr) {}
    WkPtr(const WkPtr&) = default;
    WkPtr(WkPtr&&) noexcept = default;
    WkPtr& operator=(const WkPtr&) = default;
    WkPtr& operator=(WkPtr&&) noexcept = default;
    ~WkPtr() override = default;

    // Returns the object, held, or null when it is gone or its link stands for something that isn't a T.
    RCPtr<T> Lock() const {
        T* object = nullptr;
        if (WkReference* link = Get()) {
            RCObject::LockReferences();
            if (RCObject* target = link->target) object = Narrow(target);
            if (object) object->AddRefLocked();
            RCObject::UnlockReferences();
        }
        return RCPtr<T>(object, typename RCPtr<T>::Adopted());
    }

private:
    // The run-time type check, without the search through the class's bases when the object is of the same class as the
    // last one that passed.
    static T* Narrow(RCObject* target) {
        if constexpr (std::is_same_v<T, RCObject>) {
            return target;
        } else if constexpr (requires { static_cast<T*>(target); }) {
            static constinit std::atomic<const std::type_info*> passed{nullptr};
            const std::type_info* const type = &typeid(*target);
            if (type == passed.load(std::memory_order_relaxed)) return static_cast<T*>(target);
            T* const object = dynamic_cast<T*>(target);
            // Relaxed: only the address is compared, and a stale one costs a search.
            if (object && static_cast<RCObject*>(object) == target) passed.store(type, std::memory_order_relaxed);
            return object;
        } else {
            return dynamic_cast<T*>(target);
        }
    }
};
