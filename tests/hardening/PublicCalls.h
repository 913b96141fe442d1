#pragma once

// The public calls the hardening cases drive, each with the state it needs
// reached first (honestly), so that a fault injected afterwards hits the
// call itself.

#include "ClsCert.h"
#include "ClsJsonObject.h"
#include "ClsPkcs11.h"
#include "DataBuffer.h"
#include "XString.h"

#include <string>

namespace p11test {

enum class PublicCall {
    Initialize,
    Discover,
    OpenSessionAny,
    OpenSessionSlot,
    QuickSession,
    Login,
    Logout,
    CloseSession,
    SetPin,
    InitPin,
    InitToken,
    FindAllCerts,
    FindAllKeys,
    FindObject,
    FindCertPrivateKey,
    SignHash,
};

const char* nameOf(PublicCall call);

// Brings the object to the state the call needs; false when that failed.
bool prepare(p11client::ClsPkcs11& p11, PublicCall call, p11client::ClsCert& linked);
// Makes the call; json receives what Discover, FindAllKeys or FindObject report.
bool run(p11client::ClsPkcs11& p11, PublicCall call, p11client::ClsCert& linked, p11client::ClsJsonObject& json);

} // namespace p11test
