#pragma once
// The binary glTF container: a 12-byte header, then chunks of (length, type,
// payload padded to 4 bytes). Only the JSON and BIN chunks matter.
#include <nlohmann/json.hpp>

#include <cstdint>
#include <span>
#include <string>

namespace qv::glb {

struct Container {
    nlohmann::json document;           // the JSON chunk, always an object
    std::span<const uint8_t> bin;      // the BIN chunk; empty when there is none
};

// Splits the container and parses its JSON. Throws GLBError for a bad header
// or chunk and GLBJSONError for a JSON syntax error. `bytes` must outlive the
// returned BIN span.
Container splitContainer(std::span<const uint8_t> bytes);

} // namespace qv::glb
