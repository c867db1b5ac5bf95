#include "image/AtrousDenoiser.h"

#include "image/AtrousPassCPU.h"
#include "image/AtrousRestoreCPU.h"
#include "scene/EnvSwitches.h"

#include <tbb/blocked_range.h>
#include <tbb/parallel_for.h>

#include <cstdlib>
#include <new>

namespace qv {

namespace {

// body(x, y) over every pixel, in bands of rows.
template <class Body>
void forEachPixel(uint32_t width, uint32_t height, const Body& body) {
    tbb::parallel_for(tbb::blocked_range<uint32_t>(0, height, 4), [&](const tbb::blocked_range<uint32_t>& rows) {
        for (uint32_t y = rows.begin(); y != rows.end(); ++y)
            for (uint32_t x = 0; x < width; ++x) body(x, y);
    });
}

std::optional<std::vector<float>> numbersOf(const char* value) {
    if (!value) return std::nullopt;
    auto numbers = EnvSwitches::parseNumberList(value);
    if (!numbers) return std::nullopt;
    return std::vector<float>(numbers->begin(), numbers->end());
}

const char* switchText(const std::optional<std::string>& text) { return text ? text->c_str() : nullptr; }

} // namespace

AtrousSettings AtrousSettings::fromValues(const char* sigmas, const char* chroma, const char* crease,
                                          const char* restore) {
    AtrousSettings s;
    if (auto v = numbersOf(sigmas); v && (v->size() == 4 || v->size() == 3))
        s.sigmas = float4{(*v)[0], (*v)[1], (*v)[2], v->size() == 4 ? (*v)[3] : 0.03f};
    if (auto v = numbersOf(chroma); v && v->size() == 3) s.chroma = float4{(*v)[0], (*v)[1], (*v)[2], 0.0f};
    if (auto v = numbersOf(crease); v && v->size() == 3) s.crease = float4{(*v)[0], (*v)[1], (*v)[2], 0.0f};
    if (auto v = numbersOf(restore); v && v->size() == 1) s.restoreK = (*v)[0];
    return s;
}

const AtrousSettings& AtrousSettings::fromEnvironment() {
    const EnvSwitches& env = EnvSwitches::process();
    static const AtrousSettings settings =
        fromValues(switchText(env.text("QV_ATROUS_SIGMAS")), switchText(env.text("QV_ATROUS_CHROMA")),
                   switchText(env.text("QV_DN_CREASE")), switchText(env.text("QV_DN_RESTORE")));
    return settings;
}

AtrousDenoiser::AtrousDenoiser(const AtrousSettings& settings)
    : settings_(settings), guidePlanes_(std::make_unique<AtrousGuidePlanes>()),
      colourPlanes_(std::make_unique<AtrousColourPlanes>()), restorePlanes_(std::make_unique<AtrousRestorePlanes>()) {}

AtrousDenoiser::~AtrousDenoiser() = default;

bool AtrousDenoiser::ensureBuffers(uint32_t width, uint32_t height) {
    size_t pixels = size_t(width) * height;
    try {
        for (auto* buffer : {&colourA_, &colourB_, &guide_, &albedo_, &out_, &noise_})
            if (buffer->size() < pixels) buffer->resize(pixels);
    } catch (const std::bad_alloc&) {
        return false;
    }
    width_ = width;
    height_ = height;
    return true;
}

GPUDenoiseParams AtrousDenoiser::params(uint32_t step, uint32_t iteration) const {
    return GPUDenoiseParams{uint4{width_, height_, step, iteration}, settings_.sigmas, settings_.chroma};
}

bool AtrousDenoiser::filter(const float4* accum, const float4* guideA, const float4* guideB, uint32_t width,
                            uint32_t height) {
    if (!ensureBuffers(width, height)) return false;
    GPUDenoiseParams prep = params(1, 0);
    forEachPixel(width, height, [&](uint32_t x, uint32_t y) {
        denoisePrep(accum, guideA, guideB, colourA_.data(), noise_.data(), guide_.data(), albedo_.data(), prep, x, y);
    });
    guidePlanes_->build(guide_.data(), width, height, settings_.sigmas.y);
    for (uint32_t i = 0; i < ATROUS_PASSES; ++i) {
        GPUDenoiseParams p = params(1u << i, i);
        const float4* src = (i & 1) ? colourB_.data() : colourA_.data();
        float4* dst = (i & 1) ? colourA_.data() : colourB_.data();
        atrousPassCPU(src, dst, *guidePlanes_, *colourPlanes_, noise_.data(), p);
    }
    forEachPixel(width, height,
                 [&](uint32_t x, uint32_t y) { denoiseFinish(colourB_.data(), albedo_.data(), out_.data(), prep, x, y); });
    return true;
}

void AtrousDenoiser::restore(float k, const float4* accum, const float4* guideB) {
    GPUDenoiseParams p = params(1, 0);
    forEachPixel(width_, height_, [&](uint32_t x, uint32_t y) {
        denoiseResid(accum, guideB, out_.data(), albedo_.data(), colourA_.data(), noise_.data(), p, x, y);
    });
    const float4* resid = colourA_.data();
    if (settings_.crease.x > 0) {
        float4 c{settings_.crease.x, settings_.crease.y, settings_.crease.z, 0.0f};
        forEachPixel(width_, height_, [&](uint32_t x, uint32_t y) {
            denoiseCrease(colourA_.data(), noise_.data(), guide_.data(), colourB_.data(), c, p, x, y);
        });
        resid = colourB_.data();
    }
    restoreCPU(accum, resid, noise_.data(), out_.data(), k, width_, height_, *restorePlanes_);
}

bool AtrousDenoiser::denoise(const float4* accum, const float4* guideA, const float4* guideB, uint32_t width,
                             uint32_t height, uint32_t samplesPerPixel) {
    if (!filter(accum, guideA, guideB, width, height)) return false;
    if (samplesPerPixel >= 4 && settings_.restoreEnabled()) restore(settings_.restoreStrength(), accum, guideB);
    return true;
}

} // namespace qv
