// The hostile mode: which verdict a call gets (from the queued lies or the
// byte stream), the lies every function can tell, and the garbage and
// lengths the function-specific liars use.
#pragma once

#include "MockState.h"

#include <cstddef>

namespace mock {

// The verdict for this call of `function`: a queued one, else one read from
// the hostile stream; nullopt for an honest answer. Caller holds the lock.
std::optional<Verdict> takeVerdict(State& s, const std::string& function);

// Answers a call that got a verdict: the lies every function tells here, the
// rest by the function's liar.
template <typename Honest, typename Liar>
CK_RV answer(const Verdict& v, Honest& honest, Liar&& liar) {
    if (v.kind == Verdict::Kind::fail) {
        if (v.garbage) liar(v);
        return v.rv;
    }
    if (v.lie == Lie::doneButFailed) {
        honest();
        return v.rv;
    }
    if (v.lie == Lie::okWithoutDoing) return CKR_OK;
    return liar(v);
}

// Bytes that mean nothing, the same for the same seed.
void fillGarbage(void* p, size_t size, CK_ULONG seed);
// A blank-padded text field as a lying module writes it.
void fillLyingText(CK_UTF8CHAR* field, size_t width, Lie lie);
// The length a length lie reports where the buffer given holds `room` (in a
// length query: where the true length is `room`).
CK_ULONG lyingLength(Lie lie, CK_ULONG room);
bool isLengthLie(Lie lie);

}  // namespace mock
