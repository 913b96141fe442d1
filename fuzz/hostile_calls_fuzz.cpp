// Fuzz target: a sequence of public calls against the mock module in its
// hostile mode. The first byte tells how many calls, two bytes each describe
// one call, and every byte after drives the module's replies (see
// mock::setHostileStream). Whatever the module answers, no call may crash,
// leak, allocate without bound, leave a log context open or a JSON report
// that cannot be written out; and once the object is gone, the library holds
// no use of the module.
#include "ClsCert.h"
#include "ClsJsonObject.h"
#include "ClsPkcs11.h"
#include "DataBuffer.h"
#include "FuzzTokenMaterial.h"
#include "MockControl.h"
#include "ModuleInitRegistry.h"
#include "XString.h"

#include <dlfcn.h>

#include <climits>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>

namespace {

using namespace p11client;
using p11fuzz::Bytes;

constexpr CK_SLOT_ID kSlot = 1;
constexpr CK_SLOT_ID kEmptySlot = 2;
constexpr std::size_t kMaxCalls = 32;

struct Arg {
    std::uint8_t byte;
    unsigned pick(unsigned n) const { return byte % n; }
    bool bit(int i) const { return (byte >> i) & 1; }
};

const char* pinFor(Arg a)
{
    static const std::string longPin(4096, '7');
    static const char* const pins[] = {"1234", "12345678", "0000", "", "caf\xC3\xA9", "\xFF\xFE", longPin.c_str()};
    return pins[a.pick(7)];
}

int slotFor(Arg a)
{
    static const int slots[] = {-1, 1, 2, 0, 99, -2, INT_MAX, static_cast<int>(0x7FFF0000)};
    return slots[a.pick(8)];
}

const char* const kCertParts[] = {"privateKey", "", "subjectDN", "subjectDN_withTags", "issuerCN", "serial",
                                  "thumbprint", "policyOid", "keyUsage", "CN", "O", "E", "OU", "serialNumber"};
const char* const kPartValues[] = {"", "fuzz rsa", "P-256", "0A1B", "C=FR, CN=fuzz rsa", "digitalSignature"};
const char* const kKeyFilters[] = {"", "rsa", "ec", "ecdsa", "all", "dsa"};
const char* const kTemplates[] = {"{}", "{\"class\":\"certificate\"}", "{\"class\":\"privateKey\",\"keyType\":\"rsa\"}",
                                  "{\"id\":\"01\"}", "{\"label\":\"fuzz\",\"attributes\":{\"CKA_SIGN\":true}}",
                                  "{\"class\":\"CKO_DATA\",\"attributes\":{\"0x80000001\":\"00ff\"}}"};

void putToken()
{
    mock::TokenSpec token;
    mock::addSlot(kSlot, mock::SlotSpec{});
    mock::addSlot(kEmptySlot, mock::SlotSpec{.description = "Empty reader", .token = std::nullopt});
    const auto& material = p11fuzz::tokenMaterial();
    for (std::size_t i = 0; i < 2; ++i) {
        const p11fuzz::TokenMaterial& m = material[i];
        const Bytes id{static_cast<std::uint8_t>(i + 1)};
        mock::addObject(kSlot, {mock::ulongAttr(CKA_CLASS, CKO_CERTIFICATE),
                                mock::ulongAttr(CKA_CERTIFICATE_TYPE, CKC_X_509), mock::bytesAttr(CKA_VALUE, m.certDer),
                                mock::bytesAttr(CKA_ID, id), mock::stringAttr(CKA_LABEL, "fuzz")});
        std::vector<mock::Attribute> key{mock::ulongAttr(CKA_CLASS, CKO_PRIVATE_KEY), mock::bytesAttr(CKA_ID, id),
                                         mock::boolAttr(CKA_SIGN, true), mock::boolAttr(CKA_PRIVATE, true),
                                         mock::stringAttr(CKA_LABEL, "fuzz")};
        if (m.rsa) {
            key.push_back(mock::ulongAttr(CKA_KEY_TYPE, CKK_RSA));
            key.push_back(mock::bytesAttr(CKA_MODULUS, m.modulus));
        } else {
            key.push_back(mock::ulongAttr(CKA_KEY_TYPE, CKK_EC));
            key.push_back(mock::bytesAttr(CKA_EC_PARAMS, m.ecParams));
            key.push_back(mock::bytesAttr(CKA_EC_POINT, p11fuzz::derOctetString(m.ecPoint)));
        }
        mock::addObject(kSlot, key);
    }
    mock::addObject(kSlot, {mock::ulongAttr(CKA_CLASS, CKO_DATA), mock::stringAttr(CKA_LABEL, "fuzz"),
                            mock::bytesAttr(CKA_VALUE, Bytes(300, 0x5A))});
}

std::unique_ptr<ClsPkcs11> newObject(const std::string& path)
{
    std::unique_ptr<ClsPkcs11> p11(ClsPkcs11::createNewCls());
    if (!p11)
        std::abort();
    p11->put_SharedLibPath(XString(path.c_str()));
    return p11;
}

void checkJson(ClsJsonObject& json)
{
    XString text;
    if (!json.Emit(text))
        std::abort();
}

struct Session {
    std::unique_ptr<ClsPkcs11> p11 = newObject(mock::modulePath());
    ClsCert cert; // the certificate FindCert chose last

