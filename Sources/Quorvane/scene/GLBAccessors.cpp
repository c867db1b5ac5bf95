#include "scene/GLBAccessors.h"

#include "scene/GLBLoader.h"

#include <algorithm>

namespace qv::glb {
namespace {

int componentsOf(const std::string& type) {
    if (type == "SCALAR") return 1;
    if (type == "VEC2") return 2;
    if (type == "VEC3") return 3;
    if (type == "VEC4") return 4;
    if (type == "MAT4") return 16;
    return 1;
}

int sizeOf(int64_t componentType) {
    switch (componentType) {
    case kByte:
    case kUnsignedByte: return 1;
    case kShort:
    case kUnsignedShort: return 2;
    default: return 4;
    }
}

bool isKnownType(int64_t t) {
    return t == kByte || t == kUnsignedByte || t == kShort || t == kUnsignedShort || t == kUnsignedInt || t == kFloat;
}

// A count no file could back with data; zero-filled accessors are clamped to it
// so that count x components never overflows (the model-size limits then refuse them).
constexpr int64_t kCountCeiling = int64_t(1) << 58;

} // namespace

Accessor openAccessor(const Document& doc, int64_t index) {
    if (!indexes(doc.accessors, index)) throw GLBError::missing("accessor " + toString(index));
    const Json& a = doc.accessors[size_t(index)];
    if (member(a, "sparse")) throw GLBError::unsupported("sparse accessors");

    Accessor acc;
    acc.count = std::clamp<int64_t>(integerMember(a, "count").value_or(0), 0, kCountCeiling);
    const int64_t type = integerMember(a, "componentType").value_or(kFloat);
    acc.componentType = isKnownType(type) ? int(type) : 0;
    acc.components = componentsOf(stringMember(a, "type").value_or("SCALAR"));
    acc.normalized = boolMember(a, "normalized").value_or(false);
    acc.componentSize = sizeOf(type);
    acc.stride = int64_t(acc.componentSize) * acc.components;

    auto viewIndex = integerMember(a, "bufferView");
    if (!viewIndex || !indexes(doc.bufferViews, *viewIndex)) return acc; // zeros
    const Json& view = doc.bufferViews[size_t(*viewIndex)];
    if (integerMember(view, "buffer").value_or(0) != 0) throw GLBError::unsupported("external buffers");

    // A stride below one byte is not a layout; such views read tightly packed.
    if (auto s = integerMember(view, "byteStride"); s && *s >= 1) acc.stride = *s;
    const int64_t viewOffset = integerMember(view, "byteOffset").value_or(0);
    const int64_t accessorOffset = integerMember(a, "byteOffset").value_or(0);

    int64_t start = 0, end = 0;
    if (acc.count > 0) {
        // end = start + stride x (count - 1) + size x components, all checked.
        const int64_t bin = int64_t(doc.bin.size());
        int64_t span = 0;
        bool bad = __builtin_add_overflow(viewOffset, accessorOffset, &start) || start < 0 ||
                   __builtin_mul_overflow(acc.stride, acc.count - 1, &span) ||
                   __builtin_add_overflow(start, span, &end) ||
                   __builtin_add_overflow(end, int64_t(acc.componentSize) * acc.components, &end) || end > bin;
        if (bad) throw GLBError::badChunk("accessor " + toString(index) + " overruns BIN chunk");
        if (!isKnownType(type)) throw GLBError::unsupported("componentType " + toString(type));
        acc.data = doc.bin.data() + start;
    } else {
        // No elements: nothing to read, nothing to zero-fill.
        acc.data = doc.bin.data();
        acc.componentType = isKnownType(type) ? int(type) : kFloat;
    }
    return acc;
}

} // namespace qv::glb
