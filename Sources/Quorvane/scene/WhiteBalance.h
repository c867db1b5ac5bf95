#pragma once
// How the image is white-balanced: a fixed colour temperature, the sun and sky
// of the preset, or automatically from the visible surfaces of the scene.
namespace qv {

struct WhiteBalance {
    enum class Kind { kelvin, sky, scene };
    Kind kind = Kind::scene;
    float kelvinValue = 6500.0f; // K, meaningful for Kind::kelvin only

    static WhiteBalance kelvin(float k) { return {Kind::kelvin, k}; }
    static WhiteBalance sky() { return {Kind::sky, 6500.0f}; }
    static WhiteBalance scene() { return {Kind::scene, 6500.0f}; }

    friend bool operator==(const WhiteBalance& a, const WhiteBalance& b) {
        return a.kind == b.kind && (a.kind != Kind::kelvin || a.kelvinValue == b.kelvinValue);
    }
};

} // namespace qv
