// The ray-query backend on Embree 3. This is the only file that sees Embree.
#include "pathtracer/RayQuery.h"

#include <embree3/rtcore.h>

#include <algorithm>
#include <chrono>
#include <cmath>
#include <cstddef>
#include <cstring>
#include <mutex>
#include <string>
#include <vector>

namespace qv {

namespace {

// Embree reports errors through a callback on the thread that made the call;
// the text is kept per thread and turned into an exception after the call.
thread_local std::string tLastError;

void onEmbreeError(void*, RTCError code, const char* text) {
    tLastError = text ? text : "";
    if (tLastError.empty()) tLastError = "error code " + std::to_string(static_cast<int>(code));
}

struct DeviceDeleter {
    void operator()(RTCDevice d) const { rtcReleaseDevice(d); }
};
using DeviceHandle = std::shared_ptr<RTCDeviceTy>;

// One device serves every structure of the process; it lives while any
// structure does.
DeviceHandle sharedDevice() {
    static std::mutex mutex;
    static std::weak_ptr<RTCDeviceTy> weak;
    std::lock_guard lock(mutex);
    if (DeviceHandle d = weak.lock()) return d;
    tLastError.clear();
    RTCDevice raw = rtcNewDevice(nullptr);
    if (!raw) {
        RTCError code = rtcGetDeviceError(nullptr);
        if (code == RTC_ERROR_OUT_OF_MEMORY) throw RayQueryError("could not allocate acceleration structure");
        throw RayQueryError("acceleration structure build failed: could not create the ray-tracing device");
    }
    rtcSetDeviceErrorFunction(raw, onEmbreeError, nullptr);
    DeviceHandle d(raw, DeviceDeleter{});
    weak = d;
    return d;
}

// Throws when the last Embree call on this thread failed.
void checkDevice(RTCDevice device) {
    RTCError code = rtcGetDeviceError(device);
    if (code == RTC_ERROR_NONE) return;
    std::string text = tLastError.empty() ? "error code " + std::to_string(static_cast<int>(code)) : tLastError;
    tLastError.clear();
    if (code == RTC_ERROR_OUT_OF_MEMORY) throw RayQueryError("could not allocate acceleration structure");
    throw RayQueryError("acceleration structure build failed: " + text);
}

// Embree reads a ray's origin and direction as 16-byte vectors (each with
// tnear or time in the fourth lane); written as four scalar stores they
// could not be forwarded to those loads, which then wait for the stores to
// retire. One vector store per pair avoids that stall on every query.
using RayLanes = float __attribute__((vector_size(16)));
static_assert(offsetof(RTCRay, tnear) == offsetof(RTCRay, org_x) + 12 && offsetof(RTCRay, org_x) % 16 == 0);
static_assert(offsetof(RTCRay, time) == offsetof(RTCRay, dir_x) + 12 && offsetof(RTCRay, dir_x) % 16 == 0);

void fillRay(RTCRay& ray, const Ray& r) {
    const RayLanes org{r.origin.x, r.origin.y, r.origin.z, r.tMin > 0 ? r.tMin : 0.0f}; // Embree needs tnear >= 0
    const RayLanes dir{r.direction.x, r.direction.y, r.direction.z, 0.0f};
    std::memcpy(&ray.org_x, &org, sizeof org);
    std::memcpy(&ray.dir_x, &dir, sizeof dir);
    ray.tfar = r.tMax;
    ray.mask = r.mask;
    ray.id = 0;
    ray.flags = 0;
}

} // namespace

struct RayQuery::Impl {
    DeviceHandle device;
    RTCScene scene = nullptr;
    std::vector<uint32_t> firstTriangle; // per set, plus the total at the end
    double seconds = 0;
    BuildQuality quality = BuildQuality::high;

