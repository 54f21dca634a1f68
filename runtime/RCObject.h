// Reference-counted objects, the weak links to them, and by inclusion the pointers RCPtr and WkPtr that hold them.
#pragma once

#include <cstdint>

#include "runtime/ReferenceLock.h"
#include "runtime/ThreadAnnotations.h"
#include "runtime/Types.h"

class WkReference;

// Whether an object is counted. RefCountOff is for objects that live outside the heap: AddRef and Release do nothing,
// the owner destroys the object.
enum RefCountMode {
    RefCountOn = 0,
    RefCountOff = 1,
};

// Base of every object that is shared. It is born with count 0, is held through RCPtr, and deletes itself when the last
// reference goes. A counted object that is a member of another object or a static keeps count 0 and is destroyed by its
// owner; an RCPtr on such an object would delete it, so never make one.
//
// All counts and links are guarded by one process-wide lock. It is recursive, so that a class may count objects from
// its CreateWkReference, and is held for counting only: OnLastRelease and destructors run without it, on whatever
// thread dropped the last reference. It is initialised at compile time and never destroyed, and waits without a system
// lock, so no count change can fail.
class RCObject {
public:
    RCObject() = default;
    explicit RCObject(RefCountMode mode) : counted(mode == RefCountOn) {}
    // A copy is an object of its own: counted, with count 0 and no link.
    RCObject(const RCObject&) {}
    // NOLINTNEXTLINE(bugprone-unhandled-self-assignment): nothing is assigned.
    RCObject& operator=(const RCObject&) { return *this; }
    virtual ~RCObject() {
        if (wkRef) CutLink();
    }

    // Returns the new count; 0, and takes no lock, for an object that isn't counted.
    uint32_t AddRef() {
        if (!counted) return 0;
        referenceLock.lock();
        const uint32_t count = ++refCount;
        referenceLock.unlock();
        return count;
    }

    // Drops one reference and returns the count after the call, 0 when the object was deleted. Without a reference to
    // drop, and for an object that isn't counted, it does nothing and returns 0.
    uint32_t Release() {
        if (!counted) return 0;
        referenceLock.lock();
        if (static_cast<int32_t>(refCount) <= 1) return FinishRelease();
        const uint32_t count = --refCount;
        referenceLock.unlock();
        return count;
    }

    // Returns the object's weak link, made on the first call, or null while the object is dying. The caller takes a
    // reference of its own on it, and holds the object until it has.
    WkReference* GetWkReference();

    // The lock under all counts and links of the process, for steps that must be one with a count change. Nothing else
    // is locked and nothing waits while it is held.
    static void LockReferences() ACQUIRE(referenceLock) { referenceLock.lock(); }
    static void UnlockReferences() RELEASE(referenceLock) { referenceLock.unlock(); }

protected:
    // Called without any lock when the last reference is gone and the links are cut. Returns true if the object has
    // taken itself back, so that it isn't deleted; references taken meanwhile stay.
    virtual bool OnLastRelease();

    // Called last of all after OnLastRelease returned true, when the count is settled: from here the object may be
    // given to others, or be destroyed.
    virtual void OnTakenBack() {}

    // Makes the object's link, under the reference lock.
    virtual WkReference* CreateWkReference();

    static constinit ReferenceLock referenceLock;  // guards refCount, wkRef and the target of each WkReference

private:
    template <typename>
    friend class WkPtr;

    void AddRefLocked() REQUIRES(referenceLock) {
        if (counted) ++refCount;
    }
    uint32_t FinishRelease() RELEASE(referenceLock);
    void CutLink();

    uint32_t refCount GUARDED_BY(referenceLock) = 0;  // kDyingMark is in it from the last release to the end
    const bool counted = true;
    WkReference* wkRef = nullptr;  // the object's link, holding one reference on it; null until asked for
};

#include "runtime/RCPtr.h"
