// The library at work on a token: report the module and its tokens, open a
// session and log in, find the certificate whose private key is on the token,
// and look a card up by its ATR. Run by scripts/demo.sh against a fresh
// SoftHSM2 token that holds one certificate with its key.
//
// usage: p11client_demo MODULE_PATH
// The user PIN is read from the environment variable P11CLIENT_PIN.
#include "ClsCert.h"
#include "ClsJsonObject.h"
#include "ClsPkcs11.h"
#include "ExtPtrArray.h"
#include "StringBuffer.h"
#include "XString.h"

#include <cstdio>
#include <cstdlib>
#include <memory>

using namespace p11client;

namespace {

void printLog(ClsPkcs11& p11)
{
    XString text;
    p11.get_LogText(text);
    std::fputs(text.getUtf8(), stderr);
}

bool step(const char* title, bool ok, ClsPkcs11& p11)
{
    std::printf("%-52s %s\n", title, ok ? "ok" : "FAILED");
    if (!ok)
        printLog(p11);
    return ok;
}

void showCertificate(ClsCert& cert)
{
    XString subject;
    XString serial;
    XString keyType;
    cert.get_SubjectDN(subject);
    cert.get_SerialNumber(serial);
    cert.get_KeyType(keyType);
    std::printf("  subject %s\n  serial  %s\n  key     %s %d bits, private key on the token: %s\n",
                subject.getUtf8(), serial.getUtf8(), keyType.getUtf8(), cert.get_KeySize(),
                cert.HasPrivateKey() ? "yes" : "no");
}

void lookUpCard(const char* atr)
{
    StringBuffer name;
    bool readOnly = false;
    ExtPtrArraySb paths;
    LogNull log;
    if (!ClsPkcs11::CardDataLookupAtr2(atr, name, readOnly, paths, log)) {
        std::printf("  %s: not in the card database\n", atr);
        return;
    }
    std::printf("  %s: %s%s\n", atr, name.getString(), readOnly ? " (read-only)" : "");
    for (int i = 0; i < paths.getSize(); ++i)
        std::printf("    driver %s\n", paths.stringAt(i));
}

} // namespace

int main(int argc, char** argv)
{
    const char* pin = std::getenv("P11CLIENT_PIN");
    if (argc != 2 || pin == nullptr) {
        std::fprintf(stderr, "usage: P11CLIENT_PIN=... %s MODULE_PATH\n", argv[0]);
        return 2;
    }
    std::unique_ptr<ClsPkcs11> p11(ClsPkcs11::createNewCls());
    if (!p11)
        return 1;
    p11->put_SharedLibPath(XString(argv[1]));

    ClsJsonObject report;
    if (!step("Discover the module, its slots and tokens", p11->Discover(true, report), *p11))
        return 1;
    for (int i = 0; i < report.SizeOfArray(XString("slots")); ++i) {
        report.put_I(i);
        XString label;
        report.StringOf(XString("slots[i].token.label"), label);
        std::printf("  slot %lld: token \"%s\"\n", report.IntOf(XString("slots[i].id")), label.getUtf8());
    }

    if (!step("QuickSession as the normal user", p11->QuickSession(1, XString(pin)), *p11))
        return 1;
    step("Logout", p11->Logout(), *p11);
    step("A wrong PIN is refused", !p11->Login(1, XString("not-the-pin")), *p11);
    step("Login again with Login(1, pin)", p11->Login(1, XString(pin)), *p11);

    ClsCert cert;
    const bool found = p11->FindCert(XString("privateKey"), XString(""), cert);
    if (step("FindCert(\"privateKey\"): the certificate with its key", found, *p11))
        showCertificate(cert);

    std::printf("Card database lookups by ATR:\n");
    lookUpCard("3B8980014A434F5032343252324A");
    lookUpCard("3bac00402a001225006480000310009000");
    return step("CloseSession", p11->CloseSession(), *p11) ? 0 : 1;
}
