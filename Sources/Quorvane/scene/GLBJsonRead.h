#pragma once
// Forgiving readers for glTF JSON values: a value of the wrong type counts as
// absent, numbers of either JSON kind are accepted, and an "integer" is any
// number with an exact integer value in the 64-bit range.
#include <nlohmann/json.hpp>

#include <cfloat>
#include <cmath>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace qv::glb {

using Json = nlohmann::json;

inline const Json* member(const Json& object, const char* key) {
    if (!object.is_object()) return nullptr;
    auto it = object.find(key);
    return it == object.end() ? nullptr : &*it;
}

inline const Json* objectMember(const Json& object, const char* key) {
    const Json* v = member(object, key);
    return v && v->is_object() ? v : nullptr;
}

inline const Json* arrayMember(const Json& object, const char* key) {
    const Json* v = member(object, key);
    return v && v->is_array() ? v : nullptr;
}

inline std::optional<double> asNumber(const Json& v) {
    if (v.is_number_float()) return v.get<double>();
    if (v.is_number_unsigned()) return double(v.get<uint64_t>());
    if (v.is_number_integer()) return double(v.get<int64_t>());
    return std::nullopt;
}

inline std::optional<int64_t> asInteger(const Json& v) {
    if (v.is_number_unsigned()) {
        uint64_t u = v.get<uint64_t>();
        if (u > uint64_t(INT64_MAX)) return std::nullopt;
        return int64_t(u);
    }
    if (v.is_number_integer()) return v.get<int64_t>();
    if (v.is_number_float()) {
        double d = v.get<double>();
        // 2^63 itself is out of range; every double below it converts exactly.
        if (!std::isfinite(d) || d != std::floor(d) || d >= 9223372036854775808.0 || d < -9223372036854775808.0)
            return std::nullopt;
        return int64_t(d);
    }
    return std::nullopt;
}

inline std::optional<double> numberMember(const Json& object, const char* key) {
    const Json* v = member(object, key);
    return v ? asNumber(*v) : std::nullopt;
}

inline std::optional<int64_t> integerMember(const Json& object, const char* key) {
    const Json* v = member(object, key);
    return v ? asInteger(*v) : std::nullopt;
}

inline std::optional<std::string> stringMember(const Json& object, const char* key) {
    const Json* v = member(object, key);
    if (!v || !v->is_string()) return std::nullopt;
    return v->get<std::string>();
}

inline std::optional<bool> boolMember(const Json& object, const char* key) {
    const Json* v = member(object, key);
    if (!v || !v->is_boolean()) return std::nullopt;
    return v->get<bool>();
}

// An array all of whose elements are integers; anything else counts as absent.
inline std::optional<std::vector<int64_t>> integerArrayMember(const Json& object, const char* key) {
    const Json* v = arrayMember(object, key);
    if (!v) return std::nullopt;
    std::vector<int64_t> out;
    out.reserve(v->size());
    for (const Json& e : *v) {
        auto i = asInteger(e);
        if (!i) return std::nullopt;
        out.push_back(*i);
    }
    return out;
}

// A top-level array of the document read as an array of objects: a missing
// key, a value of another type or an array holding a non-object is empty.
inline const Json& topArray(const Json& doc, const char* key) {
    static const Json empty = Json::array();
    const Json* v = arrayMember(doc, key);
    if (!v) return empty;
    for (const Json& e : *v)
        if (!e.is_object()) return empty;
    return *v;
}

inline const Json& entryObject(const Json& array, int64_t index) {
    static const Json empty = Json::object();
    if (index < 0 || uint64_t(index) >= array.size()) return empty;
    const Json& e = array[size_t(index)];
    return e.is_object() ? e : empty;
}

inline bool indexes(const Json& array, int64_t index) { return index >= 0 && uint64_t(index) < array.size(); }

// double -> float without undefined behaviour: out-of-range values become +-inf.
inline float toFloat(double d) {
    if (std::isnan(d)) return NAN;
    if (d > double(FLT_MAX)) return d < double(FLT_MAX) * (1 + 1e-7) ? FLT_MAX : INFINITY;
    if (d < -double(FLT_MAX)) return d > -double(FLT_MAX) * (1 + 1e-7) ? -FLT_MAX : -INFINITY;
    return float(d);
}

inline std::string toString(int64_t i) { return std::to_string(i); }

} // namespace qv::glb
