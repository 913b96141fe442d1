#pragma once

#include "Cryptoki.h"

#include <string>

namespace p11client {

// The vendor library loaded with dlopen, and the function list fetched from
// it: one owner, so that the two die together and the list can never outlive
// the code it points into.
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

    CK_FUNCTION_LIST* functions() const { return m_functions; }
    void setFunctions(CK_FUNCTION_LIST* functions) { m_functions = functions; }

private:
    void* m_handle = nullptr;
    CK_FUNCTION_LIST* m_functions = nullptr;
};

} // namespace p11client
