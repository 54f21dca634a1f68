// std::mutex with the attributes that the compiler's thread-safety analysis reads.
#pragma once

#include <mutex>

#include "runtime/ThreadAnnotations.h"

namespace qscservice {

class CAPABILITY("mutex") Mutex {
public:
    void lock() ACQUIRE() { m_mutex.lock(); }
    void unlock() RELEASE() { m_mutex.unlock(); }
    bool try_lock() TRY_ACQUIRE(true) { return m_mutex.try_lock(); }

private:
    std::mutex m_mutex;
};

class SCOPED_CAPABILITY Lock {
public:
    explicit Lock(Mutex& mutex) ACQUIRE(mutex) : m_mutex(mutex) { m_mutex.lock(); }
    ~Lock() RELEASE() { m_mutex.unlock(); }
    Lock(const Lock&) = delete;
    Lock& operator=(const Lock&) = delete;

private:
    Mutex& m_mutex;
};

}  // namespace qscservice
