// libmockp11.so: the mock as tests set it up, thread-safe and without a thread of its own.
#include "MockState.h"

namespace mock {

Behaviour imageBehaviour() { return {}; }

}  // namespace mock
