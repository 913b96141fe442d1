// The library at work on a token: report the module and its tokens, open a
// session and log in. Run by scripts/demo.sh against a fresh SoftHSM2 token.
//
// usage: p11client_demo MODULE_PATH
// The user PIN is read from the environment variable P11CLIENT_PIN.
#include "ClsJsonObject.h"
#include "ClsPkcs11.h"
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
    std::printf("%-44s %s\n", title, ok ? "ok" : "FAILED");
    if (!ok)
        printLog(p11);
    return ok;
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
    XString json;
    report.Emit(json);
    std::printf("%s\n", json.getUtf8());

    if (!step("QuickSession as the normal user", p11->QuickSession(1, XString(pin)), *p11))
        return 1;
    step("Logout", p11->Logout(), *p11);
    step("A wrong PIN is refused", !p11->Login(1, XString("not-the-pin")), *p11);
    step("Login again with Login(1, pin)", p11->Login(1, XString(pin)), *p11);
    return step("CloseSession", p11->CloseSession(), *p11) ? 0 : 1;
}
