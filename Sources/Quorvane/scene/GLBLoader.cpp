#include "scene/GLBLoader.h"

#include "scene/GLBAccessors.h"
#include "scene/GLBContainer.h"
#include "scene/GLBDocument.h"
#include "scene/GLBImages.h"
#include "scene/GLBMaterials.h"

#include <array>
#include <cerrno>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <limits>
#include <string>
#include <unordered_map>
#include <vector>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace qv {
namespace {

using glb::Accessor;
using glb::Document;
using glb::Json;

// A column-major 4 x 4 matrix, m[column * 4 + row], in double precision so that
// deep hierarchies do not accumulate single-precision error.
struct Mat4 {
    std::array<double, 16> m{1, 0, 0, 0, 0, 1, 0, 0, 0, 0, 1, 0, 0, 0, 0, 1};
    double operator()(int row, int col) const { return m[size_t(col * 4 + row)]; }
    double& operator()(int row, int col) { return m[size_t(col * 4 + row)]; }
};

Mat4 operator*(const Mat4& a, const Mat4& b) {
    Mat4 r;
    for (int c = 0; c < 4; ++c)
        for (int row = 0; row < 4; ++row) {
            double s = 0;
            for (int k = 0; k < 4; ++k) s += a(row, k) * b(k, c);
            r(row, c) = s;
        }
    return r;
}

// Reads exactly n numbers; nothing when the array is absent, of another length
// or holds a non-number.
template <size_t N>
std::optional<std::array<double, N>> numberArray(const Json& object, const char* key) {
    const Json* a = glb::arrayMember(object, key);
    if (!a || a->size() != N) return std::nullopt;
    std::array<double, N> out{};
    for (size_t i = 0; i < N; ++i) {
        auto v = glb::asNumber((*a)[i]);
        if (!v) return std::nullopt;
        out[i] = *v;
    }
    return out;
}

// The node's local matrix: `matrix` (16 elements, column-major, a non-number
// reads 0), else T x R x S.
Mat4 localMatrix(const Json& node) {
    Mat4 local;
    if (const Json* a = glb::arrayMember(node, "matrix"); a && a->size() == 16) {
        for (size_t i = 0; i < 16; ++i) local.m[i] = glb::asNumber((*a)[i]).value_or(0.0);
        return local;
    }
    const auto t = numberArray<3>(node, "translation").value_or(std::array<double, 3>{0, 0, 0});
    auto q = numberArray<4>(node, "rotation").value_or(std::array<double, 4>{0, 0, 0, 1});
    const auto s = numberArray<3>(node, "scale").value_or(std::array<double, 3>{1, 1, 1});
    // Exporters write quaternions rounded to a few digits; normalising keeps the
    // rotation rigid. A zero or overflowing quaternion means no rotation.
    const double len = std::sqrt(q[0] * q[0] + q[1] * q[1] + q[2] * q[2] + q[3] * q[3]);
    if (std::isfinite(len) && len > 0) {
        for (double& c : q) c /= len;
    } else {
        q = {0, 0, 0, 1};
    }
    const double x = q[0], y = q[1], z = q[2], w = q[3];
    const double r[3][3] = {
        {1 - 2 * (y * y + z * z), 2 * (x * y - z * w), 2 * (x * z + y * w)},
        {2 * (x * y + z * w), 1 - 2 * (x * x + z * z), 2 * (y * z - x * w)},
        {2 * (x * z - y * w), 2 * (y * z + x * w), 1 - 2 * (x * x + y * y)},
    };
    for (int row = 0; row < 3; ++row) {
        for (int col = 0; col < 3; ++col) local(row, col) = r[row][col] * s[size_t(col)];
        local(row, 3) = t[size_t(row)];
    }
    return local;
}

std::string lowerASCII(std::string s) {
    for (char& c : s)
        if (c >= 'A' && c <= 'Z') c = char(c - 'A' + 'a');
    return s;
}

std::string extrasRole(const Json& object) {
    const Json* extras = glb::objectMember(object, "extras");
    if (!extras) return {};
    return lowerASCII(glb::stringMember(*extras, "role").value_or(""));
}

constexpr float kMaxCoordinate = 100000.0f; // 100 km: anything farther is a broken vertex

class ModelBuilder {
public:
    ModelBuilder(const Document& doc, LoadedModel& model, const GLBLimits& limits, const LogSink& stderrLines)
        : doc_(doc), model_(model), limits_(limits), stderrLines_(stderrLines),
          defaultMaterial_(uint32_t(model.materials.size() - 1)) {}

