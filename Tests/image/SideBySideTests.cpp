#include "image/SideBySide.h"

#include <gtest/gtest.h>

namespace qv {
namespace {

TEST(SideBySide, LabelSizeFollowsHeight) {
    const std::pair<int64_t, int> cases[] = {{100, 14}, {503, 14}, {504, 28}, {720, 40}, {1000, 55}};
    for (auto [h, s] : cases) EXPECT_EQ(SideBySide::labelSize(h), s) << h;
}

uint8_t channel(const std::vector<uint8_t>& c, int canvasW, int x, int y, int ch) {
    return c[(size_t(y) * canvasW + size_t(x)) * 4 + size_t(ch)];
}

TEST(SideBySide, PlacesBothImagesOverTheGreyCanvas) {
    const int W = 20, H = 10, CW = 2 * W + 8;
    std::vector<uint8_t> left(W * H * 4, 200), right(W * H * 4, 90);
    std::vector<uint8_t> c = SideBySide::compose(left, right, W, H, {}, "");
    ASSERT_EQ(c.size(), size_t(CW * (H + 34) * 4));
    EXPECT_EQ(channel(c, CW, 0, 0, 0), 200);
    EXPECT_EQ(channel(c, CW, W - 1, H - 1, 1), 200);
    EXPECT_EQ(channel(c, CW, W + 3, 5, 0), 31); // the gap: grey 0.12
    EXPECT_EQ(channel(c, CW, W + 8, 0, 2), 90);
    EXPECT_EQ(channel(c, CW, CW - 1, H - 1, 0), 90);
    EXPECT_EQ(channel(c, CW, 5, H + 20, 0), 31); // the bottom strip
    EXPECT_EQ(channel(c, CW, 5, H + 20, 3), 255);
}

TEST(SideBySide, InputOfTheWrongSizeLeavesItsHalfBackground) {
    const int W = 8, H = 4, CW = 2 * W + 8;
    std::vector<uint8_t> left(W * H * 4, 200), right(7, 90);
    std::vector<uint8_t> c = SideBySide::compose(left, right, W, H, {}, "");
    EXPECT_EQ(channel(c, CW, W + 8, 0, 0), 31);
    EXPECT_EQ(channel(c, CW, 0, 0, 0), 200);
}

TEST(SideBySide, LabelsSitOnDarkBoxesAndTheFooterIsWhiteText) {
    if (SideBySide::fontPath().empty()) GTEST_SKIP() << "no DejaVu Sans Bold installed";
    const int W = 200, H = 120, CW = 2 * W + 8, CH = H + 34;
    std::vector<uint8_t> mid(W * H * 4, 128);
    std::vector<uint8_t> c = SideBySide::compose(mid, mid, W, H, {"raster", "path traced"}, "parity 0.98");
    const int s = 14, baseline = s + 14;
    // Inside the box, left of the text: 128 darkened by 0.55 black.
    EXPECT_EQ(channel(c, CW, 12 - 3, baseline + 3, 0), 58);
    EXPECT_EQ(channel(c, CW, W + 8 + 12 - 3, baseline + 3, 0), 58);
    // Outside the box the image is untouched.
    EXPECT_EQ(channel(c, CW, 12 - 8, baseline + 3, 0), 128);
    EXPECT_EQ(channel(c, CW, 12, baseline + 8, 0), 128);
    // Some pixels of each label and of the footer are (nearly) white.
    auto brightIn = [&](int x0, int y0, int x1, int y1) {
        int n = 0;
        for (int y = y0; y < y1; ++y)
            for (int x = x0; x < x1; ++x) n += channel(c, CW, x, y, 0) > 240;
        return n;
    };
    EXPECT_GT(brightIn(12, baseline - s, 80, baseline + 1), 10);
    EXPECT_GT(brightIn(W + 20, baseline - s, W + 120, baseline + 1), 10);
    EXPECT_GT(brightIn(12, CH - 10 - 15, 120, CH - 9), 10);
    EXPECT_EQ(brightIn(0, baseline + 7, CW, H), 0);
}

} // namespace
} // namespace qv
