// Loading the module: paths, retries, broken modules, and sharing one module
// between objects.
#include "TestTokens.h"

#include <filesystem>
#include <fstream>

#include <unistd.h>

using namespace p11test;
namespace fs = std::filesystem;

class LoadingTest : public TokenTest {
protected:
    void setPath(const std::string& path) { p11->put_SharedLibPath(XString(path.c_str())); }
    // A link to the shim's image at this path under the token store's
    // directory, which goes with the store.
    std::string linkAt(const fs::path& relative)
    {
        fs::create_directories((dir / relative).parent_path());
        fs::remove(dir / relative);
        fs::create_symlink(shim::modulePath(), dir / relative);
        return (dir / relative).string();
    }

    const fs::path dir = fs::path(tokens.store.directory()) / "loading";
};


// The path is loaded once and initialized once for every object, after a
// failure too; switching path unloads it, but a module initialized outside
// the library is never finalized by it.
TEST_F(LoadingTest, TheModuleIsLoadedAndInitializedOnceForEveryObjectAndUnloadedWhenThePathChanges)
{
    shim::failCall("C_Initialize", CKR_DEVICE_ERROR);
    ASSERT_FALSE(p11->Initialize());
    EXPECT_EQ(dataValues(*p11, "sharedLib").size(), 1u);
    ASSERT_TRUE(p11->Initialize()) << "the next one after a failure succeeds";
    EXPECT_TRUE(p11->Initialize() && hasInfo(*p11, "Already initialized."));
    ASSERT_TRUE(p11->Discover(false, json));
    EXPECT_TRUE(dataValues(*p11, "sharedLib").empty()) << "a loaded path returns before logging";
    auto second = newObject();
    EXPECT_TRUE(second->Initialize() && hasInfo(*second, "The library is already initialized by another object that loaded it."));
    EXPECT_TRUE(shim::initializeCount() == 1 && shim::callCount("C_Initialize") == 2);
    EXPECT_TRUE(shim::lastInitializeHadArgs() && shim::lastInitializeFlags() == CKF_OS_LOCKING_OK);
    EXPECT_TRUE(p11->OpenSession(-1, false));

    // Switching path unloads the old module even when the new one is missing.
    second.reset();
    setPath("/no/such/module.so");
    EXPECT_TRUE(!p11->Discover(false, json) && hasError(*p11, "Failed to load the PKCS11 shared library."));
    EXPECT_TRUE(shim::finalizeCount() == 1 && shim::openSessionCount() == 0 && !p11->hasOpenSession());
    setPath(shim::modulePath());
    EXPECT_TRUE(p11->Initialize() && shim::initializeCount() == 2) << "the new load initializes afresh";

    p11.reset();
    CryptokiModule outside(shim::modulePath());
    outside.initialize();
    p11 = newObject();
    EXPECT_TRUE(p11->Initialize() && hasInfo(*p11, "The library was initialized elsewhere in this process; it will not be finalized here."));
    p11.reset();
    EXPECT_TRUE(shim::initialized());
}

// A bare file name is retried in the working directory, from a file and a
// directory that no other user (root aside) owns or can write, never through
// a link.
TEST_F(LoadingTest, TheWorkingDirectoryRetryRefusesAFileAnotherUserCouldHavePlanted)
{
    using P = fs::perms;
    constexpr uid_t kUs = 0, kNobody = 65534; // the suite runs as root
    const P mode = P(0755);
    const std::string others = " is writable by others.", owner = " is owned by another user.";
    const struct { P file, dir; uid_t fileOwner, dirOwner; bool link; bool blameDir; std::string why; } rows[] = {
        {mode, mode, kUs, kUs, false, false, ""}, {P(0666), mode, kUs, kUs, false, false, others},
        {P(0775), mode, kUs, kUs, false, false, others}, {mode, P(0777), kUs, kUs, false, true, others},
        {mode, mode, kNobody, kUs, false, false, owner}, {mode, mode, kUs, kNobody, false, true, owner},
        {mode, mode, kUs, kUs, true, false, " is a symbolic link."}};
    const fs::path previous = fs::current_path(), work = dir / "work";
    for (const auto& row : rows) {
        fs::remove_all(work);
        fs::create_directories(work);
        row.link ? fs::create_symlink(shim::modulePath(), work / "libshimcopy.so") : (void)fs::copy_file(shim::modulePath(), work / "libshimcopy.so");
        if (!row.link) fs::permissions(work / "libshimcopy.so", row.file);
        fs::permissions(work, row.dir);
        ASSERT_TRUE(lchown((work / "libshimcopy.so").c_str(), row.fileOwner, 0) == 0 && chown(work.c_str(), row.dirOwner, 0) == 0);
        p11 = newObject("/no/such/dir/libshimcopy.so");
        fs::current_path(work);
        const fs::path blamed = row.blameDir ? fs::current_path() : fs::current_path() / "libshimcopy.so";
        EXPECT_EQ(p11->Initialize(), row.why.empty()) << blamed << row.why;
        fs::current_path(previous);
        EXPECT_EQ(dataValues(*p11, "filename"), Lines{"libshimcopy.so"});
        EXPECT_EQ(dataValues(*p11, "sharedLib").size(), 2u) << "both attempts log the property";
        EXPECT_TRUE(row.why.empty() || hasError(*p11, "Refusing to load the PKCS11 library from the working directory: " + blamed.string() + row.why)) << logText();
    }
}

// The special driver is recognised case-sensitively anywhere in the path.
TEST_F(LoadingTest, PathsAreRecognisedAndThoseThatHoldNoModuleFailWithTheirReason)
{
    for (const auto& [path, special] : {std::pair{shim::modulePath(shim::Image::specialDriver), true},
                                        {linkAt("libkeyfactorpkcs11/module.so"), true}, {linkAt("libKeyfactorpkcs11/module.so"), false}}) {
        p11 = newObject(path);
        ASSERT_TRUE(p11->Initialize()) << path;
        EXPECT_EQ(hasInfo(*p11, "Will use the certificate handle as the private key handle..."), special) << path;
    }

    p11 = newObject();
    setPath("");
    json.updateString("stale", "value");
    EXPECT_FALSE(p11->Discover(false, json));
    EXPECT_EQ(errors(*p11), (Lines{"The SharedLibPath has not yet been set.", "Failed."}));
    EXPECT_EQ(json.jsonTypeOf("stale"), ClsJsonObject::kTypeMissing) << "the object is emptied";
    setPath((dir / "absent.so").string());
    EXPECT_FALSE(p11->Initialize() || p11->Initialize()) << "the failed load left something that passes for a module";
    std::ofstream(dir / "text.so") << "not an ELF file";
    setPath((dir / "text.so").string());
    EXPECT_TRUE(!p11->Initialize() && hasError(*p11, "Failed to load PKCS11 shared library."));
    EXPECT_NE(dataValues(*p11, "dlerror").at(0).find("text.so"), std::string::npos);
}
