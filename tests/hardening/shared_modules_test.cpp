// One module shared by several objects, modules that cannot lock, a module
// with a thread of its own, and a thousand cycles of loading and letting go.
#include "ClsCert.h"
#include "ClsJsonObject.h"
#include "DataBuffer.h"
#include "HardeningFixture.h"

#include <unistd.h>

#include <array>
#include <filesystem>

using namespace p11client;
using namespace p11test;
namespace fs = std::filesystem;

namespace {

const std::string kCannotLock = "The library cannot use the operating system's locks: it is called from one thread at a time.";

std::unique_ptr<ClsPkcs11> objectOn(const std::string& path)
{
    std::unique_ptr<ClsPkcs11> p11(ClsPkcs11::createNewCls());
    p11->put_SharedLibPath(XString(path.c_str()));
    return p11;
}

void* imageOf(const std::string& path)
{
    void* image = dlopen(path.c_str(), RTLD_NOW | RTLD_NOLOAD);
    if (image != nullptr)
        dlclose(image); // the handle stays valid while the objects hold the image
    return image;
}

class SharedModuleTest : public ::testing::TestWithParam<std::string (*)()> {
protected:
    void SetUp() override
    {
        mock::reset();
        control = std::make_unique<ModuleControl>(GetParam()());
        (*control)->reset();
        HardeningToken::put(**control);
    }
    std::unique_ptr<ModuleControl> control;
};

} // namespace

TEST_P(SharedModuleTest, ObjectsOnOneFileShareOneInitializationAndTheLastFinalizes)
{
    const std::string path = GetParam()();
    std::array<std::unique_ptr<ClsPkcs11>, 4> objects;
    for (auto& p11 : objects) {
        p11 = objectOn(path);
        ASSERT_TRUE(p11->Initialize());
        ASSERT_TRUE(p11->OpenSession(-1, false));
    }
    EXPECT_EQ((*control)->initializeCount(), 1);
    EXPECT_EQ(ModuleInitRegistry::users(imageOf(path)), 4);
    for (std::size_t i : {2u, 0u, 3u}) {
        objects[i].reset();
        EXPECT_EQ((*control)->finalizeCount(), 0) << "finalized while objects still use it";
        EXPECT_TRUE(objects[1]->FindAllCerts()) << "the others' sessions survive";
    }
    EXPECT_EQ((*control)->openSessionCount(), 1u);
    objects[1].reset();
    EXPECT_EQ((*control)->finalizeCount(), 1);
    EXPECT_EQ((*control)->openSessionCount(), 0u);
    EXPECT_EQ(ModuleInitRegistry::users(imageOf(path)), 0);
}

INSTANTIATE_TEST_SUITE_P(Modules, SharedModuleTest,
                         ::testing::Values(&mock::modulePath, &mock::noLockingModulePath),
                         moduleName);

TEST(ModuleThatCannotLock, IsInitializedWithoutArgumentsAndCalledThroughTheLibrarysOwnList)
{
    ModuleControl module(mock::noLockingModulePath());
    module->reset();
    HardeningToken::put(*module);
    auto p11 = objectOn(mock::noLockingModulePath());
    ASSERT_TRUE(p11->Initialize());
    EXPECT_TRUE(hasInfo(*p11, kCannotLock));
    EXPECT_EQ(module->callCount("C_Initialize"), 2);
    EXPECT_FALSE(module->lastInitializeHadArgs());
    ASSERT_TRUE(p11->QuickSession(1, XString(HardeningToken::kUserPin)));
    ASSERT_TRUE(p11->FindAllCerts());
    EXPECT_EQ(p11->get_NumCerts(), 2);
    p11.reset();
    EXPECT_EQ(module->finalizeCount(), 1);
}

// Each module that cannot lock takes one of the library's serializing
// lists; when none is left, the module is finalized again and refused.
TEST(ModuleThatCannotLock, BeyondTheSerializersThereAreTheModuleIsRefusedUntilOneIsFree)
{
    const fs::path dir = fs::temp_directory_path() / ("p11client-nolock-" + std::to_string(getpid()));
    fs::create_directories(dir);
    constexpr int kModules = 17; // one more than there are serializing lists
    std::vector<std::unique_ptr<ClsPkcs11>> objects;
    for (int i = 0; i < kModules; ++i) {
        const fs::path copy = dir / ("libnolock" + std::to_string(i) + ".so");
        fs::copy_file(mock::noLockingModulePath(), copy);
        objects.push_back(objectOn(copy.string()));
    }
    for (int i = 0; i + 1 < kModules; ++i)
        ASSERT_TRUE(objects[static_cast<std::size_t>(i)]->Initialize()) << i;
    ClsPkcs11& last = *objects.back();
    EXPECT_FALSE(last.Initialize());
    EXPECT_EQ(errors(last), (std::vector<std::string>{
                                "Too many libraries that cannot use the operating system's locks are in use at once.",
                                "Failed."}));
    {
        ModuleControl refused((dir / ("libnolock" + std::to_string(kModules - 1) + ".so")).string());
        EXPECT_FALSE(refused->initialized()) << "a refused module is finalized again";
    }
    objects.front().reset();
    EXPECT_TRUE(last.Initialize()) << "a serializer set free serves the next";
    objects.clear();
    fs::remove_all(dir);
}

