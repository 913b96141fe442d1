// Loading the module: paths, retries, broken modules, and sharing one module
// between objects.
#include "ClsJsonObject.h"
#include "MockFixture.h"

#include <dlfcn.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>

using namespace p11client;
using namespace p11test;
namespace fs = std::filesystem;

namespace {

class LoadingTest : public MockModuleTest {
protected:
    void SetUp() override
    {
        MockModuleTest::SetUp();
        dir = fs::temp_directory_path() / ("p11client-load-" + std::to_string(::getpid()));
        fs::create_directories(dir);
    }
    void TearDown() override
    {
        MockModuleTest::TearDown();
        fs::remove_all(dir);
    }
    fs::path dir;
};

// Changes the working directory for a scope.
struct WorkingDirectory {
    explicit WorkingDirectory(const fs::path& to) : previous(fs::current_path()) { fs::current_path(to); }
    ~WorkingDirectory() { fs::current_path(previous); }
    fs::path previous;
};

} // namespace

TEST_F(LoadingTest, SamePathIsLoadedOnceAndInitializedOnce)
{
    ASSERT_TRUE(p11->Initialize());
    EXPECT_EQ(dataValues(*p11, "sharedLib").size(), 1u);
    ClsJsonObject json;
    ASSERT_TRUE(p11->Discover(false, json));
    EXPECT_TRUE(dataValues(*p11, "sharedLib").empty()) << "a loaded path returns before logging";
    EXPECT_EQ(mock::initializeCount(), 1);
    EXPECT_EQ(mock::callCount("C_Initialize"), 1);
}

TEST_F(LoadingTest, InitializeTwiceSaysAlreadyInitialized)
{
    ASSERT_TRUE(p11->Initialize());
    ASSERT_TRUE(p11->Initialize());
    EXPECT_TRUE(hasInfo(*p11, "Already initialized."));
    EXPECT_EQ(mock::callCount("C_Initialize"), 1);
    EXPECT_TRUE(mock::lastInitializeHadArgs());
    EXPECT_EQ(mock::lastInitializeFlags(), CKF_OS_LOCKING_OK);
}

TEST_F(LoadingTest, BareFileNameIsRetriedInTheWorkingDirectory)
{
    fs::copy_file(mock::modulePath(), dir / "libmockcopy.so");
    setPath("/no/such/dir/libmockcopy.so");
    WorkingDirectory cwd(dir);
    ASSERT_TRUE(p11->Initialize());
    EXPECT_EQ(dataValues(*p11, "filename"), std::vector<std::string>{"libmockcopy.so"});
    EXPECT_EQ(dataValues(*p11, "sharedLib").size(), 2u) << "both attempts log the property";
}

TEST_F(LoadingTest, SpecialDriverIsRecognisedCaseSensitivelyAnywhereInThePath)
{
    fs::create_directories(dir / "libkeyfactorpkcs11");
    fs::create_symlink(mock::modulePath(), dir / "libkeyfactorpkcs11" / "module.so");
    setPath((dir / "libkeyfactorpkcs11" / "module.so").string());
    ASSERT_TRUE(p11->Initialize());
    EXPECT_TRUE(hasInfo(*p11, "Will use the certificate handle as the private key handle..."));

    fs::create_directories(dir / "libKeyfactorpkcs11");
    fs::create_symlink(mock::modulePath(), dir / "libKeyfactorpkcs11" / "module.so");
    auto other = makeObject((dir / "libKeyfactorpkcs11" / "module.so").string());
    ASSERT_TRUE(other->Initialize());
    EXPECT_FALSE(hasInfo(*other, "Will use the certificate handle as the private key handle..."));
}

TEST_F(LoadingTest, EmptyPathIsReportedByEachEntryPointInItsOwnWords)
{
    setPath("");
    EXPECT_FALSE(p11->Initialize());
    EXPECT_TRUE(hasError(*p11, "The SharedLibPath property is not yet set."));

    ClsJsonObject json;
    json.updateString("stale", "value");
    EXPECT_FALSE(p11->Discover(false, json));
    EXPECT_EQ(errors(*p11), (std::vector<std::string>{"The SharedLibPath has not yet been set.", "Failed."}));
    EXPECT_EQ(json.jsonTypeOf("stale"), ClsJsonObject::kTypeMissing);
}

