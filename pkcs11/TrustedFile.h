#pragma once

#include <string>

namespace p11client {

// Whether the file `name` in the working directory is one that only this
// process's user (or root) could have put there or changed: the directory
// and the file, which must not be a link, are owned by the effective user or
// root, and neither group nor others may write to them. When not, why says
// which of the two and why, e.g. "/home/u/lib.so is writable by others.".
bool workingDirectoryFileTrusted(const char* name, std::string& why);

} // namespace p11client