    void traverse() {
        const int64_t sceneIndex = glb::integerMember(doc_.json, "scene").value_or(0);
        const Mat4 identity;
        if (glb::indexes(doc_.scenes, sceneIndex)) {
            if (auto roots = glb::integerArrayMember(doc_.scenes[size_t(sceneIndex)], "nodes")) {
                for (int64_t root : *roots) visit(root, identity, 0, {});
                return;
            }
        }
        if (!doc_.nodes.empty()) {
            std::vector<bool> isChild(doc_.nodes.size(), false);
            for (const Json& node : doc_.nodes)
                if (auto children = glb::integerArrayMember(node, "children"))
                    for (int64_t c : *children)
                        if (glb::indexes(doc_.nodes, c)) isChild[size_t(c)] = true;
            for (size_t i = 0; i < doc_.nodes.size(); ++i)
                if (!isChild[i]) visit(int64_t(i), identity, 0, {});
            return;
        }
        for (size_t i = 0; i < doc_.meshes.size(); ++i) appendMesh(int64_t(i), identity, {});
    }

    void finish() {
        if (model_.indices.empty()) {
            // No triangle: an empty box at the origin rather than an inverted one.
            model_.boundsMin = model_.boundsMax = model_.coreBoundsMin = model_.coreBoundsMax = float3{};
            return;
        }
        if (model_.coreBoundsMax.x < model_.coreBoundsMin.x) {
            model_.coreBoundsMin = model_.boundsMin;
            model_.coreBoundsMax = model_.boundsMax;
        }
    }

private:
    void warn(const std::string& line) {
        if (stderrLines_) stderrLines_(line);
        else std::fprintf(stderr, "%s\n", line.c_str());
    }

    uint16_t internRole(const std::string& name) {
        if (name.empty()) return 0;
        auto it = roleIds_.find(name);
        if (it != roleIds_.end()) return it->second;
        const uint16_t id = uint16_t(std::min<size_t>(model_.roleNames.size(), 65535));
        model_.roleNames.push_back(name);
        roleIds_.emplace(name, id);
        return id;
    }

    // Depth is limited to 64 levels, which also ends any cycle; the visit count
    // bounds graphs that share subtrees many times over.
    void visit(int64_t index, const Mat4& parent, int depth, const std::string& parentRole) {
        if (!glb::indexes(doc_.nodes, index) || depth > 63) return;
        if (++visits_ > limits_.maxNodeVisits)
            throw GLBError::unsupported("node graph with more than " + std::to_string(limits_.maxNodeVisits) +
                                        " node instances");
        const Json& node = doc_.nodes[size_t(index)];
        const Mat4 world = parent * localMatrix(node);
        std::string role = extrasRole(node);
        if (role.empty()) role = parentRole;
        if (auto mesh = glb::integerMember(node, "mesh")) appendMesh(*mesh, world, role);
        if (auto children = glb::integerArrayMember(node, "children"))
            for (int64_t child : *children) visit(child, world, depth + 1, role);
    }

