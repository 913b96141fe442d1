#pragma once

#include "Cryptoki.h"

#include <string>

#include <sys/types.h>

namespace p11client {

// The vendor library loaded with dlopen, and the function list fetched from
// it: one owner, so that the two die together and the list can never outlive
// the code it points into.
//
// A child process made by fork() inherits the loaded image together with
// the module's state, which belongs to the parent: its sessions, its login,
// and often a connection to a reader daemon that parent and child now
// share. From the child the list is therefore not handed out (functions()
// is null), so no call reaches the parent's state; the owner notices it with
// forkedSinceOpen() and loads the module afresh.
class ModuleLibrary {
public:
    ModuleLibrary() = default;
    ~ModuleLibrary() { close(); }
    ModuleLibrary(ModuleLibrary&& other) noexcept;
    ModuleLibrary& operator=(ModuleLibrary&& other) noexcept;
    ModuleLibrary(const ModuleLibrary&) = delete;
    ModuleLibrary& operator=(const ModuleLibrary&) = delete;

    // dlopen(path, RTLD_NOW). On failure the loader's own text is put in
    // error and nothing is loaded.
    bool open(const char* path, std::string& error);
    // dlclose; the function list goes with it.
    void close() noexcept;

    bool isNull() const { return m_handle == nullptr; }
    // The loader's handle: the same for every object that loaded the same file.
    void* image() const { return m_handle; }
    void* symbol(const char* name) const;

    // The list to call the module through; null when none was fetched or
    // when this process is a child forked after the library was loaded.
    CK_FUNCTION_LIST* functions() const;
    // The module's own list, as C_GetFunctionList gave it, and the one to
    // call it through (ours, when calls into it must be serialized).
    CK_FUNCTION_LIST* moduleFunctions() const { return m_module; }
    void setFunctions(CK_FUNCTION_LIST* module) { m_module = m_functions = module; }
    void callThrough(CK_FUNCTION_LIST* functions) { m_functions = functions; }
    // Whether the library was loaded by the parent of this process.
    bool forkedSinceOpen() const;

private:
    void* m_handle = nullptr;
    CK_FUNCTION_LIST* m_module = nullptr;
    CK_FUNCTION_LIST* m_functions = nullptr;
    pid_t m_loadedBy = 0; // the process that loaded it
};

} // namespace p11client
