#pragma once

#include <mutex>

namespace p11client {

// A recursive lock: a public method may call another public method of the
// same object.
class ZelvanCritSec {
public:
    ZelvanCritSec() = default;
    ZelvanCritSec(const ZelvanCritSec&) = delete;
    ZelvanCritSec& operator=(const ZelvanCritSec&) = delete;
    virtual ~ZelvanCritSec() = default;

    void enterCriticalSection() { m_mutex.lock(); }
    void leaveCriticalSection() { m_mutex.unlock(); }

private:
    std::recursive_mutex m_mutex;
};

// Holds a lock for its own lifetime.
class CritSecExitor {
public:
    explicit CritSecExitor(ZelvanCritSec* cs) : m_cs(cs)
    {
        if (m_cs != nullptr)
            m_cs->enterCriticalSection();
    }
    ~CritSecExitor()
    {
        if (m_cs != nullptr)
            m_cs->leaveCriticalSection();
    }
    CritSecExitor(const CritSecExitor&) = delete;
    CritSecExitor& operator=(const CritSecExitor&) = delete;

private:
    ZelvanCritSec* m_cs;
};

} // namespace p11client
