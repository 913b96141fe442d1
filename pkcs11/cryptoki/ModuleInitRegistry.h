#pragma once

#include "Cryptoki.h"

#include <optional>

namespace p11client {

// C_Initialize and C_Finalize act on a module image for the whole process,
// and every object that loads the same file is handed the same image. This
// registry counts the objects that use each initialized image so that the
// module is initialized by the first and finalized only after the last lets
// go, and never finalized at all when someone outside this library had
// initialized it first.
//
// It also decides how the image may be called. A module that cannot use the
// operating system's locks (CKR_CANT_LOCK) is initialized without arguments
// instead, and every object then calls it through one serializing function
// list, so that no two calls are ever inside it at once.
//
// Entries belong to the process that made them: in a child made by fork()
// the parent's entries are stale and ignored, so the child initializes the
// module for itself and never finalizes what the parent initialized.
class ModuleInitRegistry {
public:
    struct Outcome {
        CK_RV rv = CKR_OK;             // what C_Initialize returned, when it was called
        bool calledInitialize = false; // false: another object had already initialized it
        bool initializedElsewhere = false; // the module said it was initialized by someone else
        bool inheritedFromParent = false;  // ... by this process's parent, before fork()
        bool cannotLock = false;           // the module refused the operating system's locks
        bool noSerializerLeft = false;     // ... and too many such modules are in use to call it safely
        CK_FUNCTION_LIST* module = nullptr;    // the module's own list, the one the image was initialized with
        CK_FUNCTION_LIST* functions = nullptr; // the list to call the module through
    };

    // Initializes the image unless one of our objects already did, and counts
    // the caller as a user when the result is CKR_OK. When it is already in
    // use, the outcome names the lists it was initialized with: the caller
    // calls through those, not through the list it fetched itself.
    static Outcome acquire(void* image, CK_FUNCTION_LIST* functions);
    // Drops one user; the last one out finalizes the module (when we
    // initialized it). Returns true when C_Finalize was called.
    static bool release(void* image);
    // For an image in use: the module's list it was initialized with, and the
    // list to call it through (a serializing one when it cannot lock). The
    // image is never asked for its list again: some modules hand out a new,
    // uninitialized list at every C_GetFunctionList, and that call too would
    // come beside the serialized ones.
    struct Lists {
        CK_FUNCTION_LIST* module;
        CK_FUNCTION_LIST* calls;
    };
    static std::optional<Lists> listsOf(void* image);
    // The sessions our objects hold on each token of an image in use. A
    // login belongs to the application, not to one session: C_Logout ends it
    // for every session the process has on the token, so an object that
    // leaves logs out only when no other object still has a session there.
    static void sessionOpened(void* image, CK_SLOT_ID slot);
    static void sessionClosed(void* image, CK_SLOT_ID slot);
    static int sessions(void* image, CK_SLOT_ID slot); // the caller's included
    // How many objects currently use the image (for diagnostics and tests).
    static int users(void* image);
};

} // namespace p11client
