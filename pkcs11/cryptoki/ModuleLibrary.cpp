#include "ModuleLibrary.h"

#include <dlfcn.h>
#include <unistd.h>

#include <utility>

namespace p11client {

ModuleLibrary::ModuleLibrary(ModuleLibrary&& other) noexcept
    : m_handle(std::exchange(other.m_handle, nullptr)),
      m_module(std::exchange(other.m_module, nullptr)),
      m_functions(std::exchange(other.m_functions, nullptr)),
      m_loadedBy(other.m_loadedBy)
{
}

ModuleLibrary& ModuleLibrary::operator=(ModuleLibrary&& other) noexcept
{
    if (this != &other) {
        close();
        m_handle = std::exchange(other.m_handle, nullptr);
        m_module = std::exchange(other.m_module, nullptr);
        m_functions = std::exchange(other.m_functions, nullptr);
        m_loadedBy = other.m_loadedBy;
    }
    return *this;
}

bool ModuleLibrary::open(const char* path, std::string& error)
{
    close();
    dlerror(); // a stale message must not be mistaken for this attempt's
    m_handle = dlopen(path, RTLD_NOW);
    if (m_handle == nullptr) {
        const char* text = dlerror();
        error = text != nullptr ? text : "";
        return false;
    }
    m_loadedBy = getpid();
    return true;
}

void ModuleLibrary::close() noexcept
{
    m_module = m_functions = nullptr;
    if (m_handle != nullptr)
        dlclose(std::exchange(m_handle, nullptr));
}

CK_FUNCTION_LIST* ModuleLibrary::functions() const
{
    return forkedSinceOpen() ? nullptr : m_functions;
}

bool ModuleLibrary::forkedSinceOpen() const
{
    return m_handle != nullptr && m_loadedBy != getpid();
}

void* ModuleLibrary::symbol(const char* name) const
{
    return m_handle != nullptr ? dlsym(m_handle, name) : nullptr;
}

} // namespace p11client
