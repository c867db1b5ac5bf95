#pragma once
// A small glTF 2.0 binary writer for tests and benchmarks: build the JSON
// document and BIN chunk piece by piece, then take the .glb bytes. It writes
// what it is told, including malformed files (raw chunks, wrong headers).
#include "shaders/VecMath.h"

#include <nlohmann/json.hpp>

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <initializer_list>
#include <optional>
#include <string>
#include <vector>

namespace qv::test {

inline constexpr uint32_t kGLBMagic = 0x46546C67;
inline constexpr uint32_t kChunkJSON = 0x4E4F534A;
inline constexpr uint32_t kChunkBIN = 0x004E4942;

struct GLBChunk {
    uint32_t type = kChunkJSON;
    std::vector<uint8_t> payload;
    std::optional<uint32_t> declaredLength; // written instead of the payload size when set
};

inline void appendU32(std::vector<uint8_t>& out, uint32_t v) {
    for (int i = 0; i < 4; ++i) out.push_back(uint8_t(v >> (8 * i)));
}

inline std::vector<uint8_t> bytesOf(const std::string& s) { return {s.begin(), s.end()}; }

// A container of raw chunks; each payload is padded to 4 bytes (JSON with
// spaces, anything else with zeros) unless it carries a forged length.
inline std::vector<uint8_t> assembleGLB(const std::vector<GLBChunk>& chunks, uint32_t version = 2,
                                        std::optional<uint32_t> declaredTotal = std::nullopt,
                                        uint32_t magic = kGLBMagic) {
    std::vector<uint8_t> out;
    appendU32(out, magic);
    appendU32(out, version);
    appendU32(out, 0); // total, patched below
    for (const GLBChunk& c : chunks) {
        std::vector<uint8_t> payload = c.payload;
        if (!c.declaredLength)
            while (payload.size() % 4) payload.push_back(c.type == kChunkJSON ? ' ' : 0);
        appendU32(out, c.declaredLength.value_or(uint32_t(payload.size())));
        appendU32(out, c.type);
        out.insert(out.end(), payload.begin(), payload.end());
    }
    const uint32_t total = declaredTotal.value_or(uint32_t(out.size()));
    std::memcpy(out.data() + 8, &total, 4);
    return out;
}

// PNG bytes of an RGBA8 image. The zlib stream uses stored (uncompressed)
// blocks: larger files, but encoding costs no more than a copy and a CRC, which
// keeps tests with big images fast.
inline std::vector<uint8_t> encodePNG(int width, int height, const std::vector<uint8_t>& rgba) {
    static const auto crcTable = [] {
        std::vector<uint32_t> t(256);
        for (uint32_t n = 0; n < 256; ++n) {
            uint32_t c = n;
            for (int k = 0; k < 8; ++k) c = (c & 1) ? 0xEDB88320u ^ (c >> 1) : c >> 1;
            t[n] = c;
        }
        return t;
    }();
    auto be32 = [](std::vector<uint8_t>& o, uint32_t v) {
        for (int i = 3; i >= 0; --i) o.push_back(uint8_t(v >> (8 * i)));
    };
    std::vector<uint8_t> out = {0x89, 'P', 'N', 'G', '\r', '\n', 0x1A, '\n'};
    auto chunk = [&](const char* type, const std::vector<uint8_t>& data) {
        be32(out, uint32_t(data.size()));
        const size_t start = out.size();
        out.insert(out.end(), type, type + 4);
        out.insert(out.end(), data.begin(), data.end());
        uint32_t c = 0xFFFFFFFFu;
        for (size_t i = start; i < out.size(); ++i) c = crcTable[(c ^ out[i]) & 0xFF] ^ (c >> 8);
        be32(out, c ^ 0xFFFFFFFFu);
    };
    std::vector<uint8_t> header;
    be32(header, uint32_t(width));
    be32(header, uint32_t(height));
    header.insert(header.end(), {8, 6, 0, 0, 0}); // 8-bit RGBA, no interlace
    chunk("IHDR", header);

    std::vector<uint8_t> raw;
    raw.reserve(size_t(height) * (size_t(width) * 4 + 1));
    for (int y = 0; y < height; ++y) {
        raw.push_back(0); // filter: none
        const auto row = rgba.begin() + std::ptrdiff_t(size_t(y) * size_t(width) * 4);
        raw.insert(raw.end(), row, row + std::ptrdiff_t(size_t(width) * 4));
    }
    std::vector<uint8_t> z = {0x78, 0x01};
    for (size_t pos = 0; pos < raw.size() || pos == 0;) {
        const size_t n = std::min<size_t>(65535, raw.size() - pos);
        const bool last = pos + n == raw.size();
        z.push_back(last ? 1 : 0);
        z.insert(z.end(), {uint8_t(n), uint8_t(n >> 8), uint8_t(~n), uint8_t(~n >> 8)});
        z.insert(z.end(), raw.begin() + std::ptrdiff_t(pos), raw.begin() + std::ptrdiff_t(pos + n));
        pos += n;
        if (last) break;
    }
    uint32_t a = 1, b = 0;
    for (size_t pos = 0; pos < raw.size();) {
        const size_t end = std::min(raw.size(), pos + 5552); // the most bytes before b can overflow
        for (; pos < end; ++pos) {
            a += raw[pos];
            b += a;
        }
        a %= 65521;
        b %= 65521;
    }
    be32(z, (b << 16) | a);
    chunk("IDAT", z);
    chunk("IEND", {});
    return out;
}

inline std::vector<uint8_t> solidRGBA(int width, int height, uint8_t r, uint8_t g, uint8_t b, uint8_t a = 255) {
    std::vector<uint8_t> px(size_t(width) * size_t(height) * 4);
    for (size_t i = 0; i < px.size(); i += 4) {
        px[i] = r;
        px[i + 1] = g;
        px[i + 2] = b;
        px[i + 3] = a;
    }
    return px;
}

class GLBWriter {
public:
    using Json = nlohmann::json;

