#include "scene/BoundedFileRead.h"

#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace qv {

namespace {

std::string sizeLimitText(size_t maxBytes) {
    if (maxBytes % (1024 * 1024) == 0) return std::to_string(maxBytes / (1024 * 1024)) + " MB";
    return std::to_string(maxBytes) + " bytes";
}

// Closes the descriptor on every path out.
struct FileDescriptor {
    int fd;
    ~FileDescriptor() {
        if (fd >= 0) ::close(fd);
    }
};

} // namespace

std::string readFileBounded(const std::string& path, size_t maxBytes) {
    FileDescriptor file{::open(path.c_str(), O_RDONLY | O_CLOEXEC)};
    if (file.fd < 0) throw FileReadError(std::strerror(errno));
    struct stat info {};
    if (::fstat(file.fd, &info) != 0) throw FileReadError(std::strerror(errno));
    if (S_ISDIR(info.st_mode)) throw FileReadError(std::strerror(EISDIR));
    const std::string tooLarge = "the file is larger than " + sizeLimitText(maxBytes);
    if (S_ISREG(info.st_mode) && static_cast<unsigned long long>(info.st_size) > maxBytes) throw FileReadError(tooLarge);

    std::string bytes;
    if (S_ISREG(info.st_mode)) bytes.reserve(static_cast<size_t>(info.st_size));
    char buffer[65536];
    for (;;) {
        ssize_t n = ::read(file.fd, buffer, sizeof buffer);
        if (n < 0) {
            if (errno == EINTR) continue;
            throw FileReadError(std::strerror(errno));
        }
        if (n == 0) break;
        // The file may grow while it is read: the cap holds for what is read.
        if (bytes.size() + static_cast<size_t>(n) > maxBytes) throw FileReadError(tooLarge);
        bytes.append(buffer, static_cast<size_t>(n));
    }
    return bytes;
}

} // namespace qv
