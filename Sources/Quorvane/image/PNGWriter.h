#pragma once
// PNG stills, written atomically: the image is encoded under a hidden
// temporary name in the destination's folder (".<base>.<pid>.tmp.png") and
// renamed into place, so a reader never sees a half-written file and a failed
// write leaves any earlier file at the destination untouched.
#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <functional>
#include <stdexcept>
#include <string>
#include <vector>

namespace qv {

// A failed PNG write; what() is the sentence. code: 1 no image, 2 cannot
// open, 3 encode failed, 4 cannot move into place, 5 folder not created.
class PNGWriteError : public std::runtime_error {
public:
    PNGWriteError(int code, const std::string& message) : std::runtime_error(message), code_(code) {}
    int code() const { return code_; }
    static constexpr const char* domain = "PNGWriter";

private:
    int code_;
};

class PNGWriter {
public:
    // rgba: width x height x 4 bytes, row-major, top row first; alpha is
    // ignored (the file is 8-bit RGB). On failure the temporary file is
    // removed and nothing at the destination changes.
    static void write(const std::vector<uint8_t>& rgba, int64_t width, int64_t height,
                      const std::filesystem::path& to);

    // The hidden temporary name used for a destination by this process.
    static std::filesystem::path temporaryPath(const std::filesystem::path& to);

    // Test seam: called with the byte count written so far before every chunk
    // of encoded output; returning false fails the encode as a full disk would.
    using WriteProbe = std::function<bool(size_t bytesWritten)>;
    static void writeWithProbe(const std::vector<uint8_t>& rgba, int64_t width, int64_t height,
                               const std::filesystem::path& to, const WriteProbe& probe);
};

// Checks an --out path before any rendering starts: a .png name (extension
// compared lower-cased), a folder that exists or can be created and is
// writable, and no folder or read-only file already at the path. Throws
// CLIError with the sentence to print after "error: ".
std::filesystem::path preflightOutput(const std::string& path);

} // namespace qv