    Json json = Json{{"asset", {{"version", "2.0"}, {"generator", "Quorvane test writer"}}}};
    std::vector<uint8_t> bin;

    // Appends bytes to BIN (4-byte aligned) and a buffer view over them.
    int addView(const void* data, size_t size, int stride = 0) {
        while (bin.size() % 4) bin.push_back(0);
        Json view = {{"buffer", 0}, {"byteOffset", bin.size()}, {"byteLength", size}};
        if (stride > 0) view["byteStride"] = stride;
        const auto* p = static_cast<const uint8_t*>(data);
        bin.insert(bin.end(), p, p + size);
        return push("bufferViews", view);
    }

    int addAccessor(int view, int componentType, int64_t count, const char* type, bool normalized = false,
                    int64_t byteOffset = 0) {
        Json a = {{"componentType", componentType}, {"count", count}, {"type", type}};
        if (view >= 0) a["bufferView"] = view;
        if (normalized) a["normalized"] = true;
        if (byteOffset) a["byteOffset"] = byteOffset;
        return push("accessors", a);
    }

    int addFloats(const std::vector<float>& values, const char* type, int components) {
        const int view = addView(values.data(), values.size() * sizeof(float));
        return addAccessor(view, 5126, int64_t(values.size()) / components, type);
    }

    int addPositions(const std::vector<float3>& p) {
        std::vector<float> flat;
        for (const float3& v : p) flat.insert(flat.end(), {v.x, v.y, v.z});
        return addFloats(flat, "VEC3", 3);
    }
    int addNormals(const std::vector<float3>& n) { return addPositions(n); }
    int addUVs(const std::vector<float2>& uv) {
        std::vector<float> flat;
        for (const float2& v : uv) flat.insert(flat.end(), {v.x, v.y});
        return addFloats(flat, "VEC2", 2);
    }

    int addIndices(const std::vector<uint32_t>& indices) {
        const int view = addView(indices.data(), indices.size() * 4);
        return addAccessor(view, 5125, int64_t(indices.size()), "SCALAR");
    }
    int addIndices16(const std::vector<uint16_t>& indices) {
        const int view = addView(indices.data(), indices.size() * 2);
        return addAccessor(view, 5123, int64_t(indices.size()), "SCALAR");
    }

    // A triangle primitive; pass -1 to leave indices or material out.
    static Json primitive(int positions, int indices = -1, int material = -1) {
        Json p = {{"attributes", {{"POSITION", positions}}}};
        if (indices >= 0) p["indices"] = indices;
        if (material >= 0) p["material"] = material;
        return p;
    }

    int addMesh(std::initializer_list<Json> primitives, Json extras = nullptr) {
        Json mesh = {{"primitives", Json::array()}};
        for (const Json& p : primitives) mesh["primitives"].push_back(p);
        if (!extras.is_null()) mesh["extras"] = extras;
        return push("meshes", mesh);
    }
    int addMesh(const Json& mesh) { return push("meshes", mesh); }

    int addNode(const Json& node) { return push("nodes", node); }
    int addMaterial(const Json& material) { return push("materials", material); }
    int addSampler(const Json& sampler) { return push("samplers", sampler); }
    int addTexture(const Json& texture) { return push("textures", texture); }

    // An image stored in BIN.
    int addImage(const std::vector<uint8_t>& bytes, const char* mimeType = "image/png", const char* name = nullptr) {
        const int view = addView(bytes.data(), bytes.size());
        Json image = {{"bufferView", view}, {"mimeType", mimeType}};
        if (name) image["name"] = name;
        return push("images", image);
    }

    void setScene(const std::vector<int>& roots) {
        json["scenes"] = Json::array({Json{{"nodes", roots}}});
        json["scene"] = 0;
    }

    // The .glb bytes: JSON chunk, then BIN when there is any data.
    std::vector<uint8_t> bytes() const {
        Json doc = json;
        std::vector<GLBChunk> chunks{{kChunkJSON, bytesOf(doc.dump()), {}}};
        if (!bin.empty()) {
            doc["buffers"] = Json::array({Json{{"byteLength", bin.size()}}});
            chunks[0].payload = bytesOf(doc.dump());
            chunks.push_back({kChunkBIN, bin, {}});
        }
        return assembleGLB(chunks);
    }

    void writeTo(const std::filesystem::path& path) const {
        const std::vector<uint8_t> b = bytes();
        std::ofstream out(path, std::ios::binary);
        out.write(reinterpret_cast<const char*>(b.data()), std::streamsize(b.size()));
    }

private:
    int push(const char* key, const Json& value) {
        if (!json.contains(key)) json[key] = Json::array();
        json[key].push_back(value);
        return int(json[key].size()) - 1;
    }
};

} // namespace qv::test