// The library's list checks the module's own entry at each call: a module
// whose list loses an entry afterwards (here when someone else in the
// process asks for it) answers CKR_FUNCTION_NOT_SUPPORTED instead of being
// called through a null pointer.
TEST(ModuleThatCannotLock, WhoseListLosesAnEntryLaterIsNotCalledThroughIt)
{
    mock::reset();
    HardeningToken::put();
    constexpr CK_ULONG kEntriesFromGenerateKey = 58, kEntriesFromGetInfo = 2;
    mock::lie("C_GetFunctionList", mock::Lie::shortList, kEntriesFromGenerateKey);
    mock::failCall("C_Initialize", CKR_CANT_LOCK);
    auto p11 = objectOn(mock::modulePath());
    ASSERT_TRUE(p11->Initialize());
    mock::lie("C_GetFunctionList", mock::Lie::shortList, kEntriesFromGetInfo);
    CK_FUNCTION_LIST* changed = nullptr;
    reinterpret_cast<CK_C_GetFunctionList>(dlsym(imageOf(mock::modulePath()), "C_GetFunctionList"))(&changed);
    ASSERT_EQ(changed->C_GetInfo, nullptr);
    ClsJsonObject json;
    EXPECT_FALSE(p11->Discover(false, json));
    EXPECT_EQ(errors(*p11), (std::vector<std::string>{"C_GetInfo returned CKR_FUNCTION_NOT_SUPPORTED",
                                                      "Failed to GetInfo", "Failed."}));
    p11.reset();
    EXPECT_FALSE(mock::initialized());
}

// The worker-thread module aborts the process if it is unloaded with its
// thread running: surviving the unload is the proof of C_Finalize first.
TEST(ModuleWithAThread, IsFinalizedBeforeItIsUnloaded)
{
    const std::string path = mock::workerThreadModulePath();
    auto p11 = objectOn(path);
    ASSERT_TRUE(p11->Initialize());
    {
        ModuleControl module(path);
        EXPECT_TRUE(module->workerRunning());
    }
    p11.reset();
    EXPECT_FALSE(isLoaded(path)) << "the module was not unloaded";
}

namespace {

// One cycle: load, initialize, open a session, then either switch the path
// to the next module (loaded by Discover) or destroy the object.
void cycle(int i, const std::array<std::string (*)(), 3>& modules)
{
    const std::string path = modules[static_cast<std::size_t>(i) % modules.size()]();
    auto p11 = objectOn(path);
    ASSERT_TRUE(p11->Initialize()) << path;
    {
        ModuleControl module(path);
        if (path != mock::modulePath())
            HardeningToken::put(*module);
    }
    ASSERT_TRUE(p11->OpenSession(-1, false)) << path;
    if (i % 2 == 0)
        return; // destroyed here
    const std::string next = modules[static_cast<std::size_t>(i + 1) % modules.size()]();
    p11->put_SharedLibPath(XString(next.c_str()));
    ClsJsonObject json;
    ASSERT_TRUE(p11->Discover(true, json)) << next;
}

} // namespace

TEST(ModuleCycles, AThousandLoadsInitializationsSessionsAndUnloadsLeaveNothingBehind)
{
    mock::reset();
    HardeningToken::put();
    const std::array<std::string (*)(), 3> modules{&mock::modulePath, &mock::workerThreadModulePath,
                                                   &mock::noLockingModulePath};
    const int descriptors = openDescriptors();
    for (int i = 0; i < 1000 && !::testing::Test::HasFatalFailure(); ++i)
        cycle(i, modules);
    EXPECT_EQ(openDescriptors(), descriptors);
    EXPECT_EQ(mock::initializeCount(), mock::finalizeCount());
    EXPECT_GE(mock::initializeCount(), 333);
    EXPECT_EQ(mock::openSessionCount(), 0u);
    EXPECT_FALSE(isLoaded(mock::workerThreadModulePath()));
    EXPECT_FALSE(isLoaded(mock::noLockingModulePath()));
}
