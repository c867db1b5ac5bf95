#include "scene/GLBImages.h"

#include "scene/ImageDecode.h"

#include <tbb/parallel_for.h>

#include <algorithm>
#include <optional>
#include <span>
#include <string>
#include <vector>

namespace qv::glb {
namespace {

// The bytes of image `index`: a view of the BIN chunk, or a decoded data URI.
// Nothing when the image has neither. `storage` keeps decoded URI bytes alive.
std::optional<std::span<const uint8_t>> imageBytes(const Document& doc, const Json& image,
                                                   std::vector<uint8_t>& storage) {
    if (auto v = integerMember(image, "bufferView"); v && indexes(doc.bufferViews, *v)) {
        const Json& view = doc.bufferViews[size_t(*v)];
        const int64_t offset = integerMember(view, "byteOffset").value_or(0);
        const int64_t length = integerMember(view, "byteLength").value_or(0);
        const int64_t bin = int64_t(doc.bin.size());
        if (offset < 0 || length < 1 || offset > bin || length > bin - offset) return std::nullopt;
        return doc.bin.subspan(size_t(offset), size_t(length));
    }
    if (auto uri = stringMember(image, "uri"); uri && uri->starts_with("data:")) {
        const size_t comma = uri->find(',');
        if (comma == std::string::npos) return std::nullopt;
        auto decoded = decodeBase64(std::string_view(*uri).substr(comma + 1));
        if (!decoded) return std::nullopt;
        storage = std::move(*decoded);
        return std::span<const uint8_t>(storage);
    }
    return std::nullopt;
}

struct DecodedSlot {
    std::optional<RGBA8Image> image;
    int sourceWidth = 0;
    int sourceHeight = 0;
    std::string message; // empty when the image decoded
};

DecodedSlot decodeSlot(const Document& doc, size_t index, const GLBLimits& limits) {
    const Json& image = doc.images[index];
    DecodedSlot slot;
    std::vector<uint8_t> storage;
    auto bytes = imageBytes(doc, image, storage);
    if (!bytes || bytes->empty()) {
        slot.message = "image " + std::to_string(index) + ": no embedded data (external image files are not supported)";
        return slot;
    }
    auto decoded = decodeImageRGBA8(*bytes, limits.maxImagePixels);
    if (!decoded) {
        slot.message = "image " + std::to_string(index) + ": could not decode (" +
                       stringMember(image, "mimeType").value_or("unknown type") + ")";
        return slot;
    }
    slot.sourceWidth = decoded->width;
    slot.sourceHeight = decoded->height;
    const ImageSize size = cappedSize(decoded->width, decoded->height);
    if (size.width != decoded->width || size.height != decoded->height)
        decoded = resampleRGBA8(*decoded, size.width, size.height);
    slot.image = std::move(decoded);
    return slot;
}

std::string leftOutMessage(size_t index, const GLBLimits& limits) {
    return "image " + std::to_string(index) + ": left out, the model's decoded images exceed " +
           std::to_string(limits.maxTextureBytes) + " bytes";
}

int wrapCode(const Json& sampler, const char* key) {
    auto v = integerMember(sampler, key);
    return v && *v >= INT32_MIN && *v <= INT32_MAX ? int(*v) : 10497;
}

} // namespace

void readImagesAndTextures(const Document& doc, LoadedModel& model, const GLBLimits& limits) {
    // Each task writes only its own slot; the slots are merged in image order.
    // Images decode in batches so that the decoded-pixel budget is applied in
    // image order (deterministically) and a file full of images cannot hold
    // more than the budget plus one batch at once.
    std::vector<DecodedSlot> slots(doc.images.size());
    constexpr size_t kBatch = 64;
    int64_t imageBytesKept = 0;
    for (size_t first = 0; first < slots.size(); first += kBatch) {
        const size_t last = std::min(slots.size(), first + kBatch);
        if (imageBytesKept > limits.maxTextureBytes) {
            for (size_t i = first; i < last; ++i) slots[i].message = leftOutMessage(i, limits);
            continue;
        }
        tbb::parallel_for(first, last, size_t(1), [&](size_t i) { slots[i] = decodeSlot(doc, i, limits); });
        for (size_t i = first; i < last; ++i) {
            if (!slots[i].image) continue;
            imageBytesKept += int64_t(slots[i].image->pixels.size());
            if (imageBytesKept > limits.maxTextureBytes) {
                slots[i] = DecodedSlot{};
                slots[i].message = leftOutMessage(i, limits);
            }
        }
    }
    for (const DecodedSlot& slot : slots)
        if (!slot.message.empty()) model.warnings.push_back("texture " + slot.message);

    model.textures.assign(doc.textures.size(), std::nullopt);
    int64_t textureBytes = 0;
    for (size_t t = 0; t < doc.textures.size(); ++t) {
        const Json& texture = doc.textures[t];
        if (!member(texture, "source")) {
            model.warnings.push_back("texture " + std::to_string(t) +
                                     ": no source image (extensions such as KHR_texture_basisu are not supported)");
            continue;
        }
        auto source = integerMember(texture, "source");
        if (!source || !indexes(doc.images, *source) || !slots[size_t(*source)].image) continue;
        const DecodedSlot& slot = slots[size_t(*source)];
        // Textures sharing one image each hold a copy; a budget keeps a file
        // that points thousands of textures at one image from exhausting memory.
        const int64_t bytes = int64_t(slot.image->pixels.size());
        if (textureBytes + bytes > limits.maxTextureBytes) {
            model.warnings.push_back("texture " + std::to_string(t) + ": left out, the model's decoded textures exceed " +
                                     std::to_string(limits.maxTextureBytes) + " bytes");
            continue;
        }
        textureBytes += bytes;

        ModelTexture out;
        const Json& image = doc.images[size_t(*source)];
        out.name = stringMember(image, "name").value_or("image" + std::to_string(*source));
        out.image = *slot.image;
        out.sourceWidth = slot.sourceWidth;
        out.sourceHeight = slot.sourceHeight;
        if (auto s = integerMember(texture, "sampler"); s && indexes(doc.samplers, *s)) {
            const Json& sampler = doc.samplers[size_t(*s)];
            out.wrapS = wrapCode(sampler, "wrapS");
            out.wrapT = wrapCode(sampler, "wrapT");
        }
        model.textures[t] = std::move(out);
    }

    const size_t fileMaterials = model.materials.empty() ? 0 : model.materials.size() - 1;
    for (size_t m = 0; m < fileMaterials; ++m) {
        ModelMaterial& mat = model.materials[m];
        if (!mat.baseColorTexture) continue;
        const int t = *mat.baseColorTexture;
        if (t >= 0 && size_t(t) < model.textures.size() && model.textures[size_t(t)]) continue;
        model.warnings.push_back("material '" + mat.name + "': baseColorTexture " + std::to_string(t) +
                                 " is missing or could not be decoded - using baseColorFactor only");
        mat.baseColorTexture.reset();
    }
}

} // namespace qv::glb
