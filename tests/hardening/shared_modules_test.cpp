// One module shared by several objects, modules that cannot lock, a module
// whose list loses an entry, and many cycles of loading and letting go (a
// module with a thread of its own among them).
#include "Hardening.h"

#include <dlfcn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <filesystem>
#include <future>
#include <thread>

using namespace p11client;
using namespace p11test;
using shim::Image;
namespace fs = std::filesystem;

static bool isLoaded(Image image) { return imageOf(shim::modulePath(image)) != nullptr; }

class SharedModule : public HardeningTest, public ::testing::WithParamInterface<Image> {};

// A module that cannot lock is initialized again without arguments and
// called through the library's own serializing list.
TEST_P(SharedModule, ObjectsOnOneFileShareOneInitializationAndTheLastFinalizes) {
    const Image image = GetParam();
    const std::string path = shim::modulePath(image);
    const bool cannotLock = image == Image::cannotLock;
    std::array<std::unique_ptr<ClsPkcs11>, 4> objects;
    for (auto& object : objects) {
        object = objectOn(path);
        ASSERT_TRUE(object->Initialize());
        EXPECT_EQ(hasInfo(*object, kCannotLock), cannotLock && object == objects[0]);
        ASSERT_TRUE(object->OpenSession(-1, false));
    }
    EXPECT_EQ(shim::callCount("C_Initialize"), cannotLock ? 2 : 1);
    EXPECT_EQ(shim::lastInitializeHadArgs(image), !cannotLock);
    EXPECT_EQ(shim::initializeCount(image), 1);
    EXPECT_EQ(ModuleInitRegistry::users(imageOf(path)), 4);
    for (std::size_t i : {2u, 0u, 3u}) {
        objects[i].reset();
        EXPECT_EQ(shim::finalizeCount(image), 0) << "finalized while objects still use it";
        EXPECT_TRUE(objects[1]->FindAllCerts() && objects[1]->get_NumCerts() == 2) << "the others' sessions survive";
    }
    EXPECT_EQ(shim::openSessionCount(), 1u);
    void* loaded = imageOf(path);
    objects[1].reset();
    EXPECT_EQ(shim::finalizeCount(image), 1);
    EXPECT_EQ(shim::openSessionCount(), 0u);
    EXPECT_EQ(ModuleInitRegistry::users(loaded), 0);
}

INSTANTIATE_TEST_SUITE_P(Images, SharedModule, ::testing::Values(Image::standard, Image::cannotLock),
                         [](const auto& param) { return param.param == Image::standard ? "ThreadSafe" : "CannotLock"; });

// Each module that cannot lock takes one of the library's 16 serializing
// lists; when none is left, the module is finalized again and refused until
// one is free. The 16 are copies of the standard image, each told to refuse
// the operating system's locks (all but the first then find the image
// initialized: they share the shim's state); the one refused is the image
// that cannot lock.
TEST_F(HardeningTest, BeyondTheSerializersThereAreAModuleThatCannotLockIsRefusedUntilOneIsFree) {
    const fs::path dir = fs::temp_directory_path() / ("p11client-nolock-" + std::to_string(getpid()));
    fs::create_directories(dir);
    std::vector<std::unique_ptr<ClsPkcs11>> objects;
    for (int i = 0; i < 16; ++i) {
        fs::copy_file(shim::modulePath(), dir / ("libcopy" + std::to_string(i) + ".so"), fs::copy_options::overwrite_existing);
        objects.push_back(objectOn((dir / ("libcopy" + std::to_string(i) + ".so")).string()));
        shim::failCall("C_Initialize", CKR_CANT_LOCK);
        ASSERT_TRUE(objects.back()->Initialize() && hasInfo(*objects.back(), kCannotLock)) << i;
    }
    auto last = objectOn(shim::modulePath(Image::cannotLock));
    EXPECT_FALSE(last->Initialize());
    EXPECT_EQ(errors(*last), lines("Too many libraries that cannot use the operating system's locks are in use at once.|Failed."));
    EXPECT_FALSE(shim::initialized(Image::cannotLock)) << "a refused module is finalized again";
    objects.front().reset();
    EXPECT_TRUE(last->Initialize()) << "a serializer set free serves the next";
    objects.clear(), last.reset();
    fs::remove_all(dir);
}

