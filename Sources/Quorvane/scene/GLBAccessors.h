#pragma once
// Typed views of glTF accessors over the BIN chunk. Values are read in place,
// element by element, component by component, so an accessor never costs
// memory of its own.
#include "scene/GLBDocument.h"

#include <algorithm>
#include <cstdint>
#include <cstring>

namespace qv::glb {

enum ComponentType : int {
    kByte = 5120,
    kUnsignedByte = 5121,
    kShort = 5122,
    kUnsignedShort = 5123,
    kUnsignedInt = 5125,
    kFloat = 5126,
};

// One accessor, checked against the BIN chunk. Values are addressed by a flat
// index k in [0, valueCount()): element k / components, component k % components.
struct Accessor {
    const uint8_t* data = nullptr; // nullptr: no buffer view, every value is zero
    int64_t count = 0;             // elements
    int components = 1;
    int componentType = kFloat;
    int componentSize = 4;
    int64_t stride = 4;            // bytes between elements
    bool normalized = false;

    int64_t valueCount() const { return count * components; }

    // Whether the accessor yields float values: float data, normalised integers,
    // or the zeros of an accessor without data.
    bool hasFloats() const { return !data || componentType == kFloat || normalized; }
    // Whether it yields unsigned values: integer data other than normalised
    // signed data, or zeros.
    bool hasUnsigned() const {
        return !data || (componentType != kFloat && !(normalized && (componentType == kByte || componentType == kShort)));
    }

    float floatAt(int64_t k) const {
        if (!data) return 0.0f;
        const uint8_t* p = address(k);
        switch (componentType) {
        case kFloat: return load<float>(p);
        case kByte: return std::max(float(load<int8_t>(p)) / 127.0f, -1.0f);
        case kShort: return std::max(float(load<int16_t>(p)) / 32767.0f, -1.0f);
        case kUnsignedByte: return float(load<uint8_t>(p)) / 255.0f;
        case kUnsignedShort: return float(load<uint16_t>(p)) / 65535.0f;
        default: return float(load<uint32_t>(p)) / 65535.0f;
        }
    }

    uint32_t unsignedAt(int64_t k) const {
        if (!data) return 0;
        const uint8_t* p = address(k);
        switch (componentType) {
        case kByte: return uint32_t(int32_t(load<int8_t>(p)));
        case kShort: return uint32_t(int32_t(load<int16_t>(p)));
        case kUnsignedByte: return load<uint8_t>(p);
        case kUnsignedShort: return load<uint16_t>(p);
        default: return load<uint32_t>(p);
        }
    }

private:
    const uint8_t* address(int64_t k) const {
        return data + (k / components) * stride + (k % components) * componentSize;
    }
    template <class T>
    static T load(const uint8_t* p) {
        T v;
        std::memcpy(&v, p, sizeof(T));
        return v;
    }
};

// Opens accessor `index`. Throws GLBError: missing("accessor N") when it does
// not exist, unsupported("sparse accessors"), unsupported("external buffers"),
// badChunk("accessor N overruns BIN chunk"), unsupported("componentType T").
Accessor openAccessor(const Document& doc, int64_t index);

} // namespace qv::glb
