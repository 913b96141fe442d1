#include "FileSys.h"

#include "LogBase.h"

#include <cerrno>
#include <sys/stat.h>

namespace p11client {

bool FileSys::fileExistsUtf8(const char* path, LogBase* log, bool* unableToCheck)
{
    if (unableToCheck != nullptr)
        *unableToCheck = false;
    if (path == nullptr || *path == '\0')
        return false;
    struct stat st {};
    if (::stat(path, &st) != 0) {
        const bool missing = errno == ENOENT || errno == ENOTDIR;
        if (unableToCheck != nullptr)
            *unableToCheck = !missing;
        if (log != nullptr)
            log->LogInfo(missing ? "File does not exist." : "Unable to check whether the file exists.");
        return false;
    }
    if (S_ISREG(st.st_mode))
        return true;
    if (log != nullptr)
        log->LogInfo("Path is not a regular file.");
    return false;
}

} // namespace p11client
