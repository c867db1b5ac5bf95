#include "scene/GLBContainer.h"

#include "scene/GLBLoader.h"

#include <algorithm>
#include <bit>
#include <cstring>
#include <optional>
#include <string_view>

namespace qv::glb {
namespace {

constexpr uint32_t kMagic = 0x46546C67;     // "glTF"
constexpr uint32_t kChunkJSON = 0x4E4F534A; // "JSON"
constexpr uint32_t kChunkBIN = 0x004E4942;  // "BIN\0"

uint32_t readU32(std::span<const uint8_t> bytes, uint64_t offset) {
    uint32_t v;
    std::memcpy(&v, bytes.data() + offset, 4);
    return v; // little-endian hosts only (checked below)
}
static_assert(std::endian::native == std::endian::little, "the GLB reader assumes a little-endian host");

// nlohmann's messages start with "[json.exception.parse_error.101] "; the
// bracketed tag means nothing to a user.
std::string parserDiagnosis(const char* what) {
    std::string_view text(what);
    if (!text.empty() && text.front() == '[') {
        size_t close = text.find("] ");
        if (close != std::string_view::npos) text.remove_prefix(close + 2);
    }
    return std::string(text);
}

} // namespace

Container splitContainer(std::span<const uint8_t> bytes) {
    if (bytes.size() < 20 || readU32(bytes, 0) != kMagic || readU32(bytes, 4) != 2) throw GLBError::notGLB();

    const uint64_t fileSize = bytes.size();
    const uint64_t end = std::min<uint64_t>(fileSize, readU32(bytes, 8));
    std::optional<std::span<const uint8_t>> json;
    std::span<const uint8_t> bin;
    // Offsets are 64-bit and a chunk length is at most 2^32, so none of this overflows.
    for (uint64_t offset = 12; offset + 8 <= end;) {
        const uint64_t length = readU32(bytes, offset);
        const uint32_t type = readU32(bytes, offset + 4);
        if (offset + 8 + length > fileSize) throw GLBError::badChunk("chunk overruns file");
        auto payload = bytes.subspan(size_t(offset + 8), size_t(length));
        if (type == kChunkJSON) json = payload;
        else if (type == kChunkBIN) bin = payload;
        offset += 8 + ((length + 3) & ~uint64_t(3));
    }
    if (!json) throw GLBError::badChunk("no JSON chunk");

    Container out;
    try {
        out.document = nlohmann::json::parse(json->begin(), json->end());
    } catch (const nlohmann::json::exception& e) {
        throw GLBJSONError("the model's JSON chunk is not valid JSON: " + parserDiagnosis(e.what()));
    }
    if (!out.document.is_object()) throw GLBError::badChunk("no JSON chunk");
    out.bin = bin;
    return out;
}

} // namespace qv::glb
