#pragma once

#include "Cryptoki.h"

namespace p11client {

// C_Initialize and C_Finalize act on a module image for the whole process,
// and every object that loads the same file is handed the same image. This
// registry counts the objects that use each initialized image so that the
// module is initialized by the first and finalized only after the last lets
// go, and never finalized at all when someone outside this library had
// initialized it first.
class ModuleInitRegistry {
public:
    struct Outcome {
        CK_RV rv = CKR_OK;             // what C_Initialize returned, when it was called
        bool calledInitialize = false; // false: another object had already initialized it
        bool initializedElsewhere = false; // the module said it was initialized by someone else
    };

    // Initializes the image unless one of our objects already did, and counts
    // the caller as a user when the result is CKR_OK.
    static Outcome acquire(void* image, CK_FUNCTION_LIST* functions);
    // Drops one user; the last one out finalizes the module (when we
    // initialized it). Returns true when C_Finalize was called.
    static bool release(void* image, CK_FUNCTION_LIST* functions);
    // How many objects currently use the image (for diagnostics and tests).
    static int users(void* image);
};

} // namespace p11client