    void appendMesh(int64_t meshIndex, const Mat4& world, const std::string& nodeRole) {
        if (!glb::indexes(doc_.meshes, meshIndex)) return;
        const Json& mesh = doc_.meshes[size_t(meshIndex)];
        const std::string role = nodeRole.empty() ? extrasRole(mesh) : nodeRole;
        const uint16_t roleId = internRole(role);
        const bool isSite = role == "site";

        // Normals transform by the inverse transpose of the upper 3 x 3; a
        // mirroring transform (negative determinant) reverses the winding so
        // that triangles keep facing the way they do in the file.
        double a[3][3], cof[3][3];
        for (int r = 0; r < 3; ++r)
            for (int c = 0; c < 3; ++c) a[r][c] = world(r, c);
        for (int r = 0; r < 3; ++r)
            for (int c = 0; c < 3; ++c) {
                const int r1 = (r + 1) % 3, r2 = (r + 2) % 3, c1 = (c + 1) % 3, c2 = (c + 2) % 3;
                cof[r][c] = a[r1][c1] * a[r2][c2] - a[r1][c2] * a[r2][c1];
            }
        const double det = a[0][0] * cof[0][0] + a[0][1] * cof[0][1] + a[0][2] * cof[0][2];
        const bool invertible = std::isfinite(det) && det != 0;
        Transform xf;
        xf.world = world;
        for (int r = 0; r < 3; ++r)
            for (int c = 0; c < 3; ++c) xf.normal[r][c] = invertible ? cof[r][c] / det : 0.0;
        xf.flip = invertible && det < 0;

        const Json* primitives = glb::arrayMember(mesh, "primitives");
        if (!primitives) return;
        for (const Json& primitive : *primitives) appendPrimitive(primitive, meshIndex, xf, roleId, isSite);
    }

    struct Transform {
        Mat4 world;
        double normal[3][3]; // inverse transpose of the upper 3 x 3 (zero when singular)
        bool flip = false;
    };

    void appendPrimitive(const Json& primitive, int64_t meshIndex, const Transform& xf, uint16_t roleId, bool isSite) {
        if (auto mode = glb::integerMember(primitive, "mode"); mode && *mode != 4) {
            warn("warning: skipping glTF primitive with mode " + std::to_string(*mode) + " (only triangles)");
            return;
        }
        const Json* attributes = glb::objectMember(primitive, "attributes");
        auto positionIndex = attributes ? glb::integerMember(*attributes, "POSITION") : std::nullopt;
        if (!positionIndex) return;

        uint32_t material = defaultMaterial_;
        if (auto m = glb::integerMember(primitive, "material"); m && *m >= 0 && *m < int64_t(defaultMaterial_))
            material = uint32_t(*m);
        {
            const ModelMaterial& mat = model_.materials[material];
            if (mat.alphaMode == "MASK" && mat.alphaCutoff > mat.baseColor[3]) return;
        }

        const Accessor positions = glb::openAccessor(doc_, *positionIndex);
        if (positions.components != 3 || positions.count < 1 || !positions.hasFloats()) return;
        const int64_t n = positions.count;
        const size_t base = model_.positions.size();
        if (n > limits_.maxVertices - int64_t(base))
            throw GLBError::unsupported("model with more than " + std::to_string(limits_.maxVertices) + " vertices");

        std::optional<Accessor> normals;
        if (auto idx = glb::integerMember(*attributes, "NORMAL")) {
            Accessor acc = glb::openAccessor(doc_, *idx);
            if (acc.hasFloats()) normals = acc;
        }

        std::optional<Accessor> uvs;
        if (model_.materials[material].baseColorTexture) {
            const int set = model_.materials[material].baseColorTexCoord;
            const std::string key = "TEXCOORD_" + std::to_string(set);
            if (auto idx = glb::integerMember(*attributes, key.c_str())) {
                Accessor acc = glb::openAccessor(doc_, *idx);
                if (acc.components == 2 && acc.count == n) uvs = acc;
            }
            if (!uvs) material = untexturedCopy(material, meshIndex, set);
        }

        appendVertices(positions, normals, uvs, xf);
        appendTriangles(primitive, n, base, material, xf.flip, roleId, isSite, meshIndex);
    }

