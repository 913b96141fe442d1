#pragma once

#include "ClsPkcs11.h"
#include "LogAssertions.h"
#include "MockControl.h"
#include "XString.h"

#include <gtest/gtest.h>

#include <memory>
#include <string>

namespace p11test {

// A fresh mock module with one slot (id 1) holding a token, and a ClsPkcs11
// pointed at it. The object is destroyed before the mock is reset, so every
// test starts with the module uninitialized.
class MockModuleTest : public ::testing::Test {
protected:
    static constexpr CK_SLOT_ID kSlot = 1;
    static constexpr const char* kUserPin = "1234";
    static constexpr const char* kSoPin = "12345678";

    void SetUp() override
    {
        mock::reset();
        mock::addSlot(kSlot, mock::SlotSpec{});
        p11 = makeObject(mock::modulePath());
    }

    void TearDown() override { p11.reset(); }

    static std::unique_ptr<p11client::ClsPkcs11> makeObject(const std::string& path)
    {
        std::unique_ptr<p11client::ClsPkcs11> obj(p11client::ClsPkcs11::createNewCls());
        obj->put_SharedLibPath(p11client::XString(path.c_str()));
        return obj;
    }

    void setPath(const std::string& path) { p11->put_SharedLibPath(p11client::XString(path.c_str())); }

    bool login(int userType, const char* pin) { return p11->Login(userType, p11client::XString(pin)); }

    std::unique_ptr<p11client::ClsPkcs11> p11;
};

} // namespace p11test
