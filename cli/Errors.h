#pragma once

#include <stdexcept>
#include <string>

namespace p11cli {

constexpr int kExitSuccess = 0;
constexpr int kExitFailure = 1;
constexpr int kExitUsage = 2;

// A mistake in how the tool was called (exit status 2).
class UsageError : public std::runtime_error {
public:
    using std::runtime_error::runtime_error;
};

// An operation that did not succeed (exit status 1); the library's error
// lines have already been printed when the library was the one to fail.
class OperationFailed : public std::runtime_error {
public:
    using std::runtime_error::runtime_error;
};

} // namespace p11cli
