#pragma once
// Reads a glTF 2.0 binary file (.glb) and flattens it into one LoadedModel:
// every node transform applied, triangles only, metallic-roughness materials
// with the emissive-strength, transmission and IOR extensions, embedded
// PNG/JPEG base-colour images.
#include "scene/LoadedModel.h"
#include "scene/LogSink.h"

#include <cstdint>
#include <span>
#include <stdexcept>
#include <string>

namespace qv {

// A malformed or unsupported model. what() is one sentence.
class GLBError : public std::runtime_error {
public:
    enum class Kind { badChunk, unsupported, missing, notGLB };

    static GLBError badChunk(const std::string& detail) { return {Kind::badChunk, "bad GLB chunk: " + detail}; }
    static GLBError unsupported(const std::string& feature) {
        return {Kind::unsupported, "unsupported glTF feature: " + feature};
    }
    static GLBError missing(const std::string& what) { return {Kind::missing, "missing glTF data: " + what}; }
    static GLBError notGLB() { return {Kind::notGLB, "file is not a binary glTF (.glb)"}; }

    Kind kind() const { return kind_; }

private:
    GLBError(Kind kind, const std::string& text) : std::runtime_error(text), kind_(kind) {}
    Kind kind_;
};

// The model file could not be read at all (missing, unreadable, not a file).
class GLBFileError : public std::runtime_error {
public:
    using std::runtime_error::runtime_error;
};

// The JSON chunk is not valid JSON; the text carries the parser's own diagnosis.
class GLBJSONError : public std::runtime_error {
public:
    using std::runtime_error::runtime_error;
};

// Ceilings that keep a hostile file from asking for unbounded memory or time.
// A well-formed house model stays far below them; going past one is a GLBError.
struct GLBLimits {
    int64_t maxVertices = int64_t(1) << 27;     // vertices appended over the whole model
    int64_t maxIndices = int64_t(3) << 27;      // index values read over the whole model
    int64_t maxNodeVisits = int64_t(1) << 22;   // node instances visited (shared subtrees count each time)
    int64_t maxImagePixels = int64_t(1) << 28;  // per image, before the 2048 downscale
    int64_t maxTextureBytes = int64_t(1) << 32; // decoded image bytes kept, and texture bytes, per model
};

class GLBLoader {
public:
    // Reads the whole file and builds the model. Throws GLBFileError, GLBJSONError
    // or GLBError. Skipped primitives and dropped triangles are reported as
    // "warning: ..." lines through `stderrLines` (standard error when empty);
    // texture, image and material problems land in LoadedModel::warnings.
    // Stateless: any thread may call it.
    static LoadedModel load(const std::string& path, const LogSink& stderrLines = {},
                            const GLBLimits& limits = {});

    // The same from bytes already in memory.
    static LoadedModel loadBytes(std::span<const uint8_t> bytes, const LogSink& stderrLines = {},
                                 const GLBLimits& limits = {});
};

} // namespace qv
