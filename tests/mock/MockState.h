// In-memory model of the mock module: slots, tokens, objects, sessions, plus
// the fault queue and call record. One mutex guards all of it; entry points
// take it through dispatch() (MockDispatch.h), the control API directly.
#pragma once

#include "MockControl.h"

#include <atomic>
#include <deque>
#include <map>
#include <memory>
#include <mutex>
#include <set>

namespace mock {

struct Object {
    CK_OBJECT_HANDLE handle = 0;
    std::map<CK_ATTRIBUTE_TYPE, std::vector<uint8_t>> attributes;
    std::set<CK_ATTRIBUTE_TYPE> sensitive;

    bool isPrivate() const;
    bool matches(const CK_ATTRIBUTE* pTemplate, CK_ULONG count) const;
};

struct Token {
    TokenSpec spec;                          // label, flags and PINs change at run time
    std::optional<CK_USER_TYPE> loggedInAs;  // shared by all sessions of the token
    std::vector<Object> objects;

    bool sees(const Object& object) const;  // private objects need the user logged in
    Object* findVisible(CK_OBJECT_HANDLE handle);
};

struct Slot {
    CK_SLOT_ID id = 0;
    SlotSpec spec;               // spec.token is not used after set-up
    std::optional<Token> token;  // the live token
};

struct FindOperation {
    std::vector<CK_OBJECT_HANDLE> matches;
    size_t next = 0;
};

struct SignOperation {
    SignRecord record;
    size_t signatureLength = 0;
    bool needsContextLogin = false;  // the key has CKA_ALWAYS_AUTHENTICATE
    bool contextLoggedIn = false;
};

struct Session {
    CK_SESSION_HANDLE handle = 0;
    CK_SLOT_ID slot = 0;
    bool readWrite = false;
    std::optional<FindOperation> find{};
    // An operation that a CKU_CONTEXT_SPECIFIC login may authorize: signing.
    bool cryptoOperationActive = false;
    std::optional<SignOperation> sign{};
};

struct Fault {
    CK_RV rv = CKR_OK;
    int remaining = 1;  // -1: forever
};

struct AfterCallAction {
    std::function<void()> action;
    int remaining = 1;  // -1: forever
};

// What the hostile mode decided for one call.
struct Verdict {
    enum class Kind { fail, lie };
    Kind kind = Kind::fail;
    CK_RV rv = CKR_OK;       // fail, and doneButFailed: the return value
    bool garbage = false;    // fail: out-parameters filled with garbage
    Lie lie = Lie::doneButFailed;
    CK_ULONG value = 0;      // the lie's value (which attribute, where a list stops, ...)
    int remaining = 1;       // queued verdicts: -1 for ever
};

class Worker;  // the thread of the worker-thread variant (MockWorker.cpp)

struct State {
    State();
    ~State();

    std::mutex mutex;
    bool initialized = false;
    LibrarySpec library;
    std::vector<Slot> slots;
    std::map<CK_SESSION_HANDLE, Session> sessions;
    // Never reset, so a handle from an earlier test or initialization stays invalid.
    CK_SESSION_HANDLE nextSessionHandle = 1;
    CK_OBJECT_HANDLE nextObjectHandle = 1;

    std::map<std::string, std::deque<Fault>> faults;
    std::map<std::string, std::deque<AfterCallAction>> afterCallActions;
    std::vector<Call> calls;
    CK_FLAGS lastInitializeFlags = 0;
    bool lastInitializeHadArgs = false;
    int initializeCount = 0;
    int finalizeCount = 0;
    std::optional<SignRecord> lastSignature;

    std::map<std::string, std::deque<Verdict>> queuedVerdicts;
    std::vector<uint8_t> hostileStream;
    size_t hostilePos = 0;

    Behaviour behaviour;
    std::unique_ptr<Worker> worker;  // while the worker-thread variant is initialized

    // Read outside the mutex: the concurrency probe of dispatch().
    std::atomic<bool> yieldInside{false};  // behaviour.refusesOsLocking
    std::atomic<int> callsInside{0};
    std::atomic<long> overlaps{0};

    Slot* findSlot(CK_SLOT_ID id);
    Token* findToken(CK_SLOT_ID id);  // null when no such slot or no token in it
    Session* findSession(CK_SESSION_HANDLE handle);
    Token& tokenOf(const Session& session);  // a session always has its token
    void setBehaviour(const Behaviour& b);
    size_t countSessions(CK_SLOT_ID slot, bool readWriteOnly) const;
    void closeSession(CK_SESSION_HANDLE handle);  // logs the token out after the last one
    void closeSessionsOf(CK_SLOT_ID slot);
};

State& state();  // the one instance of the module

// The behaviour this image was built with (one MockVariant*.cpp per module).
Behaviour imageBehaviour();
// Starts and stops the worker-thread variant's thread. Caller holds the lock.
void startWorker(State& s);
// A helper process started and reaped, as a module that launches a daemon does.
void forkHelperProcess();
void stopWorker(State& s);

// Copies `text` into a PKCS#11 fixed-width field: blank-padded, never NUL-terminated.
void padField(CK_UTF8CHAR* field, size_t width, std::string_view text);

bool isLimited(CK_ULONG maximum);  // a real limit, not infinite/unavailable

}  // namespace mock
