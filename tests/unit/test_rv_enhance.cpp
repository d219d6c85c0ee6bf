#include "enhance/rv_enhance.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <random>
#include <vector>

namespace {

using Bytes = std::vector<uint8_t>;

RVImage makeImage(int w, int h, RV_IMG_COLOR color, const Bytes& px) {
  EXPECT_EQ(static_cast<size_t>(w * h * rvChannelsFor(color)), px.size());
  return RVImage(w, h, color, px.data());
}

Bytes bytesOf(const RVImage& img) {
  return Bytes(img.data, img.data + img.byteCount());
}

Bytes randomBytes(size_t n, unsigned seed) {
  std::mt19937 rng(seed);
  Bytes b(n);
  for (auto& v : b)
    v = static_cast<uint8_t>(rng() % 256);
  return b;
}

// Inline references: each follows the routine's single-precision arithmetic
// step by step, for small inputs only.
int roundRef(float v) {
  return v >= 0.0f ? static_cast<int>(v + 0.5f) : static_cast<int>(v - 0.5f);
}

int grayRef(int c0, int c1, int c2, bool blueFirst) {
  float f0 = c0, f1 = c1, f2 = c2;
  float v = blueFirst ? 0.299f * f2 + (0.114f * f0 + 0.587f * f1)
                      : 0.114f * f2 + (0.299f * f0 + 0.587f * f1);
  return roundRef(v) & 255;
}

// Newton root as the chain computes it; NaN passes straight through.
float sqrtRef(float x, bool* converged) {
  *converged = true;
  if (x != x || x == 0.0f)
    return x;
  float g = x / 2.0f;
  for (int k = 0; k < 1000; ++k) {
    float n = 0.5f * (g + x / g);
    float d = n - g;
    if ((0.0f > d ? -d : d) < 1e-6f)
      return g;
    g = n;
  }
  *converged = false;
  return g;
}

int momentsRef(const Bytes& px, float* discOut, bool* converged) {
  int hist[256] = {};
  for (uint8_t v : px)
    ++hist[v];
  float p[256];
  for (int i = 0; i < 256; ++i)
    p[i] = static_cast<float>(hist[i]) / static_cast<float>(px.size());
  float m0 = 1.0f, m1 = 0.0f, m2 = 0.0f, m3 = 0.0f;
  for (int i = 0; i < 256; ++i) {
    m1 += static_cast<float>(i) * p[i];
    m2 += static_cast<float>(i * i) * p[i];
    m3 += static_cast<float>(i * i * i) * p[i];
  }
  float cd = m0 * m2 - m1 * m1;
  float c0 = (m1 * m3 - m2 * m2) / cd;
  float c1 = (m1 * m2 - m0 * m3) / cd;
  float disc = static_cast<float>(static_cast<double>(c1 * c1) + -4.0 * static_cast<double>(c0));
  *discOut = disc;
  *converged = true;
  if (disc < 0.0f)
    return 128;
  float root = sqrtRef(disc, converged);
  float z0 = 0.5f * (-c1 - root), z1 = 0.5f * (-c1 + root);
  float p0 = (z1 - m1) / (z1 - z0);
  float cum = 0.0f;
  for (int i = 0; i < 256; ++i) {
    cum += p[i];
    if (cum > p0)
      return i;
  }
  return -1;
}

Bytes edfRef(const Bytes& in, int w, int h, int threshold) {
  struct Tap {
    int dx, dy;
    float weight;
  } const taps[6] = {{1, 0, 0.505786f},  {2, 0, -0.052926f}, {-2, 1, 0.226194f},
                     {-1, 1, 0.128835f}, {0, 1, 0.243191f},  {1, 1, -0.111078f}};
  std::vector<float> err(in.size(), 0.0f);
  Bytes out(in.size());
  for (int y = 0; y < h; ++y) {
    for (int x = 0; x < w; ++x) {
      int i = y * w + x;
      float v = err[i] + static_cast<float>(in[i]);
      float e = v;
      out[i] = 0;
      if (v > static_cast<float>(threshold)) {
        out[i] = 255;
        if (y >= 1 && x >= 1 && y < h - 1 && x < w - 1) {
          float s = 0.0f;
          if (out[i - 1] == 0)
            s += 0.1427f;
          if (out[i - w] == 0)
            s += 0.1427f;
          e = (1.0f - s) * -255.0f + v;
        } else {
          e = v - 255.0f;
        }
      }
      for (const Tap& t : taps) {
        int nx = x + t.dx, ny = y + t.dy;
        if (nx >= 0 && nx < w && ny >= 0 && ny < h)
          err[ny * w + nx] += e * t.weight;
      }
    }
  }
  return out;
}

TEST(RvGray, WeightOrderFollowsColor) {
  // 0.114 * 255 = 29.07, 0.299 * 255 = 76.245, 0.587 * 255 = 149.685. The
  // last four are pixels where only the chain's order of the float sums lands
  // on .5 or above (BGR 1,5,249 gives 77.5; summed the other way 77.49999).
  struct Case {
    int color;
    Bytes pixel;
    int expected;
  } cases[] = {
      {RV_IMG_BGR, {255, 255, 255}, 255}, {RV_IMG_BGR, {255, 0, 0}, 29},
      {RV_IMG_BGR, {0, 0, 255}, 76},      {RV_IMG_BGR, {0, 255, 0}, 150},
      {RV_IMG_RGB, {255, 0, 0}, 76},      {RV_IMG_RGB, {0, 0, 255}, 29},
      {RV_IMG_BGRA, {255, 0, 0, 7}, 29},  {RV_IMG_BGRA, {255, 0, 0, 250}, 29},
      {RV_IMG_RGBA, {255, 0, 0, 99}, 76}, {5, {255, 0, 0, 0}, 76},
      {-1, {0, 0, 255, 255}, 29},         {RV_IMG_RGBA, {0, 0, 0, 255}, 0},
      {RV_IMG_BGR, {1, 5, 249}, 78},      {RV_IMG_BGR, {1, 76, 26}, 52},
      {RV_IMG_RGB, {2, 6, 170}, 24},      {RV_IMG_RGB, {3, 1, 44}, 7},
  };
  for (const Case& c : cases) {
    RVImage out = cvtGray(makeImage(1, 1, static_cast<RV_IMG_COLOR>(c.color), c.pixel));
    ASSERT_EQ(1, out.byteCount());
    EXPECT_EQ(c.expected, out.data[0]) << "color " << c.color;
  }
}

TEST(RvGray, MatchesReferenceOnRandomPages) {
  for (int color : {0, 1, 2, 3, 4}) {
    const int w = 7, h = 5, ch = rvChannelsFor(static_cast<RV_IMG_COLOR>(color));
    Bytes px = randomBytes(w * h * ch, 10 + color);
    RVImage out = cvtGray(makeImage(w, h, static_cast<RV_IMG_COLOR>(color), px));
    ASSERT_EQ(w, out.width);
    ASSERT_EQ(h, out.height);
    ASSERT_EQ(w * h, out.byteCount());
    EXPECT_EQ(RV_IMG_GRAY, out.color);
    for (int k = 0; k < w * h; ++k) {
      int expected = color == 0 ? px[k]
                                : grayRef(px[k * ch], px[k * ch + 1], px[k * ch + 2],
                                          color == 1 || color == 3);
      EXPECT_EQ(expected, out.data[k]) << "color " << color << " pixel " << k;
    }
  }
}

int moments(const Bytes& px) {
  return thresh_global_moments(makeImage(static_cast<int>(px.size()), 1, RV_IMG_GRAY, px));
}

TEST(RvMoments, HandWorkedThreeLevelPages) {
  // {0,0,100,200}: m1 = 75, m2 = 12500, m3 = 2.25e6, so c0 = 12.5e6 / 6875,
  // c1 = -1312500 / 6875, z0 ~ 10.05, z1 ~ 180.85 and p0 ~ 0.62: the
  // cumulative 0.5 at level 0 is not above it, 0.75 at level 100 is.
  // The others work the same way (p0 ~ 0.716 and ~ 0.815).
  EXPECT_EQ(100, moments({0, 0, 100, 200}));
  EXPECT_EQ(64, moments({0, 0, 64, 255}));
  EXPECT_EQ(50, moments({10, 10, 10, 50, 50, 250}));
}

TEST(RvMoments, UniformPageHasNoLevel) {
  // cd and both numerators are 0: NaN moments, NaN root, no level passes.
  for (uint8_t v : {0, 77, 255})
    EXPECT_EQ(-1, moments(Bytes(9, v))) << int(v);
}

TEST(RvMoments, NegativeDiscriminantGives128) {
  // Exactly, two levels a, b give disc (b - a)^2 = 1 here, but m2 - m1^2 and
  // the numerators cancel in float and leave about -1.25.
  Bytes px = {32, 33, 33};
  float disc = 0.0f;
  bool converged = false;
  ASSERT_EQ(128, momentsRef(px, &disc, &converged));
  ASSERT_LT(disc, -1.0f);
  EXPECT_EQ(128, moments(px));
}

TEST(RvMoments, MatchesReferenceOnTwoLevelAndRandomPages) {
  // Two levels make p0 equal the cumulative share of the dark level exactly,
  // so only the float arithmetic decides between the two levels.
  std::vector<Bytes> pages = {
      {0, 255}, {0, 0, 0, 255}, {20, 20, 200, 200, 200, 200, 200}, {254, 255, 255}};
  for (unsigned seed = 0; seed < 20; ++seed)
    pages.push_back(randomBytes(5 + seed * 7, 100 + seed));
  int compared = 0;
  for (const Bytes& px : pages) {
    float disc = 0.0f;
    bool converged = false;
    int expected = momentsRef(px, &disc, &converged);
    if (!converged)
      continue;  // a root cycling between two floats has no defined result
    ++compared;
    EXPECT_EQ(expected, moments(px)) << "page of " << px.size() << " pixels, disc " << disc;
  }
  EXPECT_GE(compared, 20);
}

Bytes toneTable(int knee, float g1, float g2) {
  Bytes ramp(256);
  for (int i = 0; i < 256; ++i)
    ramp[i] = static_cast<uint8_t>(i);
  RVImage img = makeImage(16, 16, RV_IMG_GRAY, ramp);
  enh_piecewise_gamma(img, knee, g1, g2);
  return bytesOf(img);
}

TEST(RvGamma, CurveKeepsEndPointsAndKnee) {
  // 0^g = 0, 0^g2 scaled and shifted gives the knee, 1^g2 = exp(0) = 1 exactly.
  const float gammas[][2] = {{0.85f, 0.7f}, {0.5f, 1.5f}, {2.0f, 0.5f}};
  for (int knee : {1, 64, 128, 200, 254}) {
    for (const auto& g : gammas) {
      Bytes lut = toneTable(knee, g[0], g[1]);
      EXPECT_EQ(0, lut[0]) << knee;
      EXPECT_EQ(knee, lut[knee]) << knee;
      EXPECT_EQ(255, lut[255]) << knee;
    }
  }
}

TEST(RvGamma, HandWorkedLevels) {
  // Values are worked with real powers; each lies well away from an integer,
  // so the series' small error cannot move the truncation.
  struct Case {
    int knee;
    float g1, g2;
    int level, expected;
  } cases[] = {
      {64, 0.85f, 0.7f, 32, 35},    // 0.5^0.85 * 64 = 35.51
      {64, 0.85f, 0.7f, 128, 152},  // (64/191)^0.7 * 191 + 64 = 152.85
      {100, 0.5f, 1.5f, 50, 70},    // sqrt(0.5) * 100 = 70.71
      {100, 0.5f, 1.5f, 200, 180},  // (100/155)^1.5 * 155 + 100 = 180.32
      // Knee -1: all levels on the upper curve, over 256 levels, shifted by -1.
      {-1, 0.85f, 0.7f, 0, 4},    // (1/256)^0.7 * 256 - 1 = 4.28
      {-1, 0.5f, 1.5f, 0, 0},     // 1/16 - 1 = -0.94 truncates toward zero
      {-1, 0.5f, 1.5f, 127, 89},  // 0.5^1.5 * 256 - 1 = 89.51
      {-1, 0.5f, 1.5f, 255, 255},
      {0, 0.5f, 0.7f, 0, 0},
      {0, 0.5f, 0.7f, 51, 82},  // 0.2^0.7 * 255 = 82.65
      // Knee 255: level 255 takes 0/0; the NaN converts to INT_MIN, low byte 0.
      {255, 0.5f, 1.5f, 255, 0},
      {255, 0.5f, 1.5f, 254, 254},  // sqrt(254/255) * 255 = 254.4995
      {255, 0.5f, 1.5f, 64, 127},   // sqrt(64/255) * 255 = 127.75
      {255, 0.5f, 1.5f, 0, 0},
  };
  for (const Case& c : cases)
    EXPECT_EQ(c.expected, toneTable(c.knee, c.g1, c.g2)[c.level])
        << "knee " << c.knee << " level " << c.level;
}

TEST(RvGauss, Kernel1DIsNormalisedAndSymmetric) {
  // Neighbour ratio e^(-1/(2 sigma^2)): e^-2, e^-0.5, e^(-1/18).
  const double ratios[][2] = {
      {0.5, 0.1353352832366127}, {1.0, 0.6065306597126334}, {3.0, 0.9459594689067654}};
  for (int size : {3, 11, 21}) {
    for (const auto& r : ratios) {
      std::vector<double> k(size);
      generateGaussianKernel1D(size, r[0], k.data());
      double sum = 0.0;
      for (double v : k)
        sum += v;
      EXPECT_NEAR(1.0, sum, 1e-12);
      const int half = size / 2;
      for (int j = 0; j < half; ++j) {
        EXPECT_EQ(k[j], k[size - 1 - j]) << size << " " << j;
        EXPECT_LT(k[j], k[j + 1]);
      }
      EXPECT_NEAR(r[1], k[half + 1] / k[half], 1e-6 * r[1]) << "sigma " << r[0];
    }
  }
  double one = 0.0;
  generateGaussianKernel1D(1, 3.0, &one);
  EXPECT_EQ(1.0, one);
}

TEST(RvGauss, EvenKernelSizeWritesOnlySizeEntries) {
  std::vector<double> k(5, 42.0);
  generateGaussianKernel1D(4, 1.0, k.data());
  EXPECT_EQ(42.0, k[4]);
  EXPECT_NEAR(1.0, k[0] + k[1] + k[2] + k[3], 1e-12);
}

TEST(RvGauss, Kernel2DIsNormalisedSymmetricAndAnisotropic) {
  const int size = 5, c = 2;
  std::vector<double> iso(size * size), aniso(size * size);
  generateGaussianKernel(size, 1.0, 1.0, iso.data());
  generateGaussianKernel(size, 1.0, 3.0, aniso.data());
  auto at = [&](const std::vector<double>& k, int dy, int dx) {
    return k[(dy + c) * size + dx + c];
  };
  for (const auto* k : {&iso, &aniso}) {
    double sum = 0.0;
    for (double v : *k)
      sum += v;
    EXPECT_NEAR(1.0, sum, 1e-12);
    for (int dy = -c; dy <= c; ++dy)
      for (int dx = -c; dx <= c; ++dx) {
        EXPECT_EQ(at(*k, dy, dx), at(*k, -dy, dx));
        EXPECT_EQ(at(*k, dy, dx), at(*k, dy, -dx));
      }
  }
  for (int dy = -c; dy <= c; ++dy)
    for (int dx = -c; dx <= c; ++dx)
      EXPECT_EQ(at(iso, dy, dx), at(iso, dx, dy));
  // Columns follow sigmaX = 1, rows sigmaY = 3.
  EXPECT_NEAR(0.6065306597126334, at(aniso, 0, 1) / at(aniso, 0, 0), 1e-6);
  EXPECT_NEAR(0.9459594689067654, at(aniso, 1, 0) / at(aniso, 0, 0), 1e-6);
}

TEST(RvGauss, Convolve1DWithHandKernel) {
  // Samples beyond the edge repeat the edge pixel; .5 rounds up.
  const double k[3] = {0.25, 0.5, 0.25};
  RVImage img = makeImage(3, 2, RV_IMG_GRAY, {0, 100, 200, 0, 50, 10});
  EXPECT_EQ((Bytes{25, 100, 175, 13, 28, 20}), bytesOf(convolve1D(img, k, 3, true)));
  EXPECT_EQ((Bytes{0, 88, 153, 0, 63, 58}), bytesOf(convolve1D(img, k, 3, false)));
  const double twice[3] = {0.0, 2.0, 0.0};  // 400 keeps its low byte, 144
  EXPECT_EQ((Bytes{0, 200, 144, 0, 100, 20}), bytesOf(convolve1D(img, twice, 3, true)));
  // A single tap two places away shifts the image; the edge pixel fills in.
  const double right[5] = {0, 0, 0, 0, 1}, left[5] = {1, 0, 0, 0, 0};
  RVImage row = makeImage(4, 1, RV_IMG_GRAY, {10, 20, 30, 40});
  EXPECT_EQ((Bytes{30, 40, 40, 40}), bytesOf(convolve1D(row, right, 5, true)));
  EXPECT_EQ((Bytes{10, 10, 10, 20}), bytesOf(convolve1D(row, left, 5, true)));
  RVImage column = makeImage(1, 4, RV_IMG_GRAY, {10, 20, 30, 40});
  EXPECT_EQ((Bytes{30, 40, 40, 40}), bytesOf(convolve1D(column, right, 5, false)));
  EXPECT_EQ((Bytes{10, 10, 10, 20}), bytesOf(convolve1D(column, left, 5, false)));
}

TEST(RvGauss, Filter2DIsClampedDirectSum) {
  const int w = 9, h = 7, size = 5, half = 2;
  Bytes px = randomBytes(w * h, 8);
  std::vector<double> k(size * size);
  generateGaussianKernel(size, 1.0, 2.0, k.data());
  RVImage out = enh_gaussian_filter(makeImage(w, h, RV_IMG_GRAY, px), size, 1.0, 2.0);
  ASSERT_EQ(w * h, out.byteCount());
  auto clamp = [](int v, int hi) { return v < 0 ? 0 : v > hi ? hi : v; };
  for (int y = 0; y < h; ++y)
    for (int x = 0; x < w; ++x) {
      double sum = 0.0;
      for (int dy = -half; dy <= half; ++dy)
        for (int dx = -half; dx <= half; ++dx)
          sum += px[clamp(y + dy, h - 1) * w + clamp(x + dx, w - 1)] *
                 k[(dy + half) * size + dx + half];
      EXPECT_EQ(roundRef(static_cast<float>(sum)) & 255, out.data[y * w + x]) << x << "," << y;
    }
}

TEST(RvGauss, OnePixelWideImageSurvivesPassAlongIt) {
  std::vector<double> k(11);
  generateGaussianKernel1D(11, 3.0, k.data());
  Bytes px = {0, 255, 17, 128, 3, 254, 90};
  EXPECT_EQ(px, bytesOf(convolve1D(makeImage(1, 7, RV_IMG_GRAY, px), k.data(), 11, true)));
  EXPECT_EQ(px, bytesOf(convolve1D(makeImage(7, 1, RV_IMG_GRAY, px), k.data(), 11, false)));
}

TEST(RvGauss, UniformPagesStayUniform) {
  for (uint8_t v : {0, 77, 255}) {
    RVImage img = makeImage(13, 9, RV_IMG_GRAY, Bytes(13 * 9, v));
    Bytes expected(13 * 9, v);
    EXPECT_EQ(expected, bytesOf(enh_gaussian_filter_fast(img, 11, 3.0))) << int(v);
    EXPECT_EQ(expected, bytesOf(enh_gaussian_filter(img, 5, 1.0, 2.0))) << int(v);
    EXPECT_EQ(expected, bytesOf(enh_gaussian_filter(img, 11, 3.0, 3.0))) << int(v);
    EXPECT_EQ(expected, bytesOf(enh_unsharp_mask(img, 300.0f, 11))) << int(v);
  }
}

TEST(RvGauss, DegenerateSizesReturnTheInput) {
  Bytes px = randomBytes(6 * 4, 7);
  RVImage img = makeImage(6, 4, RV_IMG_GRAY, px);
  for (int size : {1, 0, -3}) {
    EXPECT_EQ(px, bytesOf(enh_gaussian_filter_fast(img, size, 3.0))) << size;
    EXPECT_EQ(px, bytesOf(enh_gaussian_filter(img, size, 1.0, 2.0))) << size;
  }
}

TEST(RvGauss, FastFilterIsHorizontalThenVerticalRoundedBetween) {
  std::vector<double> k(11);
  generateGaussianKernel1D(11, 3.0, k.data());
  RVImage img = makeImage(15, 12, RV_IMG_GRAY, randomBytes(15 * 12, 3));
  Bytes hv = bytesOf(convolve1D(convolve1D(img, k.data(), 11, true), k.data(), 11, false));
  Bytes vh = bytesOf(convolve1D(convolve1D(img, k.data(), 11, false), k.data(), 11, true));
  ASSERT_NE(hv, vh);
  RVImage out = enh_gaussian_filter_fast(img, 11, 3.0);
  EXPECT_EQ(RV_IMG_GRAY, out.color);
  EXPECT_EQ(hv, bytesOf(out));
}

TEST(RvGauss, UnsharpOnSingleBrightPixel) {
  const int n = 21, c = 10;
  for (uint8_t background : {0, 100}) {
    Bytes px(n * n, background);
    px[c * n + c] = 255;
    Bytes out = bytesOf(enh_unsharp_mask(makeImage(n, n, RV_IMG_GRAY, px), 300.0f, 11));
    EXPECT_EQ(255, out[c * n + c]);  // 4 * 255 - 3 * blur >= 255
    for (int y = 0; y < n; ++y)
      for (int x = 0; x < n; ++x) {
        if (x == c && y == c)
          continue;
        uint8_t v = out[y * n + x];
        // The ring clamps at 0; beyond 5 taps nothing changes; next to the
        // centre the blur halo is subtracted.
        if (background == 0 || x < c - 5 || x > c + 5 || y < c - 5 || y > c + 5) {
          EXPECT_EQ(background, v) << x << "," << y;
        } else if ((x - c) * (x - c) + (y - c) * (y - c) == 1) {
          EXPECT_LT(v, background) << x << "," << y;
        }
      }
  }
}

TEST(RvGauss, AddWeighted) {
  RVImage img = makeImage(8, 5, RV_IMG_GRAY, randomBytes(40, 5));
  RVImage other = makeImage(8, 5, RV_IMG_GRAY, randomBytes(40, 6));
  EXPECT_EQ(bytesOf(img), bytesOf(add_Weighted(img, other, 0.0f)));
  struct Case {
    uint8_t image, blurred;
    float amount;
    int expected;
  } cases[] = {
      {200, 100, 1.0f, 255}, {50, 150, 1.0f, 0}, {100, 50, 1.0f, 150},
      {101, 100, 0.5f, 102},  // 151.5 - 50 = 101.5 rounds up
      {100, 101, 0.5f, 100},  // 150 - 50.5 = 99.5
      {10, 0, 3.0f, 40},     {0, 1, 3.0f, 0},    {255, 255, 3.0f, 255},
  };
  for (const Case& c : cases) {
    RVImage a = makeImage(1, 1, RV_IMG_GRAY, {c.image});
    RVImage b = makeImage(1, 1, RV_IMG_GRAY, {c.blurred});
    EXPECT_EQ(c.expected, add_Weighted(a, b, c.amount).data[0])
        << int(c.image) << " " << int(c.blurred);
  }
}

TEST(RvGauss, UnsharpBlursWithSigmaThreeWhateverTheSize) {
  RVImage img = makeImage(16, 11, RV_IMG_GRAY, randomBytes(16 * 11, 9));
  for (int size : {11, 5})
    for (float percent : {300.0f, 150.0f}) {
      Bytes expected =
          bytesOf(add_Weighted(img, enh_gaussian_filter_fast(img, size, 3.0), percent / 100.0f));
      EXPECT_EQ(expected, bytesOf(enh_unsharp_mask(img, percent, size))) << size << " " << percent;
    }
}

TEST(RvEdf, HandWorkedSmallPages) {
  struct Case {
    int w, h, threshold;
    Bytes in, expected;
  } cases[] = {
      {1, 1, 128, {200}, {255}},  // error -55 has nowhere to go
      {1, 1, 128, {128}, {0}},    // equal is not above
      {1, 1, -1, {0}, {255}},
      {2, 1, -1, {0, 0}, {255, 0}},  // -255 * 0.505786 = -129 darkens the next
      // Width 1: only the 0.243191 share reaches the pixel below, the rest is lost.
      {1, 2, 120, {100, 90}, {0, 0}},    // 90 + 24.3 = 114.3
      {1, 2, 120, {100, 96}, {0, 255}},  // 96 + 24.3 = 120.3
      // x=2 gets 100 * -0.052926 directly and 50.58 * 0.505786 via x=1: X + 20.29.
      {3, 1, 200, {100, 0, 177}, {0, 0, 0}},
      {3, 1, 200, {100, 0, 182}, {0, 0, 255}},
  };
  for (const Case& c : cases) {
    RVImage out = edf_cus(makeImage(c.w, c.h, RV_IMG_GRAY, c.in), c.threshold);
    EXPECT_EQ(RV_IMG_GRAY, out.color);
    EXPECT_EQ(c.expected, bytesOf(out)) << c.w << "x" << c.h << " t=" << c.threshold;
  }
}

TEST(RvEdf, InteriorWhitePixelNextToBlackKeepsPartOfItsError) {
  // (1,1) = 200 turns white with black left and top neighbours: as an interior
  // pixel its error is 200 - 255 * (1 - 0.2854) = +17.8, which lifts (2,1)
  // from 95 to 104 > 100. On the last row (height 2) the same pixel is on the
  // border, its error is -55 and (2,1) drops to 67.
  Bytes rows = {0, 0, 0, 0, 0, 200, 95, 0, 0, 0, 0, 0};
  Bytes interior = bytesOf(edf_cus(makeImage(4, 3, RV_IMG_GRAY, rows), 100));
  EXPECT_EQ(255, interior[4 + 1]);
  EXPECT_EQ(255, interior[4 + 2]);
  EXPECT_EQ(edfRef(rows, 4, 3, 100), interior);
  Bytes border =
      bytesOf(edf_cus(makeImage(4, 2, RV_IMG_GRAY, Bytes(rows.begin(), rows.begin() + 8)), 100));
  EXPECT_EQ(255, border[4 + 1]);
  EXPECT_EQ(0, border[4 + 2]);
}

TEST(RvEdf, MatchesReferenceOnRandomPages) {
  std::mt19937 rng(2024);
  for (int page = 0; page < 40; ++page) {
    int w = 1 + rng() % 9, h = 1 + rng() % 7, threshold = static_cast<int>(rng() % 257) - 1;
    Bytes px = randomBytes(w * h, 500 + page);
    RVImage out = edf_cus(makeImage(w, h, RV_IMG_GRAY, px), threshold);
    ASSERT_EQ(w, out.width);
    ASSERT_EQ(h, out.height);
    EXPECT_EQ(edfRef(px, w, h, threshold), bytesOf(out)) << w << "x" << h << " t=" << threshold;
  }
}

// The chain built from the public steps, with the knee and gammas given.
Bytes chain(const RVImage& page, bool kneeIsThreshold, float g1, float g2) {
  RVImage gray = cvtGray(page);
  int t = thresh_global_moments(gray);
  enh_piecewise_gamma(gray, kneeIsThreshold ? t : 64, g1, g2);
  return bytesOf(edf_cus(enh_unsharp_mask(gray, 300.0f, 11), t));
}

TEST(RvTattoo, PipelinesFollowTheirStepsAndKnees) {
  Bytes ramp(24 * 16);
  for (int i = 0; i < 24 * 16; ++i)
    ramp[i] = static_cast<uint8_t>((i % 24) * 11);
  Bytes dark = randomBytes(20 * 14, 41);
  for (auto& v : dark)
    v = static_cast<uint8_t>(v / 3);
  struct Page {
    int w, h;
    RV_IMG_COLOR color;
    Bytes px;
    bool kneeMatters;
  } pages[] = {
      {24, 16, RV_IMG_GRAY, ramp, true},
      {20, 14, RV_IMG_GRAY, dark, true},
      {12, 10, RV_IMG_BGR, randomBytes(12 * 10 * 3, 42), true},
      {9, 7, RV_IMG_GRAY, Bytes(9 * 7, 120), false},  // uniform: threshold -1
  };
  for (const Page& p : pages) {
    RVImage page = makeImage(p.w, p.h, p.color, p.px);
    Bytes plain = chain(page, false, 0.85f, 0.7f), q7 = chain(page, true, 0.5f, 1.5f);
    if (p.kneeMatters) {
      ASSERT_NE(64, thresh_global_moments(cvtGray(page)));
      ASSERT_NE(plain, chain(page, true, 0.85f, 0.7f));
      ASSERT_NE(q7, chain(page, false, 0.5f, 1.5f));
    }
    for (bool isQ7 : {false, true}) {
      RVImage out = isQ7 ? rvTattooDitheringQ7(page) : rvTattooDithering(page);
      EXPECT_EQ(RV_IMG_GRAY, out.color);
      EXPECT_EQ(p.w, out.width);
      EXPECT_EQ(p.h, out.height);
      Bytes got = bytesOf(out);
      EXPECT_EQ(isQ7 ? q7 : plain, got) << p.w << "x" << p.h << (isQ7 ? " Q7" : "");
      for (uint8_t v : got)
        ASSERT_TRUE(v == 0 || v == 255) << int(v);
    }
    EXPECT_EQ(p.px, bytesOf(page));  // the input is only read
  }
}

TEST(RvTattoo, EmptyPageIsReturnedAsACopy) {
  struct Case {
    int w, h;
    RV_IMG_COLOR color;
  } cases[] = {{0, 3, RV_IMG_BGR}, {4, 0, RV_IMG_RGBA}, {0, 0, RV_IMG_GRAY}};
  for (const Case& c : cases) {
    RVImage page(c.w, c.h, c.color);
    for (RVImage out : {rvTattooDithering(page), rvTattooDitheringQ7(page)}) {
      EXPECT_EQ(c.w, out.width);
      EXPECT_EQ(c.h, out.height);
      EXPECT_EQ(c.color, out.color);
      EXPECT_EQ(rvChannelsFor(c.color), out.channels);
      EXPECT_EQ(0, out.byteCount());
    }
  }
}

}  // namespace
