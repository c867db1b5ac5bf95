#include "image/PNGWriter.h"

#include "cli/CLIOptions.h"

#include <png.h>
#include <unistd.h>

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <csetjmp>
#include <cstdio>
#include <cstring>
#include <system_error>

namespace qv {

namespace fs = std::filesystem;

namespace {

struct EncodeSink {
    FILE* file = nullptr;
    size_t written = 0;
    const PNGWriter::WriteProbe* probe = nullptr;
    bool failed = false;
};

void sinkWrite(png_structp png, png_bytep data, png_size_t length) {
    auto* sink = static_cast<EncodeSink*>(png_get_io_ptr(png));
    if ((sink->probe && *sink->probe && !(*sink->probe)(sink->written)) ||
        std::fwrite(data, 1, length, sink->file) != length) {
        sink->failed = true;
        png_error(png, "write failed");
    }
    sink->written += length;
}

void sinkFlush(png_structp png) {
    auto* sink = static_cast<EncodeSink*>(png_get_io_ptr(png));
    if (std::fflush(sink->file) != 0) {
        sink->failed = true;
        png_error(png, "flush failed");
    }
}

void quietWarning(png_structp, png_const_charp) {}

// Encodes 8-bit RGB from RGBA rows. Only trivially destructible locals live
// between setjmp and the calls that may longjmp back.
bool encodeRGB(EncodeSink* sink, const uint8_t* rgba, png_uint_32 width, png_uint_32 height, png_bytep* rows) {
    png_structp png = png_create_write_struct(PNG_LIBPNG_VER_STRING, nullptr, nullptr, quietWarning);
    if (!png) return false;
    png_infop info = png_create_info_struct(png);
    if (!info) {
        png_destroy_write_struct(&png, nullptr);
        return false;
    }
    if (setjmp(png_jmpbuf(png))) {
        png_destroy_write_struct(&png, &info);
        return false;
    }
    png_set_write_fn(png, sink, sinkWrite, sinkFlush);
    png_set_IHDR(png, info, width, height, 8, PNG_COLOR_TYPE_RGB, PNG_INTERLACE_NONE, PNG_COMPRESSION_TYPE_DEFAULT,
                 PNG_FILTER_TYPE_DEFAULT);
    png_set_sRGB_gAMA_and_cHRM(png, info, PNG_sRGB_INTENT_PERCEPTUAL);
    png_set_compression_level(png, 6);
    png_write_info(png, info);
    png_set_filler(png, 0, PNG_FILLER_AFTER); // rows arrive as RGBA; the fourth byte is dropped
    for (png_uint_32 y = 0; y < height; ++y) rows[y] = const_cast<png_bytep>(rgba + size_t(y) * width * 4);
    png_write_image(png, rows);
    png_write_end(png, info);
    png_destroy_write_struct(&png, &info);
    return true;
}

} // namespace

fs::path PNGWriter::temporaryPath(const fs::path& to) {
    std::string name = "." + to.stem().string() + "." + std::to_string(::getpid()) + ".tmp.png";
    return to.parent_path() / name;
}

void PNGWriter::write(const std::vector<uint8_t>& rgba, int64_t width, int64_t height, const fs::path& to) {
    writeWithProbe(rgba, width, height, to, WriteProbe());
}

void PNGWriter::writeWithProbe(const std::vector<uint8_t>& rgba, int64_t width, int64_t height, const fs::path& to,
                               const WriteProbe& probe) {
    if (width <= 0 || height <= 0 || width > 0x7fffffff || height > 0x7fffffff ||
        rgba.size() != size_t(width) * size_t(height) * 4)
        throw PNGWriteError(1, "could not create CGImage");

    fs::path folder = to.parent_path();
    if (!folder.empty()) {
        std::error_code ec;
        fs::create_directories(folder, ec);
        if (ec) throw PNGWriteError(5, "could not create the folder " + folder.string() + ": " + ec.message());
    }

    fs::path tmp = temporaryPath(to);
    FILE* file = std::fopen(tmp.c_str(), "wb");
    if (!file) throw PNGWriteError(2, "could not open " + tmp.string() + " for writing");

    EncodeSink sink;
    sink.file = file;
    sink.probe = &probe;
    std::vector<png_bytep> rows(static_cast<size_t>(height));
    bool ok = encodeRGB(&sink, rgba.data(), png_uint_32(width), png_uint_32(height), rows.data());
    ok = std::fclose(file) == 0 && ok;
    if (!ok) {
        std::remove(tmp.c_str());
        throw PNGWriteError(3, "PNG encode failed (" + to.string() + ")");
    }
    if (std::rename(tmp.c_str(), to.c_str()) != 0) {
        int err = errno;
        std::remove(tmp.c_str());
        throw PNGWriteError(4, "could not move the PNG into place at " + to.string() + ": " + std::strerror(err));
    }
}

fs::path preflightOutput(const std::string& path) {
    fs::path out(path);
    std::string ext = out.extension().string();
    if (!ext.empty() && ext.front() == '.') ext.erase(0, 1);
    std::transform(ext.begin(), ext.end(), ext.begin(), [](unsigned char c) { return char(std::tolower(c)); });
    if (ext != "png")
        throw CLIError("--out must be a .png file (got '" + out.filename().string() +
                       "'); only PNG output is supported");

    fs::path folder = out.parent_path();
    if (folder.empty()) folder = ".";
    std::error_code ec;
    fs::create_directories(folder, ec);
    if (ec) throw CLIError("cannot create the output folder " + folder.string() + ": " + ec.message());
    if (::access(folder.c_str(), W_OK) != 0) throw CLIError("the output folder is not writable: " + folder.string());

    fs::file_status status = fs::status(out, ec);
    if (fs::is_directory(status)) throw CLIError("--out is a folder: " + path);
    if (fs::exists(status) && ::access(out.c_str(), W_OK) != 0)
        throw CLIError("the output file is not writable: " + path);
    return out;
}

} // namespace qv