    void modules(Arg a)
    {
        static const std::string paths[] = {mock::modulePath(), mock::nullFunctionListModulePath(),
                                            mock::noFunctionListModulePath(), "/nonexistent/module.so"};
        p11->put_SharedLibPath(XString(paths[a.pick(4)].c_str()));
    }

    void sign(Arg a)
    {
        static const char* const hashes[] = {"sha256", "sha1", "sha384", "sha512"};
        static const std::size_t sizes[] = {32, 20, 48, 64};
        DataBuffer digest, signature;
        digest.resize(sizes[a.pick(4)]);
        p11->SignHash(cert, XString(hashes[a.pick(4)]), digest, signature);
    }

    void findObject(Arg a)
    {
        ClsJsonObject json;
        LogNull log;
        const char* search = kTemplates[a.pick(6)];
        json.loadJsonText(search, std::strlen(search), log);
        p11->FindObject(json);
        checkJson(json);
    }

    void call(Arg op, Arg a)
    {
        const Arg next{static_cast<std::uint8_t>(a.byte >> 3)};
        const int userType = static_cast<int>(a.pick(3));
        ClsJsonObject json;
        ClsCert other;
        switch (op.pick(20)) {
        case 0: p11->Initialize(); break;
        case 1: p11->Discover(a.bit(0), json); checkJson(json); break;
        case 2: p11->OpenSession(slotFor(a), a.bit(3)); break;
        case 3: p11->CloseSession(); break;
        case 4: p11->Login(userType, XString(pinFor(next))); break;
        case 5: p11->Logout(); break;
        case 6: p11->QuickSession(userType, XString(pinFor(next))); break;
        case 7: p11->SetPin(XString(pinFor(a)), XString(pinFor(next))); break;
        case 8: p11->InitPin(XString(pinFor(a))); break;
        case 9: p11->InitToken(slotFor(a), XString(pinFor(next)), XString("fuzz label")); break;
        case 10: p11->FindAllCerts(); break;
        case 11: p11->GetCert(static_cast<int>(a.pick(4)) - 1, other); p11->get_NumCerts(); break;
        case 12: p11->FindCert(XString(kCertParts[a.pick(14)]), XString(kPartValues[next.pick(6)]), cert); break;
        case 13: p11->FindAllKeys(XString(kKeyFilters[a.pick(6)]), json); checkJson(json); break;
        case 14: findObject(a); break;
        case 15: sign(a); break;
        case 16: modules(a); break;
        case 17: p11 = newObject(mock::modulePath()); break;
        case 18: p11->put_SigContextPin(XString(pinFor(a))); break;
        default: p11->hasOpenSession(); break;
        }
        if (p11->m_log.depth() != 0)
            std::abort();
    }
};

void* mockImage()
{
    static void* image = dlopen(mock::modulePath().c_str(), RTLD_NOW | RTLD_NOLOAD);
    return image;
}

} // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***)
{
    p11fuzz::tokenMaterial();
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    if (size == 0)
        return 0;
    const std::size_t calls = std::min<std::size_t>(data[0] % kMaxCalls + 1, (size - 1) / 2);
    const std::uint8_t* stream = data + 1 + 2 * calls;
    mock::reset();
    putToken();
    mock::setHostileStream(Bytes(stream, data + size));
    {
        Session session;
        for (std::size_t i = 0; i < calls; ++i)
            session.call(Arg{data[1 + 2 * i]}, Arg{data[2 + 2 * i]});
        mock::setHostileStream({}); // the object lets go of an honest module
    }
    if (ModuleInitRegistry::users(mockImage()) != 0)
        std::abort();
    return 0;
}