// The library's list checks the module's own entry at each call: a module
// whose list loses an entry afterwards (here when someone else in the
// process asks for it) answers CKR_FUNCTION_NOT_SUPPORTED instead of being
// called through a null pointer.
TEST_F(HardeningTest, AModuleThatCannotLockWhoseListLosesAnEntryLaterIsNotCalledThroughIt) {
    constexpr CK_ULONG kEntriesFromGenerateKey = 58, kEntriesFromGetInfo = 2;
    shim::lie("C_GetFunctionList", shim::Lie::shortList, kEntriesFromGenerateKey);
    shim::failCall("C_Initialize", CKR_CANT_LOCK);
    ASSERT_TRUE(p11->Initialize());
    shim::lie("C_GetFunctionList", shim::Lie::shortList, kEntriesFromGetInfo);
    CK_FUNCTION_LIST* changed = nullptr;
    reinterpret_cast<CK_C_GetFunctionList>(dlsym(imageOf(shim::modulePath()), "C_GetFunctionList"))(&changed);
    ASSERT_EQ(changed->C_GetInfo, nullptr);
    ClsJsonObject json;
    EXPECT_FALSE(p11->Discover(false, json));
    EXPECT_EQ(errors(*p11), lines("C_GetInfo returned CKR_FUNCTION_NOT_SUPPORTED|Failed to GetInfo|Failed."));
    destroyAndExpectNothingLeft();
}

// Each cycle loads a module, initializes it and opens a session, then either
// destroys the object or switches it to the next module (loaded by
// Discover). Nothing accumulates: descriptors, initializations, sessions,
// loaded images. The worker-thread image aborts the process if it is
// unloaded with its thread running: surviving is the proof of C_Finalize first.
TEST_F(HardeningTest, LoadsInitializationsSessionsAndUnloadsInCyclesLeaveNothingBehind) {
    constexpr int kCycles = 150;
    const Image images[] = {Image::standard, Image::workerThread, Image::cannotLock};
    const auto descriptors = [] { return std::distance(fs::directory_iterator("/proc/self/fd"), fs::directory_iterator()); };
    const auto before = descriptors();
    for (int i = 0; i < kCycles && !HasFatalFailure(); ++i) {
        auto object = objectOn(shim::modulePath(images[i % 3]));
        ASSERT_TRUE(object->Initialize() && object->OpenSession(-1, false)) << i;
        ClsJsonObject json;
        if (i % 2 == 1) { // switched to the next module; else destroyed here
            object->put_SharedLibPath(XString(shim::modulePath(images[(i + 1) % 3]).c_str()));
            ASSERT_TRUE(object->Discover(true, json)) << i;
        }
    }
    EXPECT_EQ(descriptors(), before);
    int initializations = 0;
    for (Image image : images) {
        EXPECT_EQ(shim::initializeCount(image), shim::finalizeCount(image));
        EXPECT_FALSE(shim::initialized(image));
        initializations += shim::initializeCount(image);
    }
    EXPECT_EQ(initializations, kCycles + kCycles / 2);
    EXPECT_EQ(shim::openSessionCount(), 0u);
    EXPECT_FALSE(isLoaded(Image::workerThread) || isLoaded(Image::cannotLock));
}

// C_Initialize holds up only its own module: while one module is slow to
// initialize, another is loaded and initialized, and the process forks.
TEST_F(HardeningTest, AModuleSlowToInitializeHoldsUpNeitherAnotherModuleNorAFork) {
    std::promise<void> release;
    std::atomic<bool> inside = false;
    shim::afterCall("C_Initialize", [&inside, done = release.get_future().share()] { inside = true; done.wait(); });
    const auto slow = objectOn(), other = objectOn(shim::modulePath(Image::workerThread));
    auto slowInit = std::async(std::launch::async, [&] { return slow->Initialize(); });
    while (!inside)
        std::this_thread::yield();
    auto otherInit = std::async(std::launch::async, [&] {
        const pid_t child = fork();
        if (child == 0)
            _exit(0);
        return waitpid(child, nullptr, 0) == child && other->Initialize();
    });
    const bool notHeldUp = otherInit.wait_for(std::chrono::seconds(20)) == std::future_status::ready;
    release.set_value();
    EXPECT_TRUE(notHeldUp && otherInit.get());
    EXPECT_TRUE(slowInit.get());
}
