// What a module does on its own: the thread of the worker-thread variant
// (started by C_Initialize, stopped by C_Finalize; it runs the module's own
// code every millisecond, so a module unloaded under it would crash, and the
// mock aborts in that case with a message instead), and the helper process
// some modules start.
#include "MockState.h"

#include <sys/wait.h>
#include <unistd.h>

#include <condition_variable>
#include <cstdio>
#include <cstdlib>
#include <thread>

namespace mock {

class Worker {
public:
    Worker() : m_thread([this] { run(); }) {}
    ~Worker() {
        {
            std::lock_guard lock(m_mutex);
            m_stop = true;
        }
        m_wake.notify_one();
        m_thread.join();
    }
    Worker(const Worker&) = delete;
    Worker& operator=(const Worker&) = delete;

private:
    void run() {
        std::unique_lock lock(m_mutex);
        while (!m_wake.wait_for(lock, std::chrono::milliseconds(1), [this] { return m_stop; })) ++m_ticks;
    }

    std::mutex m_mutex;
    std::condition_variable m_wake;
    bool m_stop = false;
    long m_ticks = 0;
    std::thread m_thread;  // last: starts once the members it uses exist
};

void startWorker(State& s) {
    if (!s.worker) s.worker = std::make_unique<Worker>();
}

void stopWorker(State& s) { s.worker.reset(); }

void forkHelperProcess() {
    const pid_t pid = fork();
    if (pid == 0) _exit(0);
    if (pid > 0) waitpid(pid, nullptr, 0);
}

// State's constructor and destructor live here, where Worker is complete.
State::State() { setBehaviour(imageBehaviour()); }

State::~State() {
    if (worker) {
        std::fputs("mock: the module is unloaded while the thread its C_Initialize started still runs\n", stderr);
        std::abort();
    }
}

}  // namespace mock
