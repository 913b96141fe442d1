// fork() with a session open: the child never touches the parent's session
// or initialization, says why the parent's object fails there, starts afresh
// when asked, and the parent keeps working.
#include "ClsCert.h"
#include "ClsJsonObject.h"
#include "DataBuffer.h"
#include "HardeningFixture.h"

#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <future>
#include <thread>

using namespace p11client;
using namespace p11test;

namespace {

const std::string kForked = "This process was forked after the PKCS11 library was loaded: its session and login belong "
                            "to the parent process.";

// A check in the child process: a failure ends it with this code.
struct ChildCheck {
    int code;
    bool passed;
};

int firstFailure(std::initializer_list<ChildCheck> checks)
{
    for (const ChildCheck& c : checks)
        if (!c.passed)
            return c.code;
    return 0;
}

// Runs body in a child process (killed after 20 s) and returns its exit code,
// or -signal.
template <class Body>
int inChild(Body body)
{
    const pid_t pid = fork();
    if (pid == 0) {
        alarm(20);
        _exit(body());
    }
    int status = 0;
    waitpid(pid, &status, 0);
    return WIFEXITED(status) ? WEXITSTATUS(status) : -WTERMSIG(status);
}

// Whether the call record shows a call on the session.
bool touched(CK_SESSION_HANDLE session)
{
    for (const mock::Call& c : mock::calls())
        if (c.session == session)
            return true;
    return false;
}

CK_SESSION_HANDLE lastOpenedSession()
{
    CK_SESSION_HANDLE session = 0;
    for (const mock::Call& c : mock::calls())
        if (c.function == "C_OpenSession" && c.result == CKR_OK)
            session = c.session;
    return session;
}

class ForkTest : public HardeningTest {
protected:
    void SetUp() override
    {
        HardeningTest::SetUp();
        ASSERT_TRUE(p11->QuickSession(1, XString(kUserPin)));
        ASSERT_TRUE(p11->FindAllCerts());
        parentSession = lastOpenedSession();
        ASSERT_NE(parentSession, 0u);
        mock::clearCalls();
    }

    void expectTheParentKeepsWorking()
    {
        EXPECT_TRUE(p11->hasOpenSession());
        EXPECT_TRUE(mock::loggedIn(kSlot, CKU_USER));
        EXPECT_EQ(mock::openSessionCount(), 1u);
        ClsCert cert;
        ASSERT_TRUE(p11->FindCert(XString("privateKey"), XString(""), cert));
        DataBuffer digest, signature;
        digest.resize(32);
        EXPECT_TRUE(p11->SignHash(cert, XString("sha256"), digest, signature));
        EXPECT_TRUE(mock::lastSignature().has_value());
        destroyAndExpectNothingLeft();
    }

    CK_SESSION_HANDLE parentSession = 0;
};

} // namespace

TEST_F(ForkTest, TheChildSaysWhyAndStartsAfreshTheParentKeepsWorking)
{
    const int child = inChild([&] {
        const bool refused = !p11->FindAllCerts();
        const bool said = hasError(*p11, kForked);
        const bool forgot = !p11->hasOpenSession();
        const bool untouched = mock::calls().empty();
        const bool initialized = p11->Initialize();
        const bool opened = p11->OpenSession(-1, false) && p11->FindAllCerts() && p11->get_NumCerts() == 2;
        auto fresh = std::unique_ptr<ClsPkcs11>(ClsPkcs11::createNewCls());
        fresh->put_SharedLibPath(XString(mock::modulePath().c_str()));
        const bool freshWorks = fresh->QuickSession(1, XString(kUserPin)) && fresh->FindAllCerts();
        fresh.reset();
        p11.reset();
        return firstFailure({{1, refused}, {2, said}, {3, forgot}, {4, untouched}, {5, initialized}, {6, opened},
                             {7, freshWorks}, {8, !touched(parentSession)}, {9, mock::callCount("C_Finalize") == 0}});
    });
    EXPECT_EQ(child, 0) << "1 the call went through, 2 no reason given, 3 the session kept, 4 the module was "
                           "called, 5-7 no fresh start, 8 the parent's session touched, 9 finalized in the child";
    EXPECT_TRUE(mock::calls().empty()) << "the child's calls reached the parent's module";
    expectTheParentKeepsWorking();
}

