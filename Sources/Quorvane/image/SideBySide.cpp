#include "image/SideBySide.h"

#include "image/PNGWriter.h"

#include <ft2build.h>
#include FT_FREETYPE_H

#include <algorithm>
#include <array>
#include <cmath>
#include <cstdlib>
#include <memory>

namespace qv {

namespace fs = std::filesystem;

namespace {

constexpr int kGap = 8;     // pixels between the two images
constexpr int kFooter = 34; // pixels of the strip along the bottom

// Blends a straight colour of the given opacity over an opaque RGBA pixel.
void blend(uint8_t* px, float value, float alpha) {
    for (int c = 0; c < 3; ++c) px[c] = uint8_t(std::lround(px[c] * (1.0f - alpha) + value * alpha));
    px[3] = 255;
}

struct Canvas {
    int width, height;
    std::vector<uint8_t> rgba;
    uint8_t* at(int x, int y) { return rgba.data() + (size_t(y) * width + size_t(x)) * 4; }
    void fillRect(int x0, int y0, int x1, int y1, float value, float alpha) {
        x0 = std::max(x0, 0), y0 = std::max(y0, 0), x1 = std::min(x1, width), y1 = std::min(y1, height);
        for (int y = y0; y < y1; ++y)
            for (int x = x0; x < x1; ++x) blend(at(x, y), value, alpha);
    }
};

struct FreeTypeLibrary {
    FT_Library lib = nullptr;
    FT_Face face = nullptr;
    ~FreeTypeLibrary() {
        if (face) FT_Done_Face(face);
        if (lib) FT_Done_FreeType(lib);
    }
};

class TextPainter {
public:
    TextPainter() {
        fs::path font = SideBySide::fontPath();
        if (font.empty())
            throw SideBySideError("side-by-side: no bold sans-serif font for the labels (install fonts-dejavu-core, "
                                  "which provides /usr/share/fonts/truetype/dejavu/DejaVuSans-Bold.ttf)");
        if (FT_Init_FreeType(&ft_.lib) != 0) throw SideBySideError("side-by-side: no context");
        if (FT_New_Face(ft_.lib, font.c_str(), 0, &ft_.face) != 0)
            throw SideBySideError("side-by-side: could not load the label font " + font.string());
    }

    // Width in pixels of the text's advances at size px.
    int measure(const std::string& text, int px) {
        setSize(px);
        long advance = 0;
        for (unsigned char ch : text) {
            if (FT_Load_Char(ft_.face, ch, FT_LOAD_DEFAULT) != 0) continue;
            advance += ft_.face->glyph->advance.x;
        }
        return int((advance + 63) >> 6);
    }

    // Draws white text with its baseline at y, starting at x.
    void draw(Canvas& canvas, const std::string& text, int px, int x, int baseline) {
        setSize(px);
        long penX = long(x) << 6;
        for (unsigned char ch : text) {
            if (FT_Load_Char(ft_.face, ch, FT_LOAD_RENDER) != 0) continue;
            FT_GlyphSlot g = ft_.face->glyph;
            const FT_Bitmap& bm = g->bitmap;
            int left = int(penX >> 6) + g->bitmap_left;
            int top = baseline - g->bitmap_top;
            for (unsigned row = 0; row < bm.rows; ++row)
                for (unsigned col = 0; col < bm.width; ++col) {
                    int cx = left + int(col), cy = top + int(row);
                    if (cx < 0 || cy < 0 || cx >= canvas.width || cy >= canvas.height) continue;
                    uint8_t coverage = bm.buffer[row * unsigned(std::abs(bm.pitch)) + col];
                    if (coverage) blend(canvas.at(cx, cy), 255.0f, coverage / 255.0f);
                }
            penX += g->advance.x;
        }
    }

private:
    void setSize(int px) {
        if (FT_Set_Pixel_Sizes(ft_.face, 0, FT_UInt(px)) != 0) throw SideBySideError("side-by-side: no context");
    }
    FreeTypeLibrary ft_;
};

} // namespace

fs::path SideBySide::fontPath() {
    static const std::array<const char*, 4> candidates{
        "/usr/share/fonts/truetype/dejavu/DejaVuSans-Bold.ttf",
        "/usr/local/share/fonts/truetype/dejavu/DejaVuSans-Bold.ttf",
        "/usr/share/fonts/TTF/DejaVuSans-Bold.ttf",
        "/usr/share/fonts/dejavu/DejaVuSans-Bold.ttf",
    };
    std::error_code ec;
    for (const char* c : candidates)
        if (fs::is_regular_file(c, ec)) return c;
    return {};
}

std::vector<uint8_t> SideBySide::compose(const std::vector<uint8_t>& left, const std::vector<uint8_t>& right,
                                         int64_t width, int64_t height, const std::vector<std::string>& labels,
                                         const std::string& footer) {
    if (width <= 0 || height <= 0 || width > 16384 || height > 16384)
        throw SideBySideError("side-by-side: no context");
    Canvas canvas{int(2 * width + kGap), int(height + kFooter), {}};
    const uint8_t grey = uint8_t(std::lround(0.12 * 255.0));
    canvas.rgba.assign(size_t(canvas.width) * canvas.height * 4, grey);
    for (size_t i = 3; i < canvas.rgba.size(); i += 4) canvas.rgba[i] = 255;

    const size_t bytes = size_t(width) * size_t(height) * 4;
    const std::array<const std::vector<uint8_t>*, 2> images{&left, &right};
    for (int k = 0; k < 2; ++k) {
        if (images[k]->size() != bytes) continue;
        int x0 = k == 0 ? 0 : int(width) + kGap;
        for (int64_t y = 0; y < height; ++y) {
            const uint8_t* src = images[k]->data() + size_t(y) * size_t(width) * 4;
            std::copy(src, src + size_t(width) * 4, canvas.at(x0, int(y)));
        }
    }

    if (labels.empty() && footer.empty()) return canvas.rgba;
    TextPainter painter;
    const int s = labelSize(height);
    for (size_t k = 0; k < std::min<size_t>(labels.size(), 2); ++k) {
        int textX = (k == 0 ? 0 : int(width) + kGap) + 12;
        int baseline = s + 14;
        int textWidth = painter.measure(labels[k], s);
        canvas.fillRect(textX - 6, baseline + 6 - (s + 10), textX + textWidth + 6, baseline + 6, 0.0f, 0.55f);
        painter.draw(canvas, labels[k], s, textX, baseline);
    }
    if (!footer.empty()) painter.draw(canvas, footer, 15, 12, canvas.height - 10);
    return canvas.rgba;
}

void SideBySide::write(const std::vector<uint8_t>& left, const std::vector<uint8_t>& right, int64_t width,
                       int64_t height, const std::vector<std::string>& labels, const std::string& footer,
                       const fs::path& to) {
    std::vector<uint8_t> canvas = compose(left, right, width, height, labels, footer);
    PNGWriter::write(canvas, 2 * width + kGap, height + kFooter, to);
}

} // namespace qv
