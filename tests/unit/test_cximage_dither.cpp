#include "image/cximage.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdint>
#include <random>
#include <vector>

namespace {

struct Page {
  int w, h;
  std::vector<uint8_t> gray;  // rows 0, 1, ... in stored order
};

// 8-bit gray image of the page, dithered with `method`; the 0/1 indices come back.
std::vector<uint8_t> dither(const Page& p, long method) {
  CxImage img;
  EXPECT_TRUE(img.CreateFromArray(p.gray.data(), p.w, p.h, 8, p.w, false));
  EXPECT_TRUE(img.Dither(method));
  EXPECT_EQ(img.GetBpp(), 1);
  std::vector<uint8_t> out;
  for (int y = 0; y < p.h; ++y)
    for (int x = 0; x < p.w; ++x)
      out.push_back(img.GetPixelIndex(x, y));
  return out;
}

Page uniform(int w, int h, uint8_t g) {
  return {w, h, std::vector<uint8_t>(w * h, g)};
}

Page randomPage(int w, int h, unsigned seed) {
  std::mt19937 rng(seed);
  Page p{w, h, std::vector<uint8_t>(w * h)};
  for (auto& v : p.gray)
    v = static_cast<uint8_t>(rng() % 256);
  return p;
}

TEST(CxImageDither, UniformBlackAndWhiteStayPureUnderEveryMethod) {
  for (long method = 0; method <= 8; ++method) {
    EXPECT_EQ(dither(uniform(8, 8, 0), method), std::vector<uint8_t>(64, 0)) << method;
    EXPECT_EQ(dither(uniform(8, 8, 255), method), std::vector<uint8_t>(64, 1)) << method;
  }
}

TEST(CxImageDither, ThresholdMethodSplitsBetween128And129) {
  for (int g = 0; g < 256; ++g)
    ASSERT_EQ(dither(uniform(5, 2, static_cast<uint8_t>(g)), 0),
              std::vector<uint8_t>(10, g >= 129 ? 1 : 0))
        << g;
}

// Fixed ordered matrix: level = g * 16 / 255; white where the cell is below the level.
const int kFixedMatrix[4][4] = {{0, 8, 2, 10}, {12, 4, 14, 6}, {3, 11, 1, 9}, {15, 7, 13, 5}};
// Generated matrix: white where the gray is above the cell (ties black).
const int kGeneratedMatrix[4][4] = {
    {0, 192, 48, 240}, {128, 64, 176, 112}, {32, 224, 16, 208}, {160, 96, 144, 80}};

TEST(CxImageDither, OrderedMatricesCellByCell) {
  for (int g = 0; g < 256; ++g) {
    const std::vector<uint8_t> fixed = dither(uniform(8, 8, static_cast<uint8_t>(g)), 1);
    const std::vector<uint8_t> generated = dither(uniform(8, 8, static_cast<uint8_t>(g)), 7);
    const int level = g * 16 / 255;
    for (int y = 0; y < 8; ++y)
      for (int x = 0; x < 8; ++x) {
        const int wantFixed = level == 16 || kFixedMatrix[y & 3][x & 3] < level;
        const int wantGenerated = g > kGeneratedMatrix[y & 3][x & 3];
        ASSERT_EQ(fixed[y * 8 + x], wantFixed) << "gray " << g << " at " << x << "," << y;
        ASSERT_EQ(generated[y * 8 + x], wantGenerated) << "gray " << g << " at " << x << "," << y;
      }
  }
}

// Kernel cells as (dx, dy, weight) triples in the order they are applied.
struct Kernel {
  long method;
  int64_t divisor;
  std::vector<int> cells;
};
// clang-format off
const Kernel kKernels[] = {
    {2, 32, {1, 0, 8,   2, 0, 4,                                            // Burkes
             -2, 1, 2,  -1, 1, 4,  0, 1, 8,  1, 1, 4,  2, 1, 2}},
    {3, 42, {1, 0, 8,   2, 0, 4,                                            // Stucki
             -2, 1, 2,  -1, 1, 4,  0, 1, 8,  1, 1, 4,  2, 1, 2,
             -2, 2, 1,  -1, 2, 2,  0, 2, 4,  1, 2, 2,  2, 2, 1}},
    {4, 48, {1, 0, 7,   2, 0, 5,                                            // Jarvis-Judice-Ninke
             -2, 1, 3,  -1, 1, 5,  0, 1, 7,  1, 1, 5,  2, 1, 3,
             -2, 2, 1,  -1, 2, 3,  0, 2, 5,  1, 2, 3,  2, 2, 1}},
    {5, 32, {1, 0, 5,   2, 0, 3,                                            // Sierra
             -2, 1, 2,  -1, 1, 4,  0, 1, 5,  1, 1, 4,  2, 1, 2,
             -1, 2, 2,  0, 2, 3,   1, 2, 2}},
    {6, 200, {2, 0, 32,                                                     // Stevenson-Arce
              -3, 1, 12,  -1, 1, 26,  1, 1, 30,  3, 1, 16,
              -2, 2, 12,  0, 2, 26,   2, 2, 12,
              -3, 3, 5,   -1, 3, 12,  1, 3, 12,  3, 3, 5}},
    {8, 16, {1, 0, 7,  -1, 1, 3,  0, 1, 5,  1, 1, 1}},                      // Floyd-Steinberg
};
// clang-format on

// Straightforward error diffusion: the error lives in the gray page itself, each
// cell is truncated and clamped on its own, and whatever falls off the page is lost.
std::vector<uint8_t> diffuse(Page p, const Kernel& k) {
  std::vector<uint8_t> out(p.gray.size());
  for (int y = 0; y < p.h; ++y)
    for (int x = 0; x < p.w; ++x) {
      const int g = p.gray[y * p.w + x];
      out[y * p.w + x] = g < 129 ? 0 : 1;
      const int64_t e = g < 129 ? g : g - 255;
      for (size_t c = 0; c < k.cells.size(); c += 3) {
        const int nx = x + k.cells[c], ny = y + k.cells[c + 1];
        if (nx < 0 || nx >= p.w || ny >= p.h)
          continue;
        const int64_t n = p.gray[ny * p.w + nx] + e * k.cells[c + 2] / k.divisor;
        p.gray[ny * p.w + nx] = static_cast<uint8_t>(std::clamp<int64_t>(n, 0, 255));
      }
    }
  return out;
}

std::vector<Page> diffusionPages() {
  std::vector<Page> pages = {
      {5, 3, {100, 100, 100, 100, 100, 30, 200, 128, 129, 60, 250, 5, 140, 90, 180}},
      {6, 4, {200, 10,  128, 129, 255, 0,   64, 192, 32, 224, 96,  160,
              1,   254, 127, 130, 50,  205, 77, 178, 99, 156, 143, 112}},
      {1, 1, {100}},
      {7, 1, {90, 90, 90, 90, 90, 90, 90}},
      {1, 6, {200, 200, 200, 200, 200, 200}},
      uniform(6, 5, 128),
      uniform(6, 5, 129),
      uniform(7, 4, 60),
  };
  for (unsigned seed = 1; seed <= 6; ++seed)
    pages.push_back(randomPage(3 + seed, 2 + seed, seed));
  pages.push_back(randomPage(31, 17, 99));
  return pages;
}

TEST(CxImageDither, ErrorDiffusionKernelsMatchStraightforwardReference) {
  for (const Kernel& k : kKernels) {
    int64_t sum = 0;
    for (size_t c = 2; c < k.cells.size(); c += 3)
      sum += k.cells[c];
    ASSERT_EQ(sum, k.divisor) << "kernel table of method " << k.method;
    int n = 0;
    for (const Page& p : diffusionPages())
      EXPECT_EQ(dither(p, k.method), diffuse(p, k)) << "method " << k.method << ", page " << n++;
  }
}

TEST(CxImageDither, OutOfRangeMethodNumbersRunFloydSteinberg) {
  const Kernel& floyd = kKernels[5];
  for (const Page& p : {randomPage(9, 7, 5), randomPage(16, 3, 6)})
    for (long method : {8L, 9L, 100L, -1L})
      EXPECT_EQ(dither(p, method), diffuse(p, floyd)) << method;
}

TEST(CxImageDither, ErrorFallingOffTheEdgesIsLost) {
  // Floyd-Steinberg, one row: 100 black, e = 100, next gets 700/16 = 43 -> 143 white,
  // e = -112, next gets -784/16 = -49 -> 51 black; nothing comes back.
  EXPECT_EQ(dither({3, 1, {100, 100, 100}}, 8), (std::vector<uint8_t>{0, 1, 0}));
  // (1,0) = 129 is white with e = -126. Its 7/16 (-55) falls off the right edge;
  // (0,1) gets only 3/16: 160 - 23 = 137, white. Carried to the next row start
  // it would be 82, black. (1,1): 255 - 39 = 216, then -118*7/16 = -51 -> 165, white.
  EXPECT_EQ(dither({2, 2, {255, 129, 160, 255}}, 8), (std::vector<uint8_t>{1, 1, 1, 1}));
  // Stevenson-Arce on one column: only the (0, +2) cell lands, 100*26/200 = 13, so
  // (0,2) = 110 + 13 = 123 stays black; the +2 cell of the same row is off the page
  // (wrapped into the column it would add 16 more and turn it white).
  EXPECT_EQ(dither({1, 3, {100, 255, 110}}, 6), (std::vector<uint8_t>{0, 1, 0}));
}

TEST(CxImageDither, OneBitImageIsLeftAlone) {
  CxImage img;
  ASSERT_NE(img.Create(10, 2, 1, 0), nullptr);
  img.SetGrayPalette();
  img.SetPixelIndex(3, 1, 1);
  const auto* p = static_cast<const uint8_t*>(img.GetDIB());
  const std::vector<uint8_t> before(p, p + img.GetSize());
  EXPECT_TRUE(img.Dither(8));
  EXPECT_EQ(img.GetDIB(), p);
  EXPECT_EQ(std::vector<uint8_t>(p, p + img.GetSize()), before);
  CxImage empty;
  EXPECT_FALSE(empty.Dither(0));
  EXPECT_FALSE(empty.IsValid());
  EXPECT_STREQ(empty.GetLastError(), "");
}

TEST(CxImageDither, ResultIsOneBitWithBlackAndWhitePalette) {
  for (long method : {0L, 1L, 3L, 7L, 8L}) {
    CxImage img;
    ASSERT_NE(img.Create(33, 3, 8, 7), nullptr);
    img.SetGrayPalette();
    ASSERT_TRUE(img.Dither(method));
    EXPECT_EQ(img.GetBpp(), 1);
    EXPECT_EQ(img.GetNumColors(), 2u);
    EXPECT_EQ(img.GetWidth(), 33u);
    EXPECT_EQ(img.GetHeight(), 3u);
    EXPECT_EQ(img.GetType(), 7u);
    EXPECT_EQ(img.GetEffWidth(), 8u);  // 33 bits padded to 2 words
    EXPECT_EQ(img.GetSize(), 40u + 8 + 8 * 3);
    const tagRGBQUAD k = img.GetPaletteColor(0), w = img.GetPaletteColor(1);
    EXPECT_EQ((std::vector<int>{k.rgbBlue, k.rgbGreen, k.rgbRed, k.rgbReserved, w.rgbBlue,
                                w.rgbGreen, w.rgbRed, w.rgbReserved}),
              (std::vector<int>{0, 0, 0, 0, 255, 255, 255, 0}));
  }
}

}  // namespace
