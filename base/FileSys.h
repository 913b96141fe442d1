#pragma once

namespace p11client {

class LogBase;

class FileSys {
public:
    // Whether a regular file (or a link to one) exists at the UTF-8 path.
    // The log, when given, receives the reason for a false answer; the flag,
    // when given, is set when the answer could not be had at all.
    static bool fileExistsUtf8(const char* path, LogBase* log, bool* unableToCheck);
};

} // namespace p11client
