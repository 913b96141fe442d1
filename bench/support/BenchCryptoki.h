#pragma once

// Bare Cryptoki access for the benchmark programs: a module opened with
// dlopen, a session, a complete object search. Failures throw
// std::runtime_error naming the function and its return value.

#include <p11-kit/pkcs11.h>

#include <cstdint>
#include <string>
#include <vector>

namespace p11bench {

using Bytes = std::vector<std::uint8_t>;

void check(const char* function, CK_RV rv);

// The module file and its function list, for the life of the object.
class Module {
public:
    explicit Module(const std::string& path);
    ~Module();
    Module(const Module&) = delete;
    Module& operator=(const Module&) = delete;

    CK_FUNCTION_LIST* functions() const { return m_functions; }
    void initialize();
    void finalize();
    // The first slot that holds a token.
    CK_SLOT_ID firstTokenSlot() const;

private:
    void* m_handle = nullptr;
    CK_FUNCTION_LIST* m_functions = nullptr;
    bool m_initialized = false;
};

// A session, with the normal user logged in when a PIN is given; closed on
// destruction.
class Session {
public:
    Session(CK_FUNCTION_LIST* functions, CK_SLOT_ID slot, bool readWrite, const std::string& userPin);
    ~Session();
    Session(const Session&) = delete;
    Session& operator=(const Session&) = delete;

    CK_SESSION_HANDLE handle() const { return m_session; }
    CK_FUNCTION_LIST* functions() const { return m_functions; }

private:
    CK_FUNCTION_LIST* m_functions;
    CK_SESSION_HANDLE m_session = 0;
};

// Every object matching the template, fetched in batches of 512.
std::vector<CK_OBJECT_HANDLE> findAll(const Session& session, std::vector<CK_ATTRIBUTE> tmpl);

// The value of an environment variable, or the fallback.
std::string envOr(const char* name, const std::string& fallback);

} // namespace p11bench
