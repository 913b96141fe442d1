#pragma once

#include "DataBuffer.h"

#include <cstddef>
#include <string>

namespace p11cli {

// The whole of a file, or of stdin for "-"; more than maxSize bytes is an error.
p11client::DataBuffer readInput(const std::string& path, std::size_t maxSize, const std::string& what);
// A UsageError when binary output would go to a terminal.
void checkBinaryOutput(const std::string& path, const std::string& what);
// Writes the bytes to a file, or to stdout for "-" (not to a terminal:
// these are binary).
void writeOutput(const std::string& path, const p11client::DataBuffer& bytes, const std::string& what);

} // namespace p11cli
