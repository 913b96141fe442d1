#include "Files.h"

#include "Errors.h"

#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <memory>

namespace p11cli {

namespace {

struct FileCloser {
    void operator()(std::FILE* f) const { std::fclose(f); }
};
using FilePtr = std::unique_ptr<std::FILE, FileCloser>;

std::string reason()
{
    return std::strerror(errno);
}

} // namespace

p11client::DataBuffer readInput(const std::string& path, std::size_t maxSize, const std::string& what)
{
    FilePtr owned;
    std::FILE* in = stdin;
    if (path != "-") {
        owned.reset(std::fopen(path.c_str(), "rb"));
        if (!owned)
            throw OperationFailed("cannot read the " + what + " " + path + ": " + reason());
        in = owned.get();
    }
    p11client::DataBuffer data;
    std::array<unsigned char, 64 * 1024> chunk {};
    std::size_t n = 0;
    while ((n = std::fread(chunk.data(), 1, chunk.size(), in)) > 0) {
        if (data.getSize() + n > maxSize)
            throw OperationFailed("the " + what + " is larger than " + std::to_string(maxSize) + " bytes");
        data.append(chunk.data(), n);
    }
    if (std::ferror(in) != 0)
        throw OperationFailed("cannot read the " + what + ": " + reason());
    return data;
}

void checkBinaryOutput(const std::string& path, const std::string& what)
{
    if (path == "-" && ::isatty(STDOUT_FILENO) == 1)
        throw UsageError("the " + what + " is binary: give --out FILE, redirect stdout, or use --json");
}

void writeOutput(const std::string& path, const p11client::DataBuffer& bytes, const std::string& what)
{
    checkBinaryOutput(path, what);
    if (path == "-") {
        if (std::fwrite(bytes.getData(), 1, bytes.getSize(), stdout) != bytes.getSize() || std::fflush(stdout) != 0)
            throw OperationFailed("cannot write the " + what + ": " + reason());
        return;
    }
    FilePtr out(std::fopen(path.c_str(), "wb"));
    if (!out || std::fwrite(bytes.getData(), 1, bytes.getSize(), out.get()) != bytes.getSize()
        || std::fclose(out.release()) != 0)
        throw OperationFailed("cannot write the " + what + " to " + path + ": " + reason());
}

} // namespace p11cli
