// Threads: one object driven by 16 threads, and four objects sharing one
// module driven by 8 threads each (on the image that locks and on the one
// that cannot), with mixed public calls. Run under
// ThreadSanitizer by tsan.sh. Every call that fails says why, nothing
// deadlocks (the process aborts after five minutes), nothing is left behind,
// and a module that cannot lock never has two calls inside it at once.
#include "Hardening.h"

#include <cstdio>
#include <future>
#include <random>
#include <thread>

using namespace p11client;
using namespace p11test;

// One thread's share of the work on an object: every public call but those
// that change the token, and reads of its properties. Returns how many
// calls failed without a word of why.
static int work(ClsPkcs11& p11, unsigned seed, int calls) {
    std::mt19937 random(seed);
    ClsCert other;
    int unexplained = 0;
    for (int i = 0; i < calls; ++i) {
        CritSecExitor lock(&p11); // the call and its log, read as one
        ClsJsonObject json;
        XString text; // a property, read and put back
        bool ok = true;
        switch (const auto call = static_cast<int>(random() % 17)) {
        case SetPin: ok = p11.GetCert(static_cast<int>(random() % 2), other) || p11.get_NumCerts() == 0; break;
        case InitPin: ok = p11.FindCert(XString("CN"), XString("hardening ec"), other); break;
        case InitToken: case SignHash + 1: p11.get_SharedLibPath(text), p11.put_SharedLibPath(text), p11.get_SigContextPin(text), p11.get_LogText(text); break;
        case SignHash: ok = signOnce(p11); break;
        default: ok = steps(static_cast<PublicCall>(call)).call(p11, json);
        }
        unexplained += !ok && errors(p11).empty() ? 1 : 0; // every failure says why
    }
    return unexplained;
}

// Runs `threads` workers on each object; the unexplained failures.
static int drive(const std::vector<ClsPkcs11*>& objects, int threads, int calls) {
    std::vector<std::future<int>> results;
    for (ClsPkcs11* p11 : objects)
        for (int t = 0; t < threads; ++t)
            results.push_back(std::async(std::launch::async, [p11, s = results.size(), calls] { return work(*p11, static_cast<unsigned>(s), calls); }));
    int unexplained = 0;
    for (auto& r : results) {
        if (r.wait_for(std::chrono::minutes(5)) != std::future_status::ready)
            std::fputs("the threads did not finish; a deadlock?\n", stderr), std::abort();
        unexplained += r.get();
    }
    return unexplained;
}

// One thread opens a session, links a certificate and closes the session,
// 100 times and then until the reader has seen enough, while the caller's
// thread reads.
template <class Reader>
static void raceWithSessions(ClsPkcs11& p11, Reader read, const std::function<bool()>& enough = [] { return true; }) {
    std::atomic<bool> done{false};
    std::thread writer([&] {
        ClsCert linked;
        for (int i = 0; i < 100 || (!enough() && i < 10000); ++i)
            p11.OpenSession(-1, false), p11.FindCert(XString("privateKey"), XString(""), linked), p11.CloseSession();
        done = true;
    });
    do read(); while (!done);
    writer.join();
}

// Objects on one module, each driven by threads of its own; the second
// time on the image that cannot lock, where never two calls are inside at once.
struct Load { int objects, threads, calls; shim::Image image; };
class ThreadsOnObjects : public HardeningTest, public ::testing::WithParamInterface<Load> {};

TEST_P(ThreadsOnObjects, MixedCallsSayWhyTheyFailAndLeaveNothingBehind) {
    const auto [count, threads, calls, image] = GetParam();
    std::vector<std::unique_ptr<ClsPkcs11>> objects;
    std::vector<ClsPkcs11*> driven;
    for (int i = 0; i < count; ++i) {
        objects.push_back(objectOn(shim::modulePath(image)));
        ASSERT_TRUE(objects.back()->QuickSession(1, text(token().userPin)));
        driven.push_back(objects.back().get());
    }
    void* loaded = imageOf(shim::modulePath(image));
    EXPECT_EQ(drive(driven, threads, calls), 0) << "calls failed without saying why";
    EXPECT_EQ(shim::activeFindOperations(), 0u);
    objects.clear();
    EXPECT_EQ(shim::initializeCount(image), 1);
    EXPECT_EQ(shim::finalizeCount(image), 1);
    EXPECT_EQ(shim::openSessionCount(), 0u);
    EXPECT_EQ(ModuleInitRegistry::users(loaded), 0) << "the library still counts a user";
    EXPECT_TRUE(image != shim::Image::cannotLock || shim::overlappingCalls(image) == 0) << "two calls were inside a module that cannot lock";
}

INSTANTIATE_TEST_SUITE_P(Loads, ThreadsOnObjects, ::testing::Values(Load{1, 16, 60, shim::Image::standard}, Load{4, 8, 40, shim::Image::standard},
                                                                    Load{4, 8, 40, shim::Image::cannotLock}),
                         [](const auto& i) { return std::to_string(i.param.objects) + "Objects" + (i.param.image == shim::Image::standard ? "" : "CannotLock"); });

// A certificate handed out by FindCert stays shared with the object's cache,
// which links it again and again on another thread: reading it meanwhile is
// safe (ThreadSanitizer watches), and the link does not outlive the object.
// Whether a session is open is read under the object's lock, and a link
// made meanwhile through the library's own entry point takes it too.
TEST_F(HardeningTest, LinkedCertificateAndSessionStateReadWhileAnotherThreadOpensAndClosesSessions) {
    ASSERT_TRUE(p11->QuickSession(1, text(token().userPin)));
    ClsCert held;
    ASSERT_TRUE(p11->FindCert(XString("privateKey"), XString(""), held));
    int readsLinked = 0, readsOpen = 0;
    raceWithSessions(*p11, [&] { readsLinked += held.HasPrivateKey() ? 1 : 0; });
    EXPECT_GT(readsLinked, 0);
    raceWithSessions(*p11, [&] { readsOpen += p11->hasOpenSession() ? 1 : 0; });
    {
        // The entry points the command-line tool calls take the lock too; a
        // second object's session keeps the user logged in, so keys show.
        const auto keeper = objectOn();
        ASSERT_TRUE(keeper->QuickSession(1, text(token().userPin)));
        LogNull log;
        std::atomic<int> relinked = 0;
        raceWithSessions(*p11, [&] { relinked += p11->linkCertToPkcs11Session(held.getCertificate().get(), false, log) ? 1 : 0; },
                         [&] { return relinked > 0; });
        EXPECT_GT(relinked, 0);
    }
    EXPECT_FALSE(p11->hasOpenSession());
    destroyAndExpectNothingLeft();
    EXPECT_FALSE(held.HasPrivateKey()) << "linked to a module that is gone";
}