TEST_F(ForkTest, DestroyingTheParentsObjectInTheChildCallsNothing)
{
    const int child = inChild([&] {
        p11.reset();
        return mock::calls().empty() ? 0 : 1;
    });
    EXPECT_EQ(child, 0) << "the child logged out, closed or finalized the parent's state";
    expectTheParentKeepsWorking();
}

TEST_F(ForkTest, DiscoverInTheChildLoadsTheLibraryAfresh)
{
    const int child = inChild([&] {
        ClsJsonObject json;
        const bool discovered = p11->Discover(true, json);
        const bool saidSo = hasInfo(*p11, "This process was forked after the library was loaded: it is loaded afresh here.");
        const bool inherited = hasInfo(*p11, "The library keeps the initialization of the parent process; it will not be finalized here.");
        p11.reset();
        return firstFailure({{1, discovered}, {2, saidSo}, {3, inherited}, {4, !touched(parentSession)},
                             {5, mock::callCount("C_Finalize") == 0}});
    });
    EXPECT_EQ(child, 0);
    expectTheParentKeepsWorking();
}

// fork() from one thread while another is inside a module that cannot lock:
// fork waits for the call to end, so the child does not inherit a lock that
// nobody would ever release, and it goes on serializing its own calls.
TEST(ForkWhileInside, AModuleThatCannotLockStaysUsableInTheChild)
{
    ModuleControl module(mock::noLockingModulePath());
    module->reset();
    HardeningToken::put(*module);
    std::unique_ptr<ClsPkcs11> p11(ClsPkcs11::createNewCls());
    p11->put_SharedLibPath(XString(mock::noLockingModulePath().c_str()));
    ASSERT_TRUE(p11->QuickSession(1, XString(HardeningToken::kUserPin)));

    std::promise<void> inside;
    module->afterCall("C_FindObjectsInit", [&] {
        inside.set_value();
        std::this_thread::sleep_for(std::chrono::milliseconds(200));
    }, 1);
    std::thread searching([&] { p11->FindAllCerts(); });
    inside.get_future().wait();
    const int child = inChild([] {
        std::unique_ptr<ClsPkcs11> fresh(ClsPkcs11::createNewCls());
        fresh->put_SharedLibPath(XString(mock::noLockingModulePath().c_str()));
        const bool opened = fresh->QuickSession(1, XString(HardeningToken::kUserPin));
        const bool serialized = hasInfo(*fresh, "The library cannot use the operating system's locks: it is called from one thread at a time.");
        const bool works = opened && fresh->FindAllCerts();
        return firstFailure({{1, works}, {2, serialized}});
    });
    searching.join();
    EXPECT_EQ(child, 0) << "-14: the child hung on a lock held at fork; 1: no calls; 2: not serialized";
    EXPECT_EQ(p11->get_NumCerts(), 2);
    p11.reset();
    EXPECT_EQ(module->finalizeCount(), 1);
}

// A module that starts a helper process forks while the library holds its
// own locks around the call (C_Initialize under the initialization registry,
// every call of a module that cannot lock under its serializer). The fork
// handlers must not wait for a lock the forking thread itself holds. Run in a
// child process so that a deadlock ends in SIGALRM rather than a hung suite.
TEST(ForkInsideTheModule, HelperProcessesStartedInsideCallsDoNotDeadlock)
{
    const struct {
        std::string (*path)();
        mock::Behaviour behaviour;
    } modules[] = {
        {&mock::modulePath, {.forksInInitialize = true}},
        {&mock::noLockingModulePath, {.refusesOsLocking = true, .forksInInitialize = true, .forksInLogin = true}},
    };
    for (const auto& m : modules) {
        const std::string path = m.path();
        SCOPED_TRACE(path);
        const int child = inChild([&] {
            ModuleControl module(path);
            module->reset();
            HardeningToken::put(*module);
            module->setBehaviour(m.behaviour);
            std::unique_ptr<ClsPkcs11> p11(ClsPkcs11::createNewCls());
            p11->put_SharedLibPath(XString(path.c_str()));
            const bool loggedIn = p11->QuickSession(1, XString(HardeningToken::kUserPin));
            const bool found = loggedIn && p11->FindAllCerts() && p11->get_NumCerts() == 2;
            p11.reset();
            return firstFailure({{1, loggedIn}, {2, found}, {3, !module->initialized()}});
        });
        EXPECT_EQ(child, 0) << "-14: deadlocked at the module's fork; 1-2: the calls failed; 3: not finalized";
    }
}
