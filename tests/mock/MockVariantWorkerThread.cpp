// libmockp11_worker.so: C_Initialize starts a thread, C_Finalize stops it.
#include "MockState.h"

namespace mock {

Behaviour imageBehaviour() { return {.refusesOsLocking = false, .workerThread = true}; }

}  // namespace mock
