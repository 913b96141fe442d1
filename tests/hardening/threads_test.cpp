// Threads: one object driven by 16 threads, and four objects sharing one
// module driven by 8 threads each, with mixed public calls. Run under
// ThreadSanitizer by tsan.sh. Every call that fails says why, nothing
// deadlocks (a watchdog aborts after five minutes), nothing is left behind,
// and a module that cannot lock never has two calls inside it at once.
#include "ClsCert.h"
#include "ClsJsonObject.h"
#include "DataBuffer.h"
#include "HardeningFixture.h"

#include <chrono>
#include <atomic>
#include <condition_variable>
#include <cstdio>
#include <cstdlib>
#include <future>
#include <random>
#include <thread>

using namespace p11client;
using namespace p11test;

namespace {

// Aborts the process when the scope is not left in time: a deadlock.
class Watchdog {
public:
    explicit Watchdog(std::chrono::seconds limit)
        : m_thread([this, limit] {
              std::unique_lock lock(m_mutex);
              if (!m_done.wait_for(lock, limit, [this] { return m_finished; })) {
                  std::fputs("watchdog: the threads did not finish; a deadlock?\n", stderr);
                  std::abort();
              }
          })
    {
    }
    ~Watchdog()
    {
        {
            std::lock_guard lock(m_mutex);
            m_finished = true;
        }
        m_done.notify_one();
        m_thread.join();
    }
    Watchdog(const Watchdog&) = delete;
    Watchdog& operator=(const Watchdog&) = delete;

private:
    std::mutex m_mutex;
    std::condition_variable m_done;
    bool m_finished = false;
    std::thread m_thread;
};

// One thread's share of the work on an object.
class Worker {
public:
    Worker(ClsPkcs11& p11, unsigned seed) : m_p11(p11), m_random(seed) {}

    // Mixed public calls; returns how many failed without a word of why.
    int run(int calls)
    {
        int unexplained = 0;
        for (int i = 0; i < calls; ++i) {
            // The call and its log, read as one.
            CritSecExitor lock(&m_p11);
            if (!callOne(m_random() % 16) && errors(m_p11).empty())
                ++unexplained;
        }
        return unexplained;
    }

private:
    bool callOne(unsigned op)
    {
        const XString pin(HardeningToken::kUserPin);
        ClsJsonObject json;
        switch (op) {
        case 0: return m_p11.FindAllCerts();
        case 1: return m_p11.GetCert(static_cast<int>(m_random() % 2), m_other) || m_p11.get_NumCerts() == 0;
        case 2: return m_p11.FindCert(XString("privateKey"), XString(""), m_linked);
        case 3: return m_p11.FindCert(XString("CN"), XString("hardening ec"), m_other);
        case 4: return m_p11.FindAllKeys(XString(""), json);
        case 5: json.updateString("class", "certificate"); return m_p11.FindObject(json);
        case 6: return m_p11.Login(1, pin);
        case 7: return m_p11.Logout();
        case 8: return m_p11.OpenSession(-1, true);
        case 9: return m_p11.CloseSession();
        case 10: return m_p11.Discover(true, json);
        case 11: return sign();
        case 12: return m_p11.QuickSession(1, pin);
        case 13: return m_p11.Initialize();
        case 14: return properties();
        default: return m_p11.FindAllCerts() && m_p11.get_NumCerts() >= 0;
        }
    }

    bool sign()
    {
        DataBuffer digest, signature;
        digest.resize(32);
        return m_p11.SignHash(m_linked, XString("sha256"), digest, signature);
    }

    bool properties()
    {
        XString text;
        m_p11.get_SharedLibPath(text);
        m_p11.put_SharedLibPath(text);
        m_p11.get_SigContextPin(text);
        m_p11.get_LogText(text);
        return true;
    }

    ClsPkcs11& m_p11;
    std::mt19937 m_random;
    ClsCert m_linked; // what FindCert("privateKey") chose last
    ClsCert m_other;
};

std::unique_ptr<ClsPkcs11> objectOn(const std::string& path)
{
    std::unique_ptr<ClsPkcs11> p11(ClsPkcs11::createNewCls());
    p11->put_SharedLibPath(XString(path.c_str()));
    return p11;
}

// Runs `threads` workers on each object; returns the unexplained failures.
int drive(const std::vector<ClsPkcs11*>& objects, int threads, int calls)
{
    std::vector<std::future<int>> results;
    unsigned seed = 1;
    for (ClsPkcs11* p11 : objects)
        for (int t = 0; t < threads; ++t)
            results.push_back(std::async(std::launch::async, [p11, s = seed++, calls] { return Worker(*p11, s).run(calls); }));
    int unexplained = 0;
    for (auto& r : results)
        unexplained += r.get();
    return unexplained;
}

} // namespace

TEST(Threads, SixteenThreadsOnOneObject)
{
    mock::reset();
    HardeningToken::put();
    auto p11 = objectOn(mock::modulePath());
    ASSERT_TRUE(p11->QuickSession(1, XString(HardeningToken::kUserPin)));
    {
        Watchdog watchdog(std::chrono::minutes(5));
        EXPECT_EQ(drive({p11.get()}, 16, 150), 0) << "calls failed without saying why";
    }
    p11.reset();
    EXPECT_EQ(mock::openSessionCount(), 0u);
    EXPECT_EQ(mock::activeFindOperations(), 0u);
    EXPECT_EQ(mock::initializeCount(), mock::finalizeCount());
    EXPECT_FALSE(mock::initialized());
}