    // The untextured stand-in for a textured material drawn without usable
    // texture coordinates: made once per material, with one warning.
    uint32_t untexturedCopy(uint32_t material, int64_t meshIndex, int set) {
        auto it = untextured_.find(material);
        if (it != untextured_.end()) return it->second;
        ModelMaterial copy = model_.materials[material];
        copy.baseColorTexture.reset();
        model_.warnings.push_back("material '" + copy.name + "' is textured but a primitive of mesh " +
                                  std::to_string(meshIndex) + " has no usable TEXCOORD_" + std::to_string(set) +
                                  " - drawn untextured");
        const uint32_t index = uint32_t(model_.materials.size());
        model_.materials.push_back(std::move(copy));
        untextured_.emplace(material, index);
        return index;
    }

    void appendVertices(const Accessor& positions, const std::optional<Accessor>& normals,
                        const std::optional<Accessor>& uvs, const Transform& xf) {
        const int64_t n = positions.count;
        const size_t base = model_.positions.size();
        model_.positions.resize(base + size_t(n));
        model_.normals.resize(base + size_t(n));
        model_.uvs.resize(base + size_t(n));
        bad_.assign(size_t(n), 0);
        const Mat4& w = xf.world;
        const int64_t normalValues = normals ? normals->valueCount() : 0;
        const bool uvFloats = uvs && uvs->hasFloats();

        for (int64_t i = 0; i < n; ++i) {
            const double x = positions.floatAt(3 * i), y = positions.floatAt(3 * i + 1),
                         z = positions.floatAt(3 * i + 2);
            float3 p;
            for (int r = 0; r < 3; ++r) p[r] = glb::toFloat(w(r, 0) * x + w(r, 1) * y + w(r, 2) * z + w(r, 3));
            const float extent = std::fmax(std::fabs(p.x), std::fmax(std::fabs(p.y), std::fabs(p.z)));
            if (!isFinite(p) || !(extent <= kMaxCoordinate)) {
                p = float3{};
                bad_[size_t(i)] = 1;
            }
            model_.positions[base + size_t(i)] = p;

            float2 uv;
            if (uvs) {
                const float u = uvFloats ? uvs->floatAt(2 * i) : float(uvs->unsignedAt(2 * i));
                const float v = uvFloats ? uvs->floatAt(2 * i + 1) : float(uvs->unsignedAt(2 * i + 1));
                if (std::isfinite(u) && std::isfinite(v)) uv = float2{u, v};
            }
            model_.uvs[base + size_t(i)] = uv;

            float3 normal;
            if (3 * i + 2 < normalValues) {
                const double nx = normals->floatAt(3 * i), ny = normals->floatAt(3 * i + 1),
                             nz = normals->floatAt(3 * i + 2);
                double m[3];
                for (int r = 0; r < 3; ++r) m[r] = xf.normal[r][0] * nx + xf.normal[r][1] * ny + xf.normal[r][2] * nz;
                const double len = std::sqrt(m[0] * m[0] + m[1] * m[1] + m[2] * m[2]);
                if (len > 1e-12 && std::isfinite(len))
                    normal = float3{float(m[0] / len), float(m[1] / len), float(m[2] / len)};
            }
            model_.normals[base + size_t(i)] = normal;
        }
    }

    // Kept vertices are finite, so plain comparisons do (no NaN handling needed).
    static void widen(float3& lo, float3& hi, float3 p) {
        for (int k = 0; k < 3; ++k) {
            lo[k] = p[k] < lo[k] ? p[k] : lo[k];
            hi[k] = p[k] > hi[k] ? p[k] : hi[k];
        }
    }

