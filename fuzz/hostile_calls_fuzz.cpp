// Fuzz target: a sequence of public calls against SoftHSM2 behind the shim in
// its hostile mode. The first byte tells how many calls, two bytes each
// describe one call, and every byte after drives the shim's replies (see
// shim::setHostileStream). Whatever the module answers, no call may crash,
// leak, allocate without bound, leave a log context open or a JSON report
// that cannot be written out; and once the object is gone, the library holds
// no use of the module. C_SetPIN, C_InitPIN and C_InitToken say they did what
// they did not, so that every input finds the token as the first did.
#include "ClsCert.h"
#include "ClsJsonObject.h"
#include "ClsPkcs11.h"
#include "DataBuffer.h"
#include "FuzzToken.h"
#include "ModuleInitRegistry.h"
#include "ShimControl.h"
#include "XString.h"

#include <dlfcn.h>

#include <climits>
#include <cstdlib>
#include <cstring>
#include <memory>

using namespace p11client;

static constexpr std::size_t kMaxCalls = 32;
static const shim::Image kImages[] = {shim::Image::standard, shim::Image::cannotLock};

struct Arg {
    std::uint8_t byte;
    unsigned pick(unsigned n) const { return byte % n; }
};

static const char* pinFor(Arg a) {
    static const std::string longPin(4096, '7');
    static const char* const pins[] = {"1234", "12345678", "0000", "", "caf\xC3\xA9", "\xFF\xFE", longPin.c_str()};
    return pins[a.pick(7)];
}

static int slotFor(Arg a) {
    const int slots[] = {-1, static_cast<int>(p11fuzz::fuzzToken(2, 2).slot), 1, 0, 99, -2, INT_MAX, 0x7FFF0000};
    return slots[a.pick(8)];
}

static const char* const kCertParts[] = {"privateKey", "", "subjectDN", "subjectDN_withTags", "issuerCN", "serial", "thumbprint",
                                  "policyOid", "keyUsage", "CN", "O", "E", "OU", "serialNumber"};
static const char* const kPartValues[] = {"", "fuzz 0", "fuzz 1", "0A1B", "C=FR, CN=fuzz 0", "digitalSignature"};
static const char* const kKeyFilters[] = {"", "rsa", "ec", "ecdsa", "all", "dsa"};
static const char* const kTemplates[] = {"{}", "{\"class\":\"certificate\"}", "{\"class\":\"privateKey\",\"keyType\":\"rsa\"}",
                                  "{\"id\":\"01\"}", "{\"label\":\"fuzz\",\"attributes\":{\"CKA_SIGN\":true}}",
                                  "{\"class\":\"CKO_DATA\",\"attributes\":{\"0x80000001\":\"00ff\"}}"};

static std::unique_ptr<ClsPkcs11> newObject(const std::string& path) {
    std::unique_ptr<ClsPkcs11> p11(ClsPkcs11::createNewCls());
    p11->put_SharedLibPath(XString(path.c_str()));
    return p11;
}

struct Session {
    std::unique_ptr<ClsPkcs11> p11 = newObject(shim::modulePath());
    ClsCert cert; // the certificate FindCert chose last

    void call(Arg op, Arg a) {
        const Arg next{static_cast<std::uint8_t>(a.byte >> 3)};
        const int userType = static_cast<int>(a.pick(3));
        static const std::string paths[] = {shim::modulePath(), shim::modulePath(shim::Image::cannotLock),
                                            shim::noFunctionListModulePath(), "/nonexistent/module.so"};
        static const char* const hashes[] = {"sha256", "sha1", "sha384", "sha512"};
        static const std::size_t sizes[] = {32, 20, 48, 64};
        ClsJsonObject json;
        ClsCert other;
        DataBuffer digest, signature;
        LogNull log;
        switch (op.pick(20)) {
        case 0: p11->Initialize(); break;
        case 1: p11->Discover((a.byte & 1) != 0, json); break;
        case 2: p11->OpenSession(slotFor(a), (a.byte & 8) != 0); break;
        case 3: p11->CloseSession(); break;
        case 4: p11->Login(userType, XString(pinFor(next))); break;
        case 5: p11->Logout(); break;
        case 6: p11->QuickSession(userType, XString(pinFor(next))); break;
        case 7: p11->SetPin(XString(pinFor(a)), XString(pinFor(next))); break;
        case 8: p11->InitPin(XString(pinFor(a))); break;
        case 9: p11->InitToken(slotFor(a), XString(pinFor(next)), XString("fuzz label")); break;
        case 10: p11->FindAllCerts(); break;
        case 11: p11->GetCert(static_cast<int>(a.pick(4)) - 1, other), p11->get_NumCerts(); break;
        case 12: p11->FindCert(XString(kCertParts[a.pick(14)]), XString(kPartValues[next.pick(6)]), cert); break;
        case 13: p11->FindAllKeys(XString(kKeyFilters[a.pick(6)]), json); break;
        case 14: json.loadJsonText(kTemplates[a.pick(6)], std::strlen(kTemplates[a.pick(6)]), log), p11->FindObject(json); break;
        case 15: digest.resize(sizes[a.pick(4)]), p11->SignHash(cert, XString(hashes[a.pick(4)]), digest, signature); break;
        case 16: p11->put_SharedLibPath(XString(paths[a.pick(4)].c_str())); break;
        case 17: p11 = newObject(shim::modulePath()); break;
        case 18: p11->put_SigContextPin(XString(pinFor(a))); break;
        default: p11->hasOpenSession(); break;
        }
        XString text;
        if (!json.Emit(text) || p11->m_log.depth() != 0) std::abort();
    }
};

// The images stay loaded, so that the library's registry can be asked about them.
static void* image(shim::Image i) {
    static void* const images[] = {dlopen(shim::modulePath(kImages[0]).c_str(), RTLD_NOW),
                                   dlopen(shim::modulePath(kImages[1]).c_str(), RTLD_NOW)};
    return images[i == kImages[0] ? 0 : 1];
}

extern "C" int LLVMFuzzerInitialize(int*, char***) { return p11fuzz::fuzzToken(2, 2), image(kImages[0]) && image(kImages[1]) ? 0 : 1; }

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    if (size == 0) return 0;
    const std::size_t calls = std::min<std::size_t>(data[0] % kMaxCalls + 1, (size - 1) / 2);
    shim::reset();
    for (const char* function : {"C_SetPIN", "C_InitPIN", "C_InitToken"})
        shim::lie(function, shim::Lie::okWithoutDoing, ~CK_ULONG{0}, -1);
    shim::setHostileStream(std::vector<std::uint8_t>(data + 1 + 2 * calls, data + size));
    {
        Session session;
        for (std::size_t i = 0; i < calls; ++i) session.call(Arg{data[1 + 2 * i]}, Arg{data[2 + 2 * i]});
        shim::setHostileStream({}); // the object lets go of an honest module
    }
    shim::reset();
    for (shim::Image i : kImages) {
        if (ModuleInitRegistry::users(image(i)) != 0) std::abort();
        // A module that said someone else initialized it is not finalized by the library: done here.
        CK_FUNCTION_LIST* f = nullptr;
        if (shim::initialized(i))
            reinterpret_cast<CK_C_GetFunctionList>(dlsym(image(i), "C_GetFunctionList"))(&f), f->C_Finalize(nullptr);
    }
    return 0;
}
