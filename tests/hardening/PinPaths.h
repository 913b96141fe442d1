#pragma once

// Every path a PIN takes through the library, with one canary PIN, on a mock
// token whose key needs a context-specific login at each signature.

#include "ClsPkcs11.h"
#include "PinLeakForms.h"

#include <functional>
#include <string>
#include <vector>

namespace p11test {

struct PinCanaries {
    static constexpr const char* kUser = "C4n4ry-Pin!7"; // short enough to stay out of the heap in the mock
    static constexpr const char* kSo = "S0-C4n4ry#9";
    static constexpr const char* kNew = "N3w-C4n4ry%2";
};

// Puts the token (its PINs the canaries) in slot 1 of the mock.
void putCanaryToken();

struct PinPath {
    std::string name;
    std::function<bool(p11client::ClsPkcs11&)> run; // true when the path did what it should
};

// QuickSession, Login as user and officer, a refused Login, SetPin (old and
// new), InitPin, Login type 2 and SigContextPin with the signatures they
// authorize, and InitToken's SO PIN, in an order that works on one token.
std::vector<PinPath> pinPaths();

} // namespace p11test
