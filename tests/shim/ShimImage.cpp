// A module image: the function list SHIM_IMAGE of the shim core, which it
// loads beside itself (the very copy a test linked, when one did). Built
// without SHIM_IMAGE, it is a shared library with no C_GetFunctionList.
#ifdef SHIM_IMAGE
#include "ShimControl.h"

#include <dlfcn.h>

static void* const core = dlopen(SHIM_DIR "/libp11shim_core.so", RTLD_NOW);  // as the image loads

extern "C" SHIM_API CK_RV C_GetFunctionList(CK_FUNCTION_LIST_PTR_PTR list) {
    auto get = reinterpret_cast<CK_RV (*)(int, CK_FUNCTION_LIST_PTR_PTR)>(dlsym(core, "p11shim_get_function_list"));
    return get(SHIM_IMAGE, list);
}

__attribute__((destructor)) static void unloaded() {
    reinterpret_cast<void (*)(int)>(dlsym(core, "p11shim_image_unloaded"))(SHIM_IMAGE);
}
#endif
