// The image object on hand-worked cases the page pipeline never reaches on
// its own: other depths, limits, off-page access, the transforms no job
// option selects, and the diffusion kernels' tables and edges.
#include <gtest/gtest.h>

#include <cstdint>
#include <vector>

#include "image/cximage.h"

namespace {

using Bytes = std::vector<uint8_t>;
const tagRGBQUAD kWhite = {255, 255, 255, 0};

// An image of the given depth with the gray palette; px holds rows 0, 1, ...
CxImage& fill(CxImage& img, int w, int h, uint32_t bpp, const Bytes& px) {
  img.Create(w, h, bpp, 0);
  img.SetGrayPalette();
  for (int i = 0; i < w * h; ++i)
    img.SetPixelIndex(i % w, i / w, px[i]);
  return img;
}

Bytes pixelsOf(const CxImage& img) {
  Bytes out;
  for (uint32_t i = 0; i < img.GetWidth() * img.GetHeight(); ++i)
    out.push_back(img.GetPixelIndex(i % img.GetWidth(), i / img.GetWidth()));
  return out;
}

Bytes blockOf(const CxImage& img) {
  const auto* p = static_cast<const uint8_t*>(img.GetDIB());
  return Bytes(p, p + img.GetSize());
}

TEST(CxImage, CreateLimitsDepthsAndPixels) {
  // 65536 x 32768 x 8 bits = 2^34 wraps to 0, and 0 / 8 is not 2^31 = w x h.
  const char kNoSize[] = "CxImage::Create : width and height must be greater than zero";
  const struct {
    uint32_t w, h, asked;
    const char* error;  // null: created
    uint32_t bpp, colors, effWidth;
  } cases[] = {
      // clang-format off
      {0, 5, 8, kNoSize, 0, 0, 0}, {5, 0, 8, kNoSize, 0, 0, 0},
      {65536, 32768, 8, "CXIMAGE_MAX_MEMORY exceeded", 0, 0, 0},
      {33, 2, 0, nullptr, 1, 2, 8},  {3, 2, 2, nullptr, 4, 16, 4}, {9, 2, 4, nullptr, 4, 16, 8},
      {5, 2, 5, nullptr, 8, 256, 8}, {1, 2, 24, nullptr, 24, 0, 4}, {3, 2, 32, nullptr, 24, 0, 12},
      // clang-format on
  };
  for (const auto& c : cases) {
    CxImage img;
    img.Create(c.w, c.h, c.asked, 9);
    img.Create(1, 1, 8, 0);  // success keeps an earlier error text
    EXPECT_STREQ(img.GetLastError(), c.error ? c.error : "");
    if (c.error == nullptr && img.Create(c.w, c.h, c.asked, 9) != nullptr) {
      EXPECT_EQ(
          (std::vector<uint32_t>{img.GetBpp(), img.GetNumColors(), img.GetEffWidth(),
                                 img.GetSize()}),
          (std::vector<uint32_t>{c.bpp, c.colors, c.effWidth, 40 + 4 * c.colors + 2 * c.effWidth}));
    }
  }
  CxImage huge;  // here both products wrap to 0, which passes: header and palette only
  ASSERT_NE(huge.Create(65536, 65536, 8, 0), nullptr);
  EXPECT_EQ(huge.GetSize(), 40u + 1024u);

  CxImage mono, g8;
  ASSERT_NE(mono.Create(16, 2, 1, 0), nullptr);
  mono.SetPixelIndex(9, 1, 1);   // byte 9 / 8 = 1, bit 7 - 9 % 8 = 6
  mono.SetPixelIndex(15, 1, 3);  // only bit 0 of the index counts
  mono.SetPixelIndex(0, 0, 1);
  EXPECT_EQ(mono.GetBits(1)[1], 0x41);
  EXPECT_EQ(mono.GetPixelIndex(-1, 0), 0x80);  // off the page: the first packed byte
  fill(g8, 3, 2, 8, {42, 1, 2, 3, 4, 5});
  const Bytes before = blockOf(g8);
  for (const auto& [x, y] : {std::pair{-1, 0}, {0, -1}, {3, 0}, {0, 2}}) {
    EXPECT_EQ(g8.GetPixelIndex(x, y), 42);
    g8.SetPixelIndex(x, y, 0xFF);
  }
  EXPECT_EQ(blockOf(g8), before);
  // Rows are copied min(effWidth, line length) bytes from lines that far apart.
  const Bytes src = {1, 2, 3, 4, 5, 6, 7, 8};
  ASSERT_TRUE(g8.CreateFromArray(src.data(), 6, 2, 8, 4, false));
  EXPECT_EQ(Bytes(g8.GetBits(1), g8.GetBits(1) + 8), (Bytes{5, 6, 7, 8, 0, 0, 0, 0}));
  // Nearest palette colour: 48387 away from black beats 49152 from white; of
  // two equally near entries the lower index wins.
  mono.SetGrayPalette();
  EXPECT_EQ(mono.GetNearestIndex({127, 127, 127, 0}), 0);
  EXPECT_EQ(mono.GetNearestIndex({200, 200, 200, 0}), 1);
  mono.SetPaletteColor(1, 0, 0, 0);
  EXPECT_EQ(mono.GetNearestIndex({1, 1, 1, 0}), 0);
}

TEST(CxTransform, LightRotateExpandNegativeAndDepth) {
  // v = (i - 128) * c + b + 0.5 in float, truncated, clamped; c = (contrast + 100) / 100.
  // c = 0.1f: -125 c rounds to exactly -12.5 in float, so index 3 gives 116.0.
  const int light[][4] = {
      // clang-format off
      {0, -100, 0, 128}, {0, -100, 255, 128}, {200, 0, 0, 200}, {200, 0, 55, 255}, {-200, 0, 255, 55},
      {-200, 0, 200, 0}, {0, 50, 42, 0}, {0, 50, 43, 1}, {0, 50, 213, 255}, {10, 50, 100, 96},
      {0, -90, 3, 116}, {0, -90, 0, 115},
      // clang-format on
  };
  for (const auto& c : light) {
    CxImage img;
    fill(img, 1, 1, 8, {static_cast<uint8_t>(c[2])}).Light(c[0], c[1]);
    EXPECT_EQ(img.GetPixelIndex(0, 0), c[3]) << c[0] << "," << c[1] << " index " << c[2];
  }
  CxImage mono, img, dot;
  // A 1-bit image comes back 8 bits deep with its indices at (9 - x, 1 - y).
  Bytes px(20, 0), turned(20, 0);
  px[0] = px[1] = px[13] = px[19] = turned[0] = turned[6] = turned[18] = turned[19] = 1;
  ASSERT_TRUE(fill(mono, 10, 2, 1, px).Rotate180());
  EXPECT_EQ(mono.GetBpp(), 8);
  EXPECT_EQ(pixelsOf(mono), turned);
  // Row 0 is the bottom line, so the bottom amount offsets the old rows.
  fill(img, 2, 2, 8, {1, 2, 3, 4});
  EXPECT_FALSE(img.Expand(-1, 0, 0, 0, kWhite));
  ASSERT_TRUE(img.Expand(1, 0, 2, 1, kWhite));
  EXPECT_EQ(pixelsOf(img),
            (Bytes{255, 255, 255, 255, 255, 255, 1, 2, 255, 255, 255, 3, 4, 255, 255}));
  EXPECT_FALSE(fill(dot, 1, 1, 8, {9}).Expand(65535, 32767, 0, 0, kWhite));
  EXPECT_STREQ(dot.GetLastError(), "CXIMAGE_MAX_MEMORY exceeded");
  // Negative flips the row padding too, and twice restores the block.
  img.GetBits(0)[5] = 0x5A;
  img.Negative();
  EXPECT_EQ(img.GetBits(0)[5], 0xA5);
  const uint32_t depths[][3] = {{8, 8, 1}, {24, 8, 0}, {8, 16, 0}, {8, 4, 0}, {1, 1, 0}};
  for (const auto& d : depths) {
    CxImage i;
    i.Create(3, 2, d[0], 0);
    EXPECT_EQ(i.IncreaseBpp(d[1]), d[2] == 1) << d[0] << "->" << d[1];
  }
}

TEST(CxDither, KernelsThresholdAndEdges) {
  // Every diffusion kernel spreads exactly its error, forward only.
  for (long method : {2, 3, 4, 5, 6, 8}) {
    const CxDiffusionKernel* k = cxDiffusionKernel(method);
    int sum = 0;
    for (int c = 0; c < k->cellCount; ++c) {
      sum += k->cells[c].weight;
      EXPECT_TRUE(k->cells[c].dy > 0 || k->cells[c].dx > 0) << method;
    }
    EXPECT_EQ(sum, k->divisor) << method;
  }
  EXPECT_EQ(cxDiffusionKernel(-1), cxDiffusionKernel(8));  // unknown numbers: Floyd-Steinberg
  EXPECT_EQ(cxDiffusionKernel(7), nullptr);
  const auto dither = [](Bytes gray, int w, int h, long method) {
    CxImage img;
    img.CreateFromArray(gray.data(), w, h, 8, w, false);
    img.Dither(method);
    return pixelsOf(img);
  };
  EXPECT_EQ(dither({128, 129}, 2, 1, 0), (Bytes{0, 1}));
  // Floyd-Steinberg: (1,0) = 129 is white with e = -126; its 7/16 falls off the
  // right edge and (0,1) gets only 3/16: 160 - 23 = 137, white. Stevenson-Arce
  // on one column: only (0, +2) lands, 100 * 26 / 200 = 13: 110 + 13 stays black.
  EXPECT_EQ(dither({255, 129, 160, 255}, 2, 2, 8), (Bytes{1, 1, 1, 1}));
  EXPECT_EQ(dither({100, 255, 110}, 1, 3, 6), (Bytes{0, 1, 0}));
}

}  // namespace