class SharedModuleThreads : public ::testing::TestWithParam<std::string (*)()> {};

TEST_P(SharedModuleThreads, FourObjectsEightThreadsEach)
{
    const std::string path = GetParam()();
    ModuleControl module(path);
    module->reset();
    HardeningToken::put(*module);
    module->clearOverlappingCalls();
    std::vector<std::unique_ptr<ClsPkcs11>> objects;
    std::vector<ClsPkcs11*> driven;
    for (int i = 0; i < 4; ++i) {
        objects.push_back(objectOn(path));
        ASSERT_TRUE(objects.back()->QuickSession(1, XString(HardeningToken::kUserPin)));
        driven.push_back(objects.back().get());
    }
    {
        Watchdog watchdog(std::chrono::minutes(5));
        EXPECT_EQ(drive(driven, 8, 100), 0) << "calls failed without saying why";
    }
    objects.clear();
    EXPECT_EQ(module->initializeCount(), 1);
    EXPECT_EQ(module->finalizeCount(), 1);
    EXPECT_EQ(module->openSessionCount(), 0u);
    EXPECT_EQ(module->activeFindOperations(), 0u);
    if (path == mock::noLockingModulePath()) {
        EXPECT_EQ(module->overlappingCalls(), 0) << "two calls were inside a module that cannot lock";
    }
}

INSTANTIATE_TEST_SUITE_P(Modules, SharedModuleThreads, ::testing::Values(&mock::modulePath, &mock::noLockingModulePath),
                         moduleName);

// The probe the test above relies on does see two calls at once: each of two
// threads stays inside C_GetInfo until the other has entered it.
TEST(OverlapProbe, SeesTwoCallsInsideTheModuleAtOnce)
{
    mock::reset();
    mock::clearOverlappingCalls();
    void* image = dlopen(mock::modulePath().c_str(), RTLD_NOW);
    ASSERT_NE(image, nullptr);
    CK_FUNCTION_LIST* f = nullptr;
    reinterpret_cast<CK_C_GetFunctionList>(dlsym(image, "C_GetFunctionList"))(&f);
    ASSERT_EQ(f->C_Initialize(nullptr), CKR_OK);
    std::promise<void> secondEntered;
    std::shared_future<void> entered = secondEntered.get_future().share();
    mock::afterCall("C_GetInfo", [entered] { entered.wait(); });       // the first out waits ...
    mock::afterCall("C_GetInfo", [&] { secondEntered.set_value(); });  // ... for the second
    const auto getInfo = [f] {
        CK_INFO info{};
        f->C_GetInfo(&info);
    };
    std::thread a(getInfo), b(getInfo);
    a.join();
    b.join();
    EXPECT_GE(mock::overlappingCalls(), 1);
    f->C_Finalize(nullptr);
    dlclose(image);
}

namespace {

// One thread opens a session, links a certificate and closes the session,
// again and again, while the caller's thread reads.
template <class Reader>
void raceWithSessions(ClsPkcs11& p11, Reader read)
{
    std::atomic<bool> done{false};
    std::thread writer([&] {
        for (int i = 0; i < 200; ++i) {
            ClsCert linked;
            p11.OpenSession(-1, false);
            p11.FindCert(XString("privateKey"), XString(""), linked);
            p11.CloseSession();
        }
        done = true;
    });
    do
        read();
    while (!done);
    writer.join();
}

} // namespace

// A certificate handed out by FindCert stays shared with the object's cache,
// which links it again and again on another thread: reading it meanwhile is
// safe (ThreadSanitizer watches), and the link does not outlive the object.
TEST(Threads, LinkedCertificateReadWhileAnotherThreadOpensAndClosesSessions)
{
    mock::reset();
    HardeningToken::put();
    auto p11 = objectOn(mock::modulePath());
    ASSERT_TRUE(p11->QuickSession(1, XString(HardeningToken::kUserPin)));
    ClsCert held;
    ASSERT_TRUE(p11->FindCert(XString("privateKey"), XString(""), held));
    int readsLinked = 0;
    raceWithSessions(*p11, [&] { readsLinked += held.HasPrivateKey() ? 1 : 0; });
    EXPECT_GT(readsLinked, 0);
    p11.reset();
    EXPECT_FALSE(held.HasPrivateKey()) << "linked to a module that is gone";
}

// Whether a session is open is read under the object's lock, so asking while
// another thread opens and closes sessions is no data race.
TEST(Threads, SessionStateReadWhileAnotherThreadOpensAndClosesSessions)
{
    mock::reset();
    HardeningToken::put();
    auto p11 = objectOn(mock::modulePath());
    ASSERT_TRUE(p11->Initialize());
    int readsOpen = 0;
    raceWithSessions(*p11, [&] { readsOpen += p11->hasOpenSession() ? 1 : 0; });
    EXPECT_FALSE(p11->hasOpenSession());
}
