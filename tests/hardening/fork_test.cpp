// fork() with a session open: the child never touches the parent's session,
// says why the parent's object fails there, starts afresh when asked, and
// the parent keeps working. A module that forks inside a call, or a fork
// while another thread is inside a module that cannot lock, deadlocks
// nothing. SoftHSM2 starts afresh in a child, so a child's own initialization
// is ended there.
#include "Hardening.h"

#include <dlfcn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <future>
#include <thread>

using namespace p11client;
using namespace p11test;


// Runs the checks in a child process (killed after 20 s): 0 when all passed,
// else the number (from 1) of the first that failed, or -signal.
static int inChild(const std::function<std::vector<bool>()>& checks) {
    const pid_t pid = fork();
    if (pid == 0) {
        alarm(20);
        const std::vector<bool> passed = checks();
        _exit(static_cast<int>(std::find(passed.begin(), passed.end(), false) - passed.begin() + 1) % static_cast<int>(passed.size() + 1));
    }
    int status = 0;
    waitpid(pid, &status, 0);
    return WIFEXITED(status) ? WEXITSTATUS(status) : -WTERMSIG(status);
}

class ForkTest : public HardeningTest {
protected:
    void SetUp() override {
        HardeningTest::SetUp();
        ASSERT_TRUE(p11->QuickSession(1, text(token().userPin)) && p11->FindAllCerts());
        for (const shim::Call& c : shim::calls())
            parentSession = c.function == "C_OpenSession" && c.result == CKR_OK ? c.session : parentSession;
        shim::clearCalls();
    }

    // Whether a call named the parent's session before the child initialized
    // the module afresh (after that, session numbers are the child's own).
    bool touchedTheParentsSession() const {
        const auto calls = shim::calls();
        const auto start = std::find_if(calls.begin(), calls.end(), [](const shim::Call& c) { return c.function == "C_Initialize"; });
        return std::any_of(calls.begin(), start, [this](const shim::Call& c) { return c.session == parentSession; });
    }

    void expectTheParentKeepsWorking() {
        EXPECT_TRUE(p11->hasOpenSession() && shim::openSessionCount() == 1u) << shim::openSessionCount() << " sessions";
        std::size_t size = 0;
        EXPECT_TRUE(signOnce(*p11, &size)) << "the parent's login is gone";
        EXPECT_TRUE(size == 256u || size == 64u) << size; // RSA-2048 or P-256, whichever SoftHSM2 lists first
        destroyAndExpectNothingLeft();
    }

    CK_SESSION_HANDLE parentSession = 0;
};

TEST_F(ForkTest, TheChildSaysWhyAndStartsAfreshTheParentKeepsWorking) {
    EXPECT_EQ(inChild([&]() -> std::vector<bool> {
                  const bool refused = !p11->FindAllCerts(), forgot = !p11->hasOpenSession(), untouched = shim::calls().empty();
                  const bool said = hasError(*p11, "This process was forked after the PKCS11 library was loaded: its session and login "
                                                   "belong to the parent process.");
                  const bool opened = p11->Initialize() && p11->OpenSession(-1, false) && p11->FindAllCerts() && p11->get_NumCerts() == 2;
                  auto fresh = objectOn();
                  const bool freshWorks = fresh->QuickSession(1, text(token().userPin)) && fresh->FindAllCerts();
                  fresh.reset(), p11.reset();
                  return {refused, said, forgot, untouched, opened, freshWorks, !touchedTheParentsSession(), !shim::initialized()};
              }), 0);
    // Destroying the parent's object in a child calls nothing.
    EXPECT_EQ(inChild([&]() -> std::vector<bool> { return p11.reset(), std::vector<bool>{shim::calls().empty()}; }), 0);
    // A module that keeps the parent's initialization in the child is not finalized there. (Held loaded, so
    // that loading it afresh finds the same image, whatever the build makes of an unload.)
    EXPECT_EQ(inChild([&]() -> std::vector<bool> {
                  dlopen(shim::modulePath().c_str(), RTLD_NOW | RTLD_NOLOAD);
                  shim::lie("C_Initialize", shim::Lie::initializedButSaysAlready);
                  ClsJsonObject json;
                  const bool discovered = p11->Discover(true, json);
                  const bool saidSo = hasInfo(*p11, "This process was forked after the library was loaded: it is loaded afresh here.");
                  const bool kept = hasInfo(*p11, "The library keeps the initialization of the parent process; it will not be finalized here.");
                  p11.reset();
                  return {discovered, saidSo, kept, !touchedTheParentsSession(), shim::callCount("C_Finalize") == 0};
              }), 0);
    expectTheParentKeepsWorking();
}

// fork() from one thread while another is inside a module that cannot lock:
// fork waits for the call to end, so the child does not inherit a lock that
// nobody would ever release, and it goes on serializing its own calls. (Its
// own object only: both images share SoftHSM2, whose login is the token's.)
TEST_F(ForkTest, AModuleThatCannotLockStaysUsableInAChildForkedDuringACall) {
    p11.reset();
    auto other = objectOn(shim::modulePath(shim::Image::cannotLock));
    ASSERT_TRUE(other->QuickSession(1, text(token().userPin)));
    std::promise<void> inside;
    shim::afterCall("C_FindObjectsInit", [&] { inside.set_value(), std::this_thread::sleep_for(std::chrono::milliseconds(200)); });
    std::thread searching([&] { other->FindAllCerts(); });
    inside.get_future().wait();
    const int child = inChild([]() -> std::vector<bool> {
        auto fresh = objectOn(shim::modulePath(shim::Image::cannotLock));
        const bool loggedIn = fresh->QuickSession(1, text(token().userPin)), serialized = hasInfo(*fresh, kCannotLock);
        return {loggedIn && fresh->FindAllCerts(), serialized};
    });
    searching.join();
    EXPECT_EQ(child, 0) << "-14: the child hung on a lock held at fork; 1: no calls; 2: not serialized";
    EXPECT_EQ(other->get_NumCerts(), 2);
    other.reset();
    EXPECT_EQ(shim::finalizeCount(shim::Image::cannotLock), 1);
}

// A module that starts a helper process forks while the library holds its
// own locks around the call (C_Initialize under the initialization registry,
// every call of a module that cannot lock under its serializer). In a child
// process, so that a deadlock ends in SIGALRM rather than a hung suite.
TEST_F(ForkTest, HelperProcessesStartedInsideCallsDoNotDeadlock) {
    for (const auto image : {shim::Image::standard, shim::Image::cannotLock}) {
        EXPECT_EQ(inChild([image]() -> std::vector<bool> {
                      shim::forkInside("C_Initialize"), shim::forkInside("C_Login");
                      auto fresh = objectOn(shim::modulePath(image));
                      const bool loggedIn = fresh->QuickSession(1, text(token().userPin));
                      const bool found = loggedIn && fresh->FindAllCerts() && fresh->get_NumCerts() == 2;
                      fresh.reset();
                      return {loggedIn, found, !shim::initialized(image)};
                  }), 0)
            << static_cast<int>(image) << " -14: deadlocked at the module's fork; 1-2: the calls failed; 3: not finalized";
    }
    expectTheParentKeepsWorking();
}
