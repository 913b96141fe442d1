#pragma once

#include <atomic>
#include <mutex>
#include <thread>

namespace p11client {

// A mutex that fork() handlers take so that the child does not inherit it
// held by a thread that no longer exists there. The thread that forks while
// holding it (a module that starts a helper process from inside a call the
// mutex guards) is not made to wait for itself. A recursive mutex would not
// do: in the child it remembers the parent's thread and cannot be released.
class ForkSafeMutex {
public:
    void lock()
    {
        m_mutex.lock();
        m_owner.store(std::this_thread::get_id());
    }

    bool try_lock()
    {
        if (!m_mutex.try_lock())
            return false;
        m_owner.store(std::this_thread::get_id());
        return true;
    }

    void unlock()
    {
        m_owner.store(std::thread::id());
        m_mutex.unlock();
    }

    // Before fork(): taken unless the forking thread holds it already.
    void holdForFork()
    {
        if (m_owner.load() == std::this_thread::get_id())
            return;
        lock();
        m_heldForFork = true;
    }

    // After fork(), in the parent and in the child: released if it was taken.
    void releaseAfterFork()
    {
        if (!m_heldForFork)
            return;
        m_heldForFork = false;
        unlock();
    }

private:
    std::mutex m_mutex;
    std::atomic<std::thread::id> m_owner{};
    bool m_heldForFork = false; // only touched by the thread that holds the mutex
};

} // namespace p11client
