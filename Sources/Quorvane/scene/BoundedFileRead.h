#pragma once
// Reading a whole user file into memory with a size cap, so that a huge or
// endless file (a device, a pipe) fails cleanly instead of exhausting memory.
#include <cstddef>
#include <stdexcept>
#include <string>

namespace qv {

// Why a file could not be read; what() is the system's description of the
// error ("No such file or directory") or the size limit that was exceeded.
class FileReadError : public std::runtime_error {
public:
    using std::runtime_error::runtime_error;
};

// The file's bytes. Throws FileReadError when it cannot be opened or read,
// is a directory, or holds more than maxBytes bytes.
std::string readFileBounded(const std::string& path, size_t maxBytes);

} // namespace qv
