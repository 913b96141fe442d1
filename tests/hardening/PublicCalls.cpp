#include "PublicCalls.h"

#include "HardeningFixture.h"

namespace p11test {

using namespace p11client;

namespace {

constexpr int kSlot = static_cast<int>(HardeningToken::kSlot);

XString text(const char* s) { return XString(s); }

bool signDigest(ClsPkcs11& p11, ClsCert& linked)
{
    DataBuffer digest;
    digest.resize(32);
    DataBuffer signature;
    return p11.SignHash(linked, text("sha256"), digest, signature);
}

} // namespace

const char* nameOf(PublicCall call)
{
    switch (call) {
    case PublicCall::Initialize: return "Initialize";
    case PublicCall::Discover: return "Discover";
    case PublicCall::OpenSessionAny: return "OpenSessionAny";
    case PublicCall::OpenSessionSlot: return "OpenSessionSlot";
    case PublicCall::QuickSession: return "QuickSession";
    case PublicCall::Login: return "Login";
    case PublicCall::Logout: return "Logout";
    case PublicCall::CloseSession: return "CloseSession";
    case PublicCall::SetPin: return "SetPin";
    case PublicCall::InitPin: return "InitPin";
    case PublicCall::InitToken: return "InitToken";
    case PublicCall::FindAllCerts: return "FindAllCerts";
    case PublicCall::FindAllKeys: return "FindAllKeys";
    case PublicCall::FindObject: return "FindObject";
    case PublicCall::FindCertPrivateKey: return "FindCertPrivateKey";
    case PublicCall::SignHash: return "SignHash";
    }
    return "?";
}

bool prepare(ClsPkcs11& p11, PublicCall call, ClsCert& linked)
{
    const XString userPin = text(HardeningToken::kUserPin);
    switch (call) {
    case PublicCall::Initialize:
    case PublicCall::Discover:
    case PublicCall::QuickSession:
        return true;
    case PublicCall::OpenSessionAny:
    case PublicCall::OpenSessionSlot:
    case PublicCall::InitToken:
        return p11.Initialize();
    case PublicCall::Login:
        return p11.Initialize() && p11.OpenSession(kSlot, true);
    case PublicCall::InitPin:
        return p11.Initialize() && p11.OpenSession(kSlot, true) && p11.Login(0, text(HardeningToken::kSoPin));
    case PublicCall::SignHash:
        return p11.QuickSession(1, userPin) && p11.FindCert(text("privateKey"), text(""), linked);
    default:
        return p11.QuickSession(1, userPin);
    }
}

bool run(ClsPkcs11& p11, PublicCall call, ClsCert& linked, ClsJsonObject& json)
{
    switch (call) {
    case PublicCall::Initialize: return p11.Initialize();
    case PublicCall::Discover: return p11.Discover(false, json);
    case PublicCall::OpenSessionAny: return p11.OpenSession(-1, true);
    case PublicCall::OpenSessionSlot: return p11.OpenSession(kSlot, true);
    case PublicCall::QuickSession: return p11.QuickSession(1, text(HardeningToken::kUserPin));
    case PublicCall::Login: return p11.Login(1, text(HardeningToken::kUserPin));
    case PublicCall::Logout: return p11.Logout();
    case PublicCall::CloseSession: return p11.CloseSession();
    case PublicCall::SetPin: return p11.SetPin(text(HardeningToken::kUserPin), text("4321"));
    case PublicCall::InitPin: return p11.InitPin(text("5555"));
    case PublicCall::InitToken: return p11.InitToken(kSlot, text(HardeningToken::kSoPin), text("relabelled"));
    case PublicCall::FindAllCerts: return p11.FindAllCerts();
    case PublicCall::FindAllKeys: return p11.FindAllKeys(text(""), json);
    case PublicCall::FindObject:
        json.updateString("class", "certificate");
        return p11.FindObject(json);
    case PublicCall::FindCertPrivateKey: {
        ClsCert chosen;
        return p11.FindCert(text("privateKey"), text(""), chosen);
    }
    case PublicCall::SignHash: return signDigest(p11, linked);
    }
    return false;
}

} // namespace p11test