    ~Impl() {
        if (scene) rtcReleaseScene(scene);
    }
};

RayQuery::RayQuery(std::unique_ptr<Impl> impl) : impl_(std::move(impl)) {}
RayQuery::RayQuery(RayQuery&&) noexcept = default;
RayQuery& RayQuery::operator=(RayQuery&&) noexcept = default;
RayQuery::~RayQuery() = default;

RayQuery RayQuery::build(std::span<const TriangleSet> sets, BuildQuality quality) {
    auto start = std::chrono::steady_clock::now();
    auto impl = std::make_unique<Impl>();
    impl->quality = quality;
    impl->device = sharedDevice();
    RTCDevice device = impl->device.get();

    uint64_t total = 0;
    impl->firstTriangle.reserve(sets.size() + 1);
    for (const TriangleSet& set : sets) {
        if (set.indices.size() % 3 != 0)
            throw RayQueryError("acceleration structure build failed: index count is not a multiple of 3");
        impl->firstTriangle.push_back(static_cast<uint32_t>(total));
        total += set.indices.size() / 3;
    }
    if (total >= kNoHit)
        throw RayQueryError("acceleration structure build failed: too many triangles");
    impl->firstTriangle.push_back(static_cast<uint32_t>(total));

    tLastError.clear();
    impl->scene = rtcNewScene(device);
    checkDevice(device);
    // Robust traversal keeps shared edges watertight, so no light leaks through seams.
    rtcSetSceneFlags(impl->scene, RTC_SCENE_FLAG_ROBUST);
    const RTCBuildQuality rtcQuality = quality == BuildQuality::high ? RTC_BUILD_QUALITY_HIGH : RTC_BUILD_QUALITY_MEDIUM;
    rtcSetSceneBuildQuality(impl->scene, rtcQuality);

    for (size_t s = 0; s < sets.size(); ++s) {
        const TriangleSet& set = sets[s];
        const size_t triangles = set.indices.size() / 3;
        if (triangles == 0) continue;
        const size_t vertexCount = set.positions.size();
        for (uint32_t index : set.indices)
            if (index >= vertexCount)
                throw RayQueryError("acceleration structure build failed: triangle index " + std::to_string(index) +
                                    " is out of range (" + std::to_string(vertexCount) + " vertices)");

        RTCGeometry geom = rtcNewGeometry(device, RTC_GEOMETRY_TYPE_TRIANGLE);
        checkDevice(device);
        // Embree-owned copies: the caller's arrays may go away after the build,
        // and Embree's own buffers carry the padding its vector loads need.
        void* vertices = rtcSetNewGeometryBuffer(geom, RTC_BUFFER_TYPE_VERTEX, 0, RTC_FORMAT_FLOAT3,
                                                 sizeof(float3), vertexCount);
        void* indices = rtcSetNewGeometryBuffer(geom, RTC_BUFFER_TYPE_INDEX, 0, RTC_FORMAT_UINT3,
                                                3 * sizeof(uint32_t), triangles);
        if (!vertices || !indices) {
            rtcReleaseGeometry(geom);
            checkDevice(device);
            throw RayQueryError("could not allocate acceleration structure");
        }
        std::memcpy(vertices, set.positions.data(), vertexCount * sizeof(float3));
        std::memcpy(indices, set.indices.data(), set.indices.size() * sizeof(uint32_t));
        rtcSetGeometryMask(geom, set.mask);
        rtcSetGeometryBuildQuality(geom, rtcQuality);
        rtcCommitGeometry(geom);
        // The geometry id is the set index, so a hit names its set directly.
        rtcAttachGeometryByID(impl->scene, geom, static_cast<unsigned>(s));
        rtcReleaseGeometry(geom);
        checkDevice(device);
    }

    rtcCommitScene(impl->scene);
    checkDevice(device);
    impl->seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
    return RayQuery(std::move(impl));
}

RayHit RayQuery::intersect(const Ray& r) const {
    RTCRayHit rh;
    fillRay(rh.ray, r);
    rh.hit.geomID = RTC_INVALID_GEOMETRY_ID;
    rh.hit.primID = RTC_INVALID_GEOMETRY_ID;
    rh.hit.instID[0] = RTC_INVALID_GEOMETRY_ID;
    RTCIntersectContext context;
    rtcInitIntersectContext(&context);
    rtcIntersect1(impl_->scene, &context, &rh);

    RayHit hit;
    if (rh.hit.geomID == RTC_INVALID_GEOMETRY_ID) return hit;
    hit.t = rh.ray.tfar;
    hit.set = rh.hit.geomID;
    hit.prim = impl_->firstTriangle[rh.hit.geomID] + rh.hit.primID;
    hit.u = rh.hit.u;
    hit.v = rh.hit.v;
    hit.ng = float3{rh.hit.Ng_x, rh.hit.Ng_y, rh.hit.Ng_z};
    return hit;
}

bool RayQuery::occluded(const Ray& r) const {
    RTCRay ray;
    fillRay(ray, r);
    RTCIntersectContext context;
    rtcInitIntersectContext(&context);
    rtcOccluded1(impl_->scene, &context, &ray);
    // Embree marks a blocked ray by setting tfar to -infinity.
    return ray.tfar < 0 && std::isinf(ray.tfar);
}

namespace {

constexpr size_t kPacket = 16;

// Packets of 16 in Embree's own layout: a bundle of rays that start close
// together and head the same way shares most of its traversal steps. Rays
// first .. first + 15 of the bundle (a short last packet repeats its first
// ray in the unused lanes), valid where active (when given) and tmax > 0.
// Whole-vector copies where possible: Embree reads the packet in vectors, and
// a vector load from many scalar stores stalls.
bool fillPacket(RTCRay16& packet, int* valid, const RayBundle& rays, size_t first, const uint8_t* active) {
    const size_t m = std::min(kPacket, rays.count - first);
    if (m == kPacket) {
        auto copy = [first](float* to, const float* from) { std::memcpy(to, from + first, sizeof(float) * kPacket); };
        copy(packet.org_x, rays.ox), copy(packet.org_y, rays.oy), copy(packet.org_z, rays.oz);
        copy(packet.dir_x, rays.dx), copy(packet.dir_y, rays.dy), copy(packet.dir_z, rays.dz);
        copy(packet.tfar, rays.tmax);
        for (size_t i = 0; i < kPacket; ++i)
            valid[i] = (!active || active[first + i]) && rays.tmax[first + i] > 0.0f ? -1 : 0;
    } else {
        for (size_t i = 0; i < kPacket; ++i) {
            const size_t k = first + (i < m ? i : 0);
            valid[i] = i < m && (!active || active[k]) && rays.tmax[k] > 0.0f ? -1 : 0;
            packet.org_x[i] = rays.ox[k];
            packet.org_y[i] = rays.oy[k];
            packet.org_z[i] = rays.oz[k];
            packet.dir_x[i] = rays.dx[k];
            packet.dir_y[i] = rays.dy[k];
            packet.dir_z[i] = rays.dz[k];
            packet.tfar[i] = rays.tmax[k];
        }
    }
    int any = 0;
    for (size_t i = 0; i < kPacket; ++i) {
        packet.tnear[i] = 0.0f;
        packet.time[i] = 0.0f;
        packet.mask[i] = rays.mask;
        packet.id[i] = 0;
        packet.flags[i] = 0;
        any |= valid[i];
    }
    return any != 0;
}

} // namespace

void RayQuery::occluded(const RayBundle& rays, const uint8_t* active, uint8_t* blocked) const {
    RTCIntersectContext context;
    rtcInitIntersectContext(&context);
    context.flags = RTC_INTERSECT_CONTEXT_FLAG_COHERENT;
    for (size_t first = 0; first < rays.count; first += kPacket) {
        alignas(64) RTCRay16 packet;
        alignas(64) int valid[kPacket];
        if (fillPacket(packet, valid, rays, first, active)) rtcOccluded16(valid, impl_->scene, &context, &packet);
        // Embree marks a blocked ray by setting tfar to -infinity.
        const size_t m = std::min(kPacket, rays.count - first);
        for (size_t i = 0; i < m; ++i)
            blocked[first + i] = valid[i] && packet.tfar[i] < 0.0f && std::isinf(packet.tfar[i]) ? 1 : 0;
    }
}

void RayQuery::nearestPrims(const RayBundle& rays, uint32_t* prim) const {
    RTCIntersectContext context;
    rtcInitIntersectContext(&context);
    for (size_t first = 0; first < rays.count; first += kPacket) {
        alignas(64) RTCRayHit16 packet;
        alignas(64) int valid[kPacket];
        for (size_t i = 0; i < kPacket; ++i) packet.hit.geomID[i] = RTC_INVALID_GEOMETRY_ID;
        if (fillPacket(packet.ray, valid, rays, first, nullptr)) rtcIntersect16(valid, impl_->scene, &context, &packet);
        const size_t m = std::min(kPacket, rays.count - first);
        for (size_t i = 0; i < m; ++i) {
            const unsigned g = packet.hit.geomID[i];
            prim[first + i] = g == RTC_INVALID_GEOMETRY_ID ? kNoHit : impl_->firstTriangle[g] + packet.hit.primID[i];
        }
    }
}

size_t RayQuery::triangleCount() const { return impl_->firstTriangle.back(); }
size_t RayQuery::setCount() const { return impl_->firstTriangle.size() - 1; }
uint32_t RayQuery::firstTriangleOfSet(size_t s) const { return impl_->firstTriangle.at(s); }
double RayQuery::buildSeconds() const { return impl_->seconds; }
BuildQuality RayQuery::quality() const { return impl_->quality; }

} // namespace qv
