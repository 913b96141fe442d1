// libmockp11_nolock.so: cannot use the operating system's locks, so it does
// not declare itself thread-safe: C_Initialize with CKF_OS_LOCKING_OK answers
// CKR_CANT_LOCK, and the application that initializes it without arguments
// promises to call it from one thread at a time.
#include "MockState.h"

namespace mock {

Behaviour imageBehaviour() { return {.refusesOsLocking = true, .workerThread = false}; }

}  // namespace mock
