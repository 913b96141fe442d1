#pragma once

#include <map>
#include <string>
#include <vector>

namespace p11test {

// What a run of a program left: its exit status and everything it wrote.
struct ProcessResult {
    int exitCode = -1; // 128 + the signal when one ended it
    std::string out;
    std::string err;

    // stdout and stderr together, for checks that care about neither in particular.
    std::string all() const { return out + err; }
};

// Runs a program (argv[0] is its path) with stdin fed from `input`, the
// environment of this process minus every P11CLIENT_* variable, plus `env`.
ProcessResult runProcess(const std::vector<std::string>& argv, const std::map<std::string, std::string>& env = {},
                         const std::string& input = {});

} // namespace p11test
