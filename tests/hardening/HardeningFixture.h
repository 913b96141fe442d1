#pragma once

#include "MockFixture.h"
#include "MockTokenObjects.h"
#include "ModuleInitRegistry.h"

#include <dlfcn.h>

#include <string>
#include <vector>

namespace p11test {

// The mock token every hardening case starts from: an RSA and an EC
// certificate, each with its private key (CKA_ID 01 and 02), and a data
// object. Keys and certificates are made once per process.
struct HardeningToken {
    static constexpr CK_SLOT_ID kSlot = 1;
    static constexpr const char* kUserPin = "1234"; // the mock token's defaults
    static constexpr const char* kSoPin = "12345678";

    // A slot with the token, in the module the control table belongs to.
    static void put(const mock::ControlTable& module);
    static void put() { put(*mockp11_control()); }
    // The objects alone, on the token of a slot already there.
    static void putObjects(const mock::ControlTable& module);
    // The token's objects, attribute by attribute.
    static const std::vector<std::vector<mock::Attribute>>& objects();
};

// A module image held open for its control table; closing lets it go.
class ModuleControl {
public:
    explicit ModuleControl(const std::string& path);
    ~ModuleControl();
    ModuleControl(const ModuleControl&) = delete;
    ModuleControl& operator=(const ModuleControl&) = delete;

    const mock::ControlTable& operator*() const { return *m_table; }
    const mock::ControlTable* operator->() const { return m_table; }
    void* image() const { return m_handle; }

private:
    void* m_handle = nullptr;
    const mock::ControlTable* m_table = nullptr;
};

// Test names for cases run on the thread-safe mock and on the one that cannot lock.
inline std::string moduleName(const ::testing::TestParamInfo<std::string (*)()>& param)
{
    return param.param == &mock::modulePath ? "ThreadSafe" : "CannotLock";
}

// Whether an image of this file is loaded in the process.
bool isLoaded(const std::string& path);
// How many file descriptors the process holds.
int openDescriptors();

// The mock with the hardening token, and the checks that nothing is left
// behind once the object is gone.
class HardeningTest : public MockModuleTest {
protected:
    void SetUp() override
    {
        MockModuleTest::SetUp(); // the slot, with a token
        HardeningToken::putObjects(*mockp11_control());
    }

    static void* mockImage()
    {
        static void* image = dlopen(mock::modulePath().c_str(), RTLD_NOW | RTLD_NOLOAD);
        return image;
    }

    // Destroys the object, then: no session, no search, no use of the module
    // held by the library, and the module finalized (unless the case made
    // the library believe someone else had initialized it).
    void destroyAndExpectNothingLeft(bool finalized = true)
    {
        p11.reset();
        EXPECT_EQ(mock::openSessionCount(), 0u) << "a session outlived its object";
        EXPECT_EQ(mock::activeFindOperations(), 0u) << "a search outlived its object";
        EXPECT_EQ(p11client::ModuleInitRegistry::users(mockImage()), 0) << "the library still counts a user";
        if (finalized) {
            EXPECT_FALSE(mock::initialized()) << "the module was not finalized";
        }
    }
};

} // namespace p11test
