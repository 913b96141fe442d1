#pragma once

#include <string>

namespace p11test {

// A SoftHSM2 token store made fresh in a temporary directory, with its own
// SOFTHSM2_CONF: the machine's default token store is never touched. One
// token, labelled kLabel, is initialized with the PINs below.
class SoftHsmToken {
public:
    static constexpr const char* kLabel = "p11client-test";
    static constexpr const char* kUserPin = "1234";
    static constexpr const char* kSoPin = "12345678";

    SoftHsmToken();
    ~SoftHsmToken();
    SoftHsmToken(const SoftHsmToken&) = delete;
    SoftHsmToken& operator=(const SoftHsmToken&) = delete;

    // Path of libsofthsm2.so on this machine (empty when SoftHSM2 is missing).
    static std::string modulePath();
    const std::string& directory() const { return m_dir; }

    // An empty token store in the directory (which must exist), made the
    // process's SOFTHSM2_CONF.
    static void makeStore(const std::string& directory);
    // Initializes the next free slot of the current store with a token of
    // this label and the PINs above.
    static void initToken(const std::string& label);

private:
    std::string m_dir;
};

} // namespace p11test
