#include "TrustedFile.h"

#include <sys/stat.h>
#include <unistd.h>

#include <cstdlib>
#include <memory>

namespace p11client {

namespace {

// Why the owner or mode of a file lets another user change it, or null.
const char* distrust(const struct stat& st)
{
    if (st.st_uid != ::geteuid() && st.st_uid != 0)
        return " is owned by another user.";
    if ((st.st_mode & (S_IWGRP | S_IWOTH)) != 0)
        return " is writable by others.";
    return nullptr;
}

} // namespace

bool workingDirectoryFileTrusted(const char* name, std::string& why)
{
    const std::unique_ptr<char, decltype(&std::free)> cwd(::getcwd(nullptr, 0), &std::free);
    const std::string dir = cwd ? cwd.get() : ".", path = dir + "/" + name;
    struct stat st {};
    // The directory first: whoever may write to it can swap the file.
    if (::stat(".", &st) != 0)
        why = dir + " cannot be examined.";
    else if (const char* reason = distrust(st))
        why = dir + reason;
    else if (::lstat(name, &st) != 0)
        why = path + " cannot be examined.";
    else if (S_ISLNK(st.st_mode))
        why = path + " is a symbolic link.";
    else if (!S_ISREG(st.st_mode))
        why = path + " is not a regular file.";
    else if (const char* fileReason = distrust(st))
        why = path + fileReason;
    else
        return true;
    return false;
}

} // namespace p11client
