#pragma once

// The frame of every benchmark tool: arguments as "--name value" pairs, and
// a failure printed as "tool: reason" with exit status 1.

#include <cstdio>
#include <exception>
#include <map>
#include <string>

namespace p11bench {

using Args = std::map<std::string, std::string>;

template <class Body>
int runTool(const char* tool, int argc, char** argv, Body body)
{
    try {
        Args args;
        for (int i = 1; i + 1 < argc; i += 2)
            args[argv[i]] = argv[i + 1];
        return body(args);
    } catch (const std::exception& e) {
        std::fprintf(stderr, "%s: %s\n", tool, e.what());
        return 1;
    }
}

} // namespace p11bench
