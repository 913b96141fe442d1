#include "PinPaths.h"

#include "ClsCert.h"
#include "DataBuffer.h"
#include "HardeningFixture.h"
#include "XString.h"


namespace p11test {

using namespace p11client;

namespace {

constexpr int kSlot = static_cast<int>(HardeningToken::kSlot);

bool signOnce(ClsPkcs11& p11)
{
    ClsCert cert;
    if (!p11.FindCert(XString("privateKey"), XString(""), cert))
        return false;
    DataBuffer digest, signature;
    digest.resize(32);
    return p11.SignHash(cert, XString("sha256"), digest, signature);
}

} // namespace

void putCanaryToken()
{
    mock::TokenSpec token;
    token.userPin = PinCanaries::kUser;
    token.soPin = PinCanaries::kSo;
    mock::addSlot(HardeningToken::kSlot, mock::SlotSpec{.token = token});
    const auto& objects = HardeningToken::objects();
    mock::addObject(HardeningToken::kSlot, objects[0]); // the RSA certificate
    std::vector<mock::Attribute> key = objects[1];      // and its key, which wants the PIN at each signature
    key.push_back(mock::boolAttr(CKA_ALWAYS_AUTHENTICATE, true));
    mock::addObject(HardeningToken::kSlot, key);
}

std::vector<PinPath> pinPaths()
{
    const auto x = [](const char* s) { return XString(s); };
    return {
        {"QuickSession", [=](ClsPkcs11& p) { return p.QuickSession(1, x(PinCanaries::kUser)); }},
        {"LoginUser", [=](ClsPkcs11& p) { return p.Login(1, x(PinCanaries::kUser)); }},
        {"LoginRefused", [=](ClsPkcs11& p) { return p.Logout() && !p.Login(1, x(PinCanaries::kSo)); }},
        {"LoginContextSpecific", [=](ClsPkcs11& p) { return p.Login(1, x(PinCanaries::kUser)) && p.Login(2, x(PinCanaries::kUser)); }},
        {"SignWithContextLogin", [=](ClsPkcs11& p) { return signOnce(p); }},
        {"SigContextPin", [=](ClsPkcs11& p) {
             p.put_SigContextPin(x(PinCanaries::kUser));
             return signOnce(p);
         }},
        {"SetPinOldAndNew", [=](ClsPkcs11& p) { return p.SetPin(x(PinCanaries::kUser), x(PinCanaries::kNew)); }},
        {"SetPinBack", [=](ClsPkcs11& p) { return p.SetPin(x(PinCanaries::kNew), x(PinCanaries::kUser)); }},
        {"LoginSecurityOfficer", [=](ClsPkcs11& p) { return p.Logout() && p.Login(0, x(PinCanaries::kSo)); }},
        {"InitPin", [=](ClsPkcs11& p) { return p.InitPin(x(PinCanaries::kNew)); }},
        {"InitTokenSoPin", [=](ClsPkcs11& p) { return p.CloseSession() && p.InitToken(kSlot, x(PinCanaries::kSo), x("canary")); }},
    };
}

} // namespace p11test
