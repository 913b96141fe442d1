#pragma once

// The SoftHSM2 token every hardening case starts from, reached through the
// shim, the public calls the cases drive, and scenarios: an honest set-up, a
// fault, a call, and what must come of it, down to nothing being left behind
// once the object is gone.

#include "ClsCert.h"
#include "ClsJsonObject.h"
#include "ClsPkcs11.h"
#include "DataBuffer.h"
#include "LogAssertions.h"
#include "ModuleInitRegistry.h"
#include "ShimControl.h"
#include "SoftHsmObjects.h"
#include "XString.h"

#include <gtest/gtest.h>

#include <functional>
#include <memory>

namespace p11test {

using Lines = std::vector<std::string>;
inline const std::string kCannotLock = "The library cannot use the operating system's locks: it is called from one thread at a time.";
inline const std::string kElsewhere = "The library was initialized elsewhere in this process; it will not be finalized here.";
Lines lines(const std::string& joined);          // "a|b|c" as three lines; "" as none
p11client::XString text(const std::string& s); // every byte, a NUL inside included

// One token store per process. Its token holds an RSA and an EC certificate,
// each with its private key (CKA_ID 01 and 02), and a data object; the PIN
// group's token has canary PINs and the RSA pair alone, its key wanting the
// PIN at each signature. SoftHSM2 lists a free slot, whose token is not
// initialized, after the token's.
struct HardeningToken {
    static constexpr const char *kCanaryUser = "C4n4ry-Pin!7", *kCanarySo = "S0-C4n4ry#9", *kCanaryNew = "N3w-C4n4ry%2";
    std::string userPin, soPin;
    int slot = 0; // the token's slot, as the library's int
    CK_SLOT_ID freeSlot = 0;

    static const HardeningToken& get(bool canary = false); // made at the first call, of the kind it asks for
    static void repair(); // initializes the token again with its objects if it no longer takes its PINs
};
inline const HardeningToken& token() { return HardeningToken::get(); }

std::unique_ptr<p11client::ClsPkcs11> objectOn(const std::string& path = shim::modulePath());
void finalizeLeftovers(); // the shim honest again, and C_Finalize for every image a case left initialized
void* imageOf(const std::string& path); // the image of this file if it is loaded, not held
bool signOnce(p11client::ClsPkcs11& p11, std::size_t* size = nullptr); // with the certificate FindCert("privateKey") links

// A session on the token through the standard image, the module initialized for its life.
struct DirectSession {
    explicit DirectSession(const char* pin = nullptr);
    CryptokiModule module{shim::modulePath()};
    std::unique_ptr<TokenSession> session;
    CK_FUNCTION_LIST* f() const { return module.functions(); }
};

using Step = std::function<bool(p11client::ClsPkcs11&, p11client::ClsJsonObject&)>;
using Check = std::function<void(p11client::ClsPkcs11&, p11client::ClsJsonObject&)>;

// The public calls, each with the state it needs reached first (honestly),
// so that a fault injected afterwards hits the call itself.
enum PublicCall { Initialize, Discover, OpenSessionAny, OpenSessionSlot, QuickSession, Login, Logout, CloseSession,
                  SetPin, InitPin, InitToken, FindAllCerts, FindAllKeys, FindObject, FindCertPrivateKey, SignHash };
struct CallSteps { const char* name; Step setUp, call; };
const CallSteps& steps(PublicCall call);

struct Expected {
    bool result = false;
    Lines errors;                // exactly these, in order
    Lines infos = {};            // these among the information lines
    int numCerts = -1;           // the certificate cache after the call; -1: not checked
    bool finalized = true;       // the module is finalized when the object goes
    bool searchLeftOpen = false; // the module itself refused to end a search
    Check check = {};
};

struct Scenario {
    std::string name;
    Step setUp, call;
    std::function<void()> misbehave;
    Expected expected;
    std::function<Expected()> atRunTime = {}; // instead, asked once the call is made
    bool mayChangeToken = false;
};
inline void PrintTo(const Scenario& s, std::ostream* os) { *os << s.name; }
std::string scenarioName(const ::testing::TestParamInfo<Scenario>& info);

class HardeningTest : public ::testing::Test {
protected:
    void SetUp() override { token(), finalizeLeftovers(), p11 = objectOn(); }
    void TearDown() override { p11.reset(), finalizeLeftovers(); }
    // Destroys the object, then: no session, no search, no use of the module
    // held by the library, and the module finalized unless told otherwise.
    void destroyAndExpectNothingLeft(bool finalized = true, bool searchLeftOpen = false);
    void play(const Scenario& s); // on a fresh object on the standard image

    std::unique_ptr<p11client::ClsPkcs11> p11;
};

} // namespace p11test
