// The stencil chain's own math and stages on values worked out by hand (the
// float routines with a separate single-precision calculation); the whole
// chain is locked by the golden jobs.
#include <gtest/gtest.h>

#include <climits>
#include <cstdint>
#include <cstring>
#include <limits>
#include <vector>

#include "enhance/rv_enhance.h"

namespace {

using Bytes = std::vector<uint8_t>;
const float kNaN = std::numeric_limits<float>::quiet_NaN();

Bytes bytesOf(const RVImage& img) {
  return Bytes(img.data(), img.data() + img.byteCount());
}

RVImage gray(int w, int h, const Bytes& px) {
  return RVImage(w, h, RV_IMG_GRAY, px.data());
}

TEST(RvMath, RoutinesOnWorkedValues) {
  // Newton roots return the estimate before the converged one (0.25 gives
  // 0.50000006); exp divides before it multiplies (2.5 ends ...7b the other
  // way) and stops after 20 terms (e^30 is 1.07e13); ln(2) = 0.69314718.
  const std::pair<float, uint32_t> floats[] = {
      // clang-format off
      {my_sqrt(-4), 0xbf800000}, {my_sqrt(0), 0},          {my_sqrt(4), 0x40000000},
      {my_sqrt(0.25f), 0x3f000001}, {my_sqrt(7), 0x40295400}, {my_exp(0), 0x3f800000},
      {my_exp(1), 0x402df855},   {my_exp(2.5f), 0x4142eb7c}, {my_exp(-1), 0x3ebc5ab1},
      {my_exp(30), 0x52af9606},  {my_ln(0), 0xbf800000},     {my_ln(-3), 0xbf800000},
      {my_ln(1), 0},             {my_ln(2), 0x3f317218},     {my_ln(0.5f), 0xbf317219},
      {my_ln(255), 0x40b15208},  {my_pow(0, 0), 0x3f800000}, {my_pow(0, 2), 0},
      {my_pow(0, -1), 0xbf800000}, {my_pow(0, kNaN), 0xbf800000}, {my_pow(-2, 0.5f), 0xbf800000},
      {my_pow(-2, 3e9f), 0xbf800000},  // no int holds 3e9
      {my_pow(-2, 2), 0x3e0a9554},     // exp(-2): ln of a negative base is -1
      {my_pow(0.5f, 0.85f), 0x3f0e065f}, {my_pow(10, -2), 0x3c23d70a},
      {myabs(-0.0f), 0x80000000},      // 0.0 > -0.0 is false
      // clang-format on
  };
  for (size_t i = 0; i < std::size(floats); ++i) {
    uint32_t bits;
    memcpy(&bits, &floats[i].first, sizeof bits);
    EXPECT_EQ(bits, floats[i].second) << "row " << i << ": " << floats[i].first;
  }
  // Rounding adds 0.5 in float: 0.49999997 + 0.5 ties to 1.0 there.
  const struct {
    float v;
    int round, trunc;
  } numbers[] = {
      // clang-format off
      {0.5f, 1, 0}, {-0.5f, -1, 0}, {-0.4f, 0, 0}, {2.5f, 3, 2}, {-2.5f, -3, -2}, {254.5f, 255, 254},
      {0.49999997f, 1, 0}, {2147483520.0f, 2147483520, 2147483520}, {3e9f, INT_MIN, INT_MIN},
      {kNaN, INT_MIN, INT_MIN},
      // clang-format on
  };
  for (const auto& c : numbers) {
    EXPECT_EQ(my_round(c.v), c.round) << c.v;
    EXPECT_EQ(rvTruncToInt(c.v), c.trunc) << c.v;
  }
}

TEST(RvStages, GrayMomentsAndToneCurve) {
  // 0.114 * 255 = 29.07, 0.299 * 255 = 76.245: blue-first layouts weigh byte
  // 0 by 0.114, the others by 0.299; alpha is ignored. For BGR 1,5,249 only the
  // stated order of the float sums reaches 77.5 (the other way 77.49999).
  const struct {
    int color;
    Bytes pixel;
    int expected;
  } pixels[] = {{RV_IMG_GRAY, {200}, 200},          {RV_IMG_BGR, {255, 0, 0}, 29},
                {RV_IMG_RGBA, {255, 0, 0, 99}, 76}, {-1, {255, 0, 0, 255}, 76},
                {RV_IMG_BGR, {1, 5, 249}, 78},      {RV_IMG_RGB, {2, 6, 170}, 24}};
  for (const auto& c : pixels)
    EXPECT_EQ(bytesOf(cvtGray(RVImage(1, 1, static_cast<RV_IMG_COLOR>(c.color), c.pixel.data()))),
              Bytes{static_cast<uint8_t>(c.expected)})
        << "color " << c.color;
  // {0,0,100,200}: m1 = 75, m2 = 12500, m3 = 2.25e6, z0 ~ 10.05, z1 ~ 180.85,
  // p0 ~ 0.62: the cumulative 0.5 at level 0 is not above it, 0.75 at 100 is.
  // A uniform page has NaN moments and no level; {32,33,33} cancels in float
  // to a discriminant of about -1.25.
  const std::pair<Bytes, int> histograms[] = {{{0, 0, 100, 200}, 100},
                                              {{0, 0, 64, 255}, 64},
                                              {{10, 10, 10, 50, 50, 250}, 50},
                                              {Bytes(9, 77), -1},
                                              {{32, 33, 33}, 128}};
  for (const auto& [px, level] : histograms)
    EXPECT_EQ(thresh_global_moments(gray(static_cast<int>(px.size()), 1, px)), level);
  // Tone curves worked with real powers; each lies well away from an integer.
  const struct {
    int knee;
    float g1, g2;
    int level, expected;
  } tones[] = {
      // clang-format off
      {64, 0.85f, 0.7f, 0, 0}, {64, 0.85f, 0.7f, 64, 64}, {64, 0.85f, 0.7f, 255, 255},
      {64, 0.85f, 0.7f, 32, 35},    // 0.5^0.85 * 64 = 35.51
      {64, 0.85f, 0.7f, 128, 152},  // (64/191)^0.7 * 191 + 64 = 152.85
      {100, 0.5f, 1.5f, 50, 70},    // sqrt(0.5) * 100 = 70.71
      {100, 0.5f, 1.5f, 200, 180},  // (100/155)^1.5 * 155 + 100 = 180.32
      // Knee -1: all levels on the upper curve, over 256 levels, shifted by -1.
      {-1, 0.85f, 0.7f, 0, 4},      // (1/256)^0.7 * 256 - 1 = 4.28
      {-1, 0.5f, 1.5f, 0, 0},       // 1/16 - 1 = -0.94 truncates toward zero
      {-1, 0.5f, 1.5f, 127, 89},    // 0.5^1.5 * 256 - 1 = 89.51
      // Knee 255: level 255 takes 0/0; the NaN converts to INT_MIN, low byte 0.
      {255, 0.5f, 1.5f, 255, 0}, {255, 0.5f, 1.5f, 254, 254},  // sqrt(254/255) * 255 = 254.4995
      // clang-format on
  };
  for (const auto& c : tones) {
    RVImage img = gray(1, 1, {static_cast<uint8_t>(c.level)});
    enh_piecewise_gamma(img, c.knee, c.g1, c.g2);
    EXPECT_EQ(img.data()[0], c.expected) << "knee " << c.knee << " level " << c.level;
  }
}

TEST(RvStages, BlursOnHandKernels) {
  // Samples beyond the edge repeat the edge pixel; .5 rounds up; the low byte is kept.
  const double k[3] = {0.25, 0.5, 0.25}, twice[3] = {0, 2, 0};
  const RVImage img = gray(3, 2, {0, 100, 200, 0, 50, 10});
  EXPECT_EQ(bytesOf(convolve1D(img, k, 3, false)), (Bytes{0, 88, 153, 0, 63, 58}));
  EXPECT_EQ(bytesOf(convolve1D(img, twice, 3, true)), (Bytes{0, 200, 144, 0, 100, 20}));
  // 3 x 3 Gaussian at sigma 1, weights 1, e^-0.5, e^-1 over their sum 4.8976:
  // a bright centre spreads as 255 * 0.2042 = 52, 0.1238 -> 32, 0.0751 -> 19.
  EXPECT_EQ(bytesOf(enh_gaussian_filter(gray(3, 3, {0, 0, 0, 0, 255, 0, 0, 0, 0}), 3, 1.0, 1.0)),
            (Bytes{19, 32, 19, 32, 52, 32, 19, 32, 19}));
  // Unsharp combination: round(image * (1 + a) - blurred * a), clamped; a in tenths.
  const uint8_t weighted[][4] = {{200, 100, 10, 255}, {50, 150, 10, 0},   {100, 50, 10, 150},
                                 {101, 100, 5, 102},  {100, 101, 5, 100}, {10, 0, 30, 40}};
  for (const auto& c : weighted)
    EXPECT_EQ(add_Weighted(gray(1, 1, {c[0]}), gray(1, 1, {c[1]}), c[2] / 10.0f).data()[0], c[3])
        << int(c[0]) << " " << int(c[1]);
  RVImage empty(0, 3, RV_IMG_BGR);  // an empty page comes back as a copy, colour type and all
  EXPECT_EQ(rvTattooDithering(empty).color + rvTattooDitheringQ7(empty).height, RV_IMG_BGR + 3);
}

}  // namespace
