#pragma once
// Two W x H images side by side on a (2W + 8) x (H + 34) canvas with optional
// labels over each image and a footer line, written as a PNG. Used by the
// raster / path-traced parity check.
#include <cstdint>
#include <filesystem>
#include <stdexcept>
#include <string>
#include <vector>

namespace qv {

// A side-by-side image that could not be drawn; what() is the sentence.
class SideBySideError : public std::runtime_error {
public:
    using std::runtime_error::runtime_error;
};

class SideBySide {
public:
    // left, right: W x H x 4 RGBA bytes; an input of another size is skipped
    // (its half stays background). labels[0] goes over the left image,
    // labels[1] over the right. Throws SideBySideError or PNGWriteError.
    static void write(const std::vector<uint8_t>& left, const std::vector<uint8_t>& right, int64_t width,
                      int64_t height, const std::vector<std::string>& labels, const std::string& footer,
                      const std::filesystem::path& to);

    // The canvas as RGBA bytes, (2W + 8) x (H + 34), without writing it.
    static std::vector<uint8_t> compose(const std::vector<uint8_t>& left, const std::vector<uint8_t>& right,
                                        int64_t width, int64_t height, const std::vector<std::string>& labels,
                                        const std::string& footer);

    // Label size in pixels: H / 18 when H is above 503, else 14.
    static int labelSize(int64_t height) { return height > 503 ? int(height / 18) : 14; }

    // The bold sans-serif face the labels are drawn with, searched at run time.
    static std::filesystem::path fontPath();
};

} // namespace qv