    void appendTriangles(const Json& primitive, int64_t n, size_t base, uint32_t material, bool flip, uint16_t roleId,
                         bool isSite, int64_t meshIndex) {
        std::optional<Accessor> indexAccessor;
        int64_t count = n;
        if (auto idx = glb::integerMember(primitive, "indices")) {
            indexAccessor = glb::openAccessor(doc_, *idx);
            count = indexAccessor->hasUnsigned() ? indexAccessor->valueCount() : 0;
        }
        if (count > limits_.maxIndices - indicesRead_)
            throw GLBError::unsupported("model with more than " + std::to_string(limits_.maxIndices) + " indices");
        indicesRead_ += count;
        if (count < 3) return;

        // No exact reserve here: many small primitives would then copy the
        // arrays once each (quadratic); push_back's geometric growth does not.
        const int64_t triangles = count / 3;
        int64_t dropped = 0;
        for (int64_t t = 0; t < triangles; ++t) {
            uint32_t v[3];
            for (int k = 0; k < 3; ++k)
                v[k] = indexAccessor ? indexAccessor->unsignedAt(3 * t + k) : uint32_t(3 * t + k);
            if (v[0] >= n || v[1] >= n || v[2] >= n) continue;
            if (bad_[v[0]] || bad_[v[1]] || bad_[v[2]]) {
                ++dropped;
                continue;
            }
            if (flip) std::swap(v[1], v[2]);
            for (uint32_t i : v) {
                const uint32_t g = uint32_t(base) + i;
                model_.indices.push_back(g);
                const float3 p = model_.positions[g];
                widen(model_.boundsMin, model_.boundsMax, p);
                if (!isSite) widen(model_.coreBoundsMin, model_.coreBoundsMax, p);
            }
            model_.triMaterial.push_back(material);
            model_.triRole.push_back(roleId);
        }
        if (dropped > 0) {
            model_.droppedTriangles += dropped;
            warn("warning: mesh " + std::to_string(meshIndex) + " (material '" + model_.materials[material].name +
                 "'): dropped " + std::to_string(dropped) +
                 " triangle(s) with non-finite or out-of-range (> 100 km) vertex positions");
        }
    }

    const Document& doc_;
    LoadedModel& model_;
    const GLBLimits& limits_;
    const LogSink& stderrLines_;
    const uint32_t defaultMaterial_;
    std::unordered_map<uint32_t, uint32_t> untextured_;
    std::unordered_map<std::string, uint16_t> roleIds_;
    std::vector<uint8_t> bad_; // per vertex of the current primitive: position unusable
    int64_t visits_ = 0;
    int64_t indicesRead_ = 0;
};

std::vector<uint8_t> readModelFile(const std::string& path) {
    auto fail = [&](int error) {
        return GLBFileError("could not read the model file '" + path + "': " + std::strerror(error));
    };
    const int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
    if (fd < 0) throw fail(errno);
    struct Closer {
        int fd;
        ~Closer() { ::close(fd); }
    } closer{fd};
    struct stat info {};
    if (::fstat(fd, &info) != 0) throw fail(errno);
    if (S_ISDIR(info.st_mode)) throw fail(EISDIR);
    if (!S_ISREG(info.st_mode)) throw GLBFileError("could not read the model file '" + path + "': not a regular file");
    std::vector<uint8_t> bytes(size_t(info.st_size));
    size_t done = 0;
    while (done < bytes.size()) {
        const ssize_t got = ::read(fd, bytes.data() + done, bytes.size() - done);
        if (got < 0 && errno == EINTR) continue;
        if (got < 0) throw fail(errno);
        if (got == 0) break; // the file shrank while being read
        done += size_t(got);
    }
    bytes.resize(done);
    return bytes;
}

} // namespace

LoadedModel GLBLoader::loadBytes(std::span<const uint8_t> bytes, const LogSink& stderrLines, const GLBLimits& limits) {
    const glb::Container container = glb::splitContainer(bytes);
    const Document doc(container.document, container.bin);

    LoadedModel model;
    model.materials = glb::readMaterials(doc);
    glb::readImagesAndTextures(doc, model, limits);

    constexpr float inf = std::numeric_limits<float>::infinity();
    model.boundsMin = model.coreBoundsMin = float3{inf, inf, inf};
    model.boundsMax = model.coreBoundsMax = float3{-inf, -inf, -inf};
    ModelBuilder builder(doc, model, limits, stderrLines);
    builder.traverse();
    builder.finish();
    return model;
}

LoadedModel GLBLoader::load(const std::string& path, const LogSink& stderrLines, const GLBLimits& limits) {
    const std::vector<uint8_t> bytes = readModelFile(path);
    return loadBytes(bytes, stderrLines, limits);
}

} // namespace qv
