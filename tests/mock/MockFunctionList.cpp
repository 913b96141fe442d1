// The function list and C_GetFunctionList, the module's only exported entry point.
// Functions the mock does not implement answer CKR_FUNCTION_NOT_SUPPORTED through
// the same dispatch as the others, so they are recorded and can be faulted too.
#include "MockDispatch.h"
#include "MockEntryPoints.h"

#include <algorithm>
#include <cstddef>
#include <cstring>

namespace mock {

namespace {

// A function name usable as a template argument.
template <size_t N>
struct Name {
    char text[N];
    constexpr Name(const char (&literal)[N]) { std::copy_n(literal, N, text); }
};

template <Name name, typename Pointer>
struct Unsupported;

template <Name name, typename... Args>
struct Unsupported<name, CK_RV (*)(Args...)> {
    static CK_RV call(Args...) {
        return dispatch({.function = name.text}, Needs::initialized,
                        [](State&, Call&) { return CKR_FUNCTION_NOT_SUPPORTED; });
    }
};

CK_FUNCTION_LIST makeFunctionList() {
    using namespace entry;
    CK_FUNCTION_LIST list{};
    list.version = {2, 40};
    list.C_Initialize = C_Initialize;
    list.C_Finalize = C_Finalize;
    list.C_GetInfo = C_GetInfo;
    list.C_GetFunctionList = ::C_GetFunctionList;
    list.C_GetSlotList = C_GetSlotList;
    list.C_GetSlotInfo = C_GetSlotInfo;
    list.C_GetTokenInfo = C_GetTokenInfo;
    list.C_GetMechanismList = Unsupported<"C_GetMechanismList", CK_C_GetMechanismList>::call;
    list.C_GetMechanismInfo = Unsupported<"C_GetMechanismInfo", CK_C_GetMechanismInfo>::call;
    list.C_InitToken = C_InitToken;
    list.C_InitPIN = C_InitPIN;
    list.C_SetPIN = C_SetPIN;
    list.C_OpenSession = C_OpenSession;
    list.C_CloseSession = C_CloseSession;
    list.C_CloseAllSessions = C_CloseAllSessions;
    list.C_GetSessionInfo = C_GetSessionInfo;
    list.C_GetOperationState = Unsupported<"C_GetOperationState", CK_C_GetOperationState>::call;
    list.C_SetOperationState = Unsupported<"C_SetOperationState", CK_C_SetOperationState>::call;
    list.C_Login = C_Login;
    list.C_Logout = C_Logout;
    list.C_CreateObject = Unsupported<"C_CreateObject", CK_C_CreateObject>::call;
    list.C_CopyObject = Unsupported<"C_CopyObject", CK_C_CopyObject>::call;
    list.C_DestroyObject = Unsupported<"C_DestroyObject", CK_C_DestroyObject>::call;
    list.C_GetObjectSize = Unsupported<"C_GetObjectSize", CK_C_GetObjectSize>::call;
    list.C_GetAttributeValue = C_GetAttributeValue;
    list.C_SetAttributeValue = Unsupported<"C_SetAttributeValue", CK_C_SetAttributeValue>::call;
    list.C_FindObjectsInit = C_FindObjectsInit;
    list.C_FindObjects = C_FindObjects;
    list.C_FindObjectsFinal = C_FindObjectsFinal;
    list.C_EncryptInit = Unsupported<"C_EncryptInit", CK_C_EncryptInit>::call;
    list.C_Encrypt = Unsupported<"C_Encrypt", CK_C_Encrypt>::call;
    list.C_EncryptUpdate = Unsupported<"C_EncryptUpdate", CK_C_EncryptUpdate>::call;
    list.C_EncryptFinal = Unsupported<"C_EncryptFinal", CK_C_EncryptFinal>::call;
    list.C_DecryptInit = Unsupported<"C_DecryptInit", CK_C_DecryptInit>::call;
    list.C_Decrypt = Unsupported<"C_Decrypt", CK_C_Decrypt>::call;
    list.C_DecryptUpdate = Unsupported<"C_DecryptUpdate", CK_C_DecryptUpdate>::call;
    list.C_DecryptFinal = Unsupported<"C_DecryptFinal", CK_C_DecryptFinal>::call;
    list.C_DigestInit = Unsupported<"C_DigestInit", CK_C_DigestInit>::call;
    list.C_Digest = Unsupported<"C_Digest", CK_C_Digest>::call;
    list.C_DigestUpdate = Unsupported<"C_DigestUpdate", CK_C_DigestUpdate>::call;
    list.C_DigestKey = Unsupported<"C_DigestKey", CK_C_DigestKey>::call;
    list.C_DigestFinal = Unsupported<"C_DigestFinal", CK_C_DigestFinal>::call;
    list.C_SignInit = C_SignInit;
    list.C_Sign = C_Sign;
    list.C_SignUpdate = Unsupported<"C_SignUpdate", CK_C_SignUpdate>::call;
    list.C_SignFinal = Unsupported<"C_SignFinal", CK_C_SignFinal>::call;
    list.C_SignRecoverInit = Unsupported<"C_SignRecoverInit", CK_C_SignRecoverInit>::call;
    list.C_SignRecover = Unsupported<"C_SignRecover", CK_C_SignRecover>::call;
    list.C_VerifyInit = Unsupported<"C_VerifyInit", CK_C_VerifyInit>::call;
    list.C_Verify = Unsupported<"C_Verify", CK_C_Verify>::call;
    list.C_VerifyUpdate = Unsupported<"C_VerifyUpdate", CK_C_VerifyUpdate>::call;
    list.C_VerifyFinal = Unsupported<"C_VerifyFinal", CK_C_VerifyFinal>::call;
    list.C_VerifyRecoverInit = Unsupported<"C_VerifyRecoverInit", CK_C_VerifyRecoverInit>::call;
    list.C_VerifyRecover = Unsupported<"C_VerifyRecover", CK_C_VerifyRecover>::call;
    list.C_DigestEncryptUpdate = Unsupported<"C_DigestEncryptUpdate", CK_C_DigestEncryptUpdate>::call;
    list.C_DecryptDigestUpdate = Unsupported<"C_DecryptDigestUpdate", CK_C_DecryptDigestUpdate>::call;
    list.C_SignEncryptUpdate = Unsupported<"C_SignEncryptUpdate", CK_C_SignEncryptUpdate>::call;
    list.C_DecryptVerifyUpdate = Unsupported<"C_DecryptVerifyUpdate", CK_C_DecryptVerifyUpdate>::call;
    list.C_GenerateKey = Unsupported<"C_GenerateKey", CK_C_GenerateKey>::call;
    list.C_GenerateKeyPair = Unsupported<"C_GenerateKeyPair", CK_C_GenerateKeyPair>::call;
    list.C_WrapKey = Unsupported<"C_WrapKey", CK_C_WrapKey>::call;
    list.C_UnwrapKey = Unsupported<"C_UnwrapKey", CK_C_UnwrapKey>::call;
    list.C_DeriveKey = Unsupported<"C_DeriveKey", CK_C_DeriveKey>::call;
    list.C_SeedRandom = Unsupported<"C_SeedRandom", CK_C_SeedRandom>::call;
    list.C_GenerateRandom = Unsupported<"C_GenerateRandom", CK_C_GenerateRandom>::call;
    list.C_GetFunctionStatus = Unsupported<"C_GetFunctionStatus", CK_C_GetFunctionStatus>::call;
    list.C_CancelFunction = Unsupported<"C_CancelFunction", CK_C_CancelFunction>::call;
    list.C_WaitForSlotEvent = Unsupported<"C_WaitForSlotEvent", CK_C_WaitForSlotEvent>::call;
    return list;
}

}  // namespace

// A list whose entries from the one at `firstMissing` on are NULL, as a
// module built against an older, shorter list leaves them.
void cutShort(CK_FUNCTION_LIST& list, size_t firstMissing) {
    constexpr size_t kFirstEntry = offsetof(CK_FUNCTION_LIST, C_Initialize);
    constexpr size_t kEntries = (sizeof(CK_FUNCTION_LIST) - kFirstEntry) / sizeof(CK_C_Initialize);
    const size_t from = kFirstEntry + (firstMissing % kEntries) * sizeof(CK_C_Initialize);
    std::memset(reinterpret_cast<unsigned char*>(&list) + from, 0, sizeof list - from);
}

}  // namespace mock

extern "C" __attribute__((visibility("default"))) CK_RV C_GetFunctionList(CK_FUNCTION_LIST_PTR_PTR ppFunctionList) {
    static CK_FUNCTION_LIST list = mock::makeFunctionList();
    static CK_FUNCTION_LIST shortList{};
    return mock::dispatch({.function = "C_GetFunctionList"}, mock::Needs::nothing, [&](mock::State&, mock::Call&) {
        if (ppFunctionList == nullptr) return CKR_ARGUMENTS_BAD;
        *ppFunctionList = &list;
        return CKR_OK;
    }, [&](const mock::Verdict& v, auto&) {
        if (ppFunctionList == nullptr) return CKR_ARGUMENTS_BAD;
        if (v.kind == mock::Verdict::Kind::fail) {
            mock::fillGarbage(ppFunctionList, sizeof *ppFunctionList, v.value);
            return v.rv;
        }
        if (v.lie == mock::Lie::nullList) {
            *ppFunctionList = nullptr;
            return CKR_OK;
        }
        shortList = list;
        mock::cutShort(shortList, v.value);
        *ppFunctionList = &shortList;
        return CKR_OK;
    });
}
