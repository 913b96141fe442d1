// libmockp11_nulllist.so: C_GetFunctionList claims success but hands back no list.
#include <p11-kit/pkcs11.h>

extern "C" __attribute__((visibility("default"))) CK_RV C_GetFunctionList(CK_FUNCTION_LIST_PTR_PTR ppFunctionList) {
    if (ppFunctionList != nullptr) *ppFunctionList = nullptr;
    return CKR_OK;
}