TEST_F(LoadingTest, AMissingFileIsNotRememberedAsLoaded)
{
    setPath((dir / "absent.so").string());
    EXPECT_FALSE(p11->Initialize());
    EXPECT_FALSE(p11->Initialize()) << "the failed load left something that passes for a module";
}

TEST_F(LoadingTest, FileThatIsNotALibraryReportsTheLoaderText)
{
    std::ofstream(dir / "text.so") << "not an ELF file";
    setPath((dir / "text.so").string());
    EXPECT_FALSE(p11->Initialize());
    EXPECT_TRUE(hasError(*p11, "Failed to load PKCS11 shared library."));
    const auto dlerrors = dataValues(*p11, "dlerror");
    ASSERT_FALSE(dlerrors.empty());
    EXPECT_NE(dlerrors[0].find("text.so"), std::string::npos);
}

TEST_F(LoadingTest, ALibraryThatIsNoModuleIsNamedInTheLog)
{
    setPath(mock::noFunctionListModulePath());
    EXPECT_FALSE(p11->Initialize());
    EXPECT_EQ(dataValues(*p11, "sharedLibPath"), std::vector<std::string>{mock::noFunctionListModulePath()});
}

TEST_F(LoadingTest, AfterAFailedInitializeTheNextOneSucceeds)
{
    mock::failCall("C_Initialize", CKR_DEVICE_ERROR);
    ASSERT_FALSE(p11->Initialize());
    EXPECT_TRUE(p11->Initialize());
    EXPECT_TRUE(p11->OpenSession(-1, false));
}

TEST_F(LoadingTest, SwitchingPathUnloadsTheOldModuleEvenWhenTheNewOneIsMissing)
{
    ASSERT_TRUE(p11->Initialize());
    ASSERT_TRUE(p11->OpenSession(-1, false));
    setPath("/no/such/module.so");
    ClsJsonObject json;
    EXPECT_FALSE(p11->Discover(false, json));
    EXPECT_TRUE(hasError(*p11, "Failed to load the PKCS11 shared library."));
    EXPECT_EQ(mock::finalizeCount(), 1);
    EXPECT_EQ(mock::openSessionCount(), 0u);
    EXPECT_FALSE(p11->hasOpenSession());

    setPath(mock::modulePath());
    ASSERT_TRUE(p11->Initialize()) << "the new load initializes afresh";
    EXPECT_EQ(mock::initializeCount(), 2);
}

TEST_F(LoadingTest, ASecondObjectOnALoadedModuleSaysItIsAlreadyInitialized)
{
    auto second = makeObject(mock::modulePath());
    ASSERT_TRUE(p11->Initialize());
    ASSERT_TRUE(second->Initialize());
    EXPECT_TRUE(hasInfo(*second, "The library is already initialized by another object that loaded it."));
}

TEST_F(LoadingTest, ModuleInitializedOutsideTheLibraryIsNeverFinalizedByIt)
{
    void* image = dlopen(mock::modulePath().c_str(), RTLD_NOW);
    ASSERT_NE(image, nullptr);
    auto getList = reinterpret_cast<CK_C_GetFunctionList>(dlsym(image, "C_GetFunctionList"));
    CK_FUNCTION_LIST* list = nullptr;
    ASSERT_EQ(getList(&list), CKR_OK);
    ASSERT_EQ(list->C_Initialize(nullptr), CKR_OK);

    ASSERT_TRUE(p11->Initialize());
    EXPECT_TRUE(hasInfo(*p11, "The library was initialized elsewhere in this process; it will not be finalized here."));
    p11.reset();
    EXPECT_TRUE(mock::initialized());
    list->C_Finalize(nullptr);
    dlclose(image);
}
