#include "enhance/rv_math.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <climits>
#include <cmath>
#include <cstring>
#include <limits>
#include <vector>

namespace {

const float kNaN = std::numeric_limits<float>::quiet_NaN();

// Single-precision references that follow the routines' arithmetic step by
// step, so a wrong operand order or return value shows up bit for bit.
float absRef(float v) {
  return 0.0f > v ? -v : v;
}

// Iterates `step` from `g` and returns the estimate before the one within
// the tolerance; `converged` guards against feeding the test a cycling input.
template <typename Step>
float newtonRef(float g, Step step, bool* converged) {
  for (int k = 0; k < 100000; ++k) {
    float n = step(g);
    if (absRef(n - g) < 1e-6f) {
      *converged = true;
      return g;
    }
    g = n;
  }
  *converged = false;
  return g;
}

float sqrtRef(float x, bool* converged) {
  return newtonRef(
      x / 2.0f, [x](float g) { return 0.5f * (g + x / g); }, converged);
}

// `mulFirst` only serves to prove a case tells the two operand orders apart.
float expRef(float x, bool mulFirst = false) {
  if (0.0f > x)
    return static_cast<float>(1.0 / static_cast<double>(expRef(-x)));
  float sum = 1.0f, term = 1.0f;
  for (int n = 1; n <= 20; ++n) {
    term = mulFirst ? (x * term) / static_cast<float>(n) : (x / static_cast<float>(n)) * term;
    sum = term + sum;
    if (static_cast<double>(term) < 1e-6)
      break;
  }
  return sum;
}

float lnRef(float x, bool* converged) {
  auto step = [x](float g) { return g - (expRef(g) - x) / x; };
  return newtonRef((x - 1.0f) / (1.0f + x), step, converged);
}

uint32_t bits(float f) {
  uint32_t u;
  std::memcpy(&u, &f, sizeof u);
  return u;
}

#define EXPECT_SAME_FLOAT(expected, actual) EXPECT_EQ(bits(expected), bits(actual)) << (actual)

TEST(RvMath, MyabsKeepsNegativeZeroAndNaN) {
  EXPECT_EQ(myabs(-3.5f), 3.5f);
  EXPECT_EQ(myabs(3.5f), 3.5f);
  EXPECT_TRUE(std::signbit(myabs(-0.0f)));  // 0.0 > -0.0 is false
  EXPECT_TRUE(std::isnan(myabs(kNaN)));
}

TEST(RvMath, SqrtSentinelsAndZero) {
  EXPECT_EQ(my_sqrt(-4.0f), -1.0f);
  EXPECT_EQ(my_sqrt(-1e-30f), -1.0f);
  EXPECT_SAME_FLOAT(0.0f, my_sqrt(0.0f));
  EXPECT_TRUE(std::isnan(my_sqrt(kNaN)));
}

TEST(RvMath, SqrtReturnsEstimateBeforeTheConvergedOne) {
  // 4: the first estimate 4/2 is already 2 and the step changes nothing.
  EXPECT_SAME_FLOAT(2.0f, my_sqrt(4.0f));
  // 0.25 ends ...0.50000006 -> 0.5 and 7 ends ...2.64575195 -> 2.64575148:
  // there the returned estimate is not the last one computed.
  for (float x : {0.25f, 7.0f, 2.0f, 9.0f, 1e-4f, 0.1f, 12345.0f, 65536.0f}) {
    bool converged = false;
    float expected = sqrtRef(x, &converged);
    ASSERT_TRUE(converged) << x;
    EXPECT_SAME_FLOAT(expected, my_sqrt(x)) << "x=" << x;
  }
  EXPECT_SAME_FLOAT(0.50000006f, my_sqrt(0.25f));
}

TEST(RvMath, ExpSeries) {
  EXPECT_SAME_FLOAT(1.0f, my_exp(0.0f));  // first term 0 stops the series
  // 1e-7 is below the tolerance at once: exactly one term is added.
  EXPECT_SAME_FLOAT(1.0f + 1e-7f, my_exp(1e-7f));
  for (float x : {0.1f, 0.5f, 1.0f, 2.5f, 7.0f, 11.0f, 30.0f, -1.0f, -2.5f, -30.0f})
    EXPECT_SAME_FLOAT(expRef(x), my_exp(x)) << "x=" << x;
  // At 30 the 20th term is still ~1.4e11, so the sum stays far below e^30 ~ 1.07e13.
  EXPECT_LT(my_exp(30.0f), 1e12f);
  // Negative arguments: the reciprocal is taken in double, then narrowed.
  EXPECT_SAME_FLOAT(static_cast<float>(1.0 / static_cast<double>(expRef(2.5f))), my_exp(-2.5f));
}

TEST(RvMath, ExpDividesBeforeMultiplying) {
  for (float x : {2.5f, 5.0f, 10.0f, 11.0f}) {
    ASSERT_NE(bits(expRef(x)), bits(expRef(x, true))) << x;
    EXPECT_SAME_FLOAT(expRef(x), my_exp(x)) << "x=" << x;
  }
}

TEST(RvMath, LnSentinelsAndPreviousEstimate) {
  EXPECT_EQ(my_ln(0.0f), -1.0f);
  EXPECT_EQ(my_ln(-3.0f), -1.0f);
  EXPECT_SAME_FLOAT(0.0f, my_ln(1.0f));  // g starts at 0 and the step is 0
  EXPECT_TRUE(std::isnan(my_ln(kNaN)));
  for (float x : {2.0f, 0.5f, 0.25f, 1.5f, 10.0f, 100.0f, 255.0f, 0.01f}) {
    bool converged = false;
    float expected = lnRef(x, &converged);
    ASSERT_TRUE(converged) << x;
    EXPECT_SAME_FLOAT(expected, my_ln(x)) << "x=" << x;
  }
}

TEST(RvMath, PowSpecialCasesInOrder) {
  // 3e9 is integral but no int holds it: the truncation gives INT_MIN. A
  // negative base with an integral exponent has ln -1, so the result is exp(-y).
  struct Case {
    float x, y, expected;
  } cases[] = {{0.0f, 0.0f, 1.0f},           {0.0f, 2.0f, 0.0f},           {0.0f, -1.0f, -1.0f},
               {0.0f, kNaN, -1.0f},          {-0.0f, 2.0f, 0.0f},          {-2.0f, 0.5f, -1.0f},
               {-2.0f, -1.5f, -1.0f},        {-2.0f, kNaN, -1.0f},         {-2.0f, 3e9f, -1.0f},
               {-2.0f, 2.0f, expRef(-2.0f)}, {-7.0f, -3.0f, expRef(3.0f)}, {-2.0f, 0.0f, 1.0f}};
  for (const Case& c : cases)
    EXPECT_SAME_FLOAT(c.expected, my_pow(c.x, c.y)) << c.x << " ^ " << c.y;
}

TEST(RvMath, PowGeneralCaseIsExpOfProduct) {
  for (float x : {2.0f, 0.5f, 0.25f, 10.0f}) {
    bool converged = false;
    float ln = lnRef(x, &converged);
    ASSERT_TRUE(converged);
    for (float y : {0.5f, 0.7f, 0.85f, 1.5f, 3.0f, -2.0f})
      EXPECT_SAME_FLOAT(expRef(y * ln), my_pow(x, y)) << x << " ^ " << y;
  }
  EXPECT_TRUE(std::isnan(my_pow(kNaN, 1.5f)));
}

TEST(RvMath, TruncToIntLikeTheProcessor) {
  // 2147483520 is the largest float below 2^31.
  struct Case {
    float v;
    int expected;
  } cases[] = {{1.9f, 1},
               {-1.9f, -1},
               {-0.9f, 0},
               {2147483520.0f, 2147483520},
               {-2147483648.0f, INT_MIN},
               {2147483648.0f, INT_MIN},
               {-3e9f, INT_MIN},
               {kNaN, INT_MIN},
               {std::numeric_limits<float>::infinity(), INT_MIN}};
  for (const Case& c : cases)
    EXPECT_EQ(c.expected, rvTruncToInt(c.v)) << c.v;
}

TEST(RvMath, RoundHalvesAwayFromZeroInFloat) {
  // 0.49999997 is 0.5 - 2^-25: adding 0.5 is a tie between 1 - 2^-24 and 1,
  // float rounding picks 1.0, where double would keep 0.99999997 and give 0.
  struct Case {
    float v;
    int expected;
  } cases[] = {{0.5f, 1},          {-0.5f, -1},     {-0.4f, 0},     {0.4f, 0},  {2.5f, 3},
               {-2.5f, -3},        {-0.0f, 0},      {254.5f, 255},  {1.49f, 1}, {0.49999997f, 1},
               {-0.49999997f, -1}, {3e9f, INT_MIN}, {kNaN, INT_MIN}};
  for (const Case& c : cases)
    EXPECT_EQ(c.expected, my_round(c.v)) << c.v;
}

TEST(RvMath, ClampIncludingInvertedBounds) {
  // With lo > hi, v below lo gives lo, anything else hi.
  struct Case {
    int v, lo, hi, expected;
  } cases[] = {{5, 0, 10, 5},        {-1, 0, 10, 0}, {10, 0, 10, 10}, {11, 0, 10, 10},
               {INT_MIN, 0, 255, 0}, {5, 10, 0, 10}, {15, 10, 0, 0},  {10, 10, 0, 0}};
  for (const Case& c : cases)
    EXPECT_EQ(c.expected, myClamp(c.v, c.lo, c.hi)) << c.v << " in " << c.lo << ".." << c.hi;
}

TEST(RvMath, WithinBoundsTable) {
  struct Case {
    int x, y, w, h;
    bool expected;
  } cases[] = {{0, 0, 0, 0, false},  {0, 0, 1, 1, true},  {4, 2, 5, 3, true},
               {5, 2, 5, 3, false},  {4, 3, 5, 3, false}, {-1, 0, 5, 3, false},
               {0, -1, 5, 3, false}, {0, 0, 1, 0, false}, {0, 0, 0, 1, false}};
  for (const Case& c : cases)
    EXPECT_EQ(c.expected, isWithinBounds(c.x, c.y, c.w, c.h))
        << c.x << "," << c.y << " in " << c.w << "x" << c.h;
}

TEST(RvImage, ChannelsDerivedFromColor) {
  struct Case {
    int color, channels;
  } cases[] = {{0, 1}, {1, 3}, {2, 3}, {3, 4}, {4, 4}, {5, 4}, {-1, 4}, {1000, 4}};
  for (const Case& c : cases) {
    auto color = static_cast<RV_IMG_COLOR>(c.color);
    EXPECT_EQ(c.channels, rvChannelsFor(color)) << c.color;
    RVImage img(3, 2, color);
    EXPECT_EQ(c.channels, img.channels) << c.color;
    EXPECT_EQ(c.color, static_cast<int>(img.color));
    EXPECT_EQ(6 * c.channels, img.byteCount()) << c.color;
  }
}

TEST(RvImage, SizesAndZeroFill) {
  RVImage gray(3, 2, RV_IMG_GRAY);
  EXPECT_EQ(6, gray.byteCount());
  RVImage bgra(3, 2, RV_IMG_BGRA);
  ASSERT_EQ(24, bgra.byteCount());
  EXPECT_EQ(3, bgra.width);
  EXPECT_EQ(2, bgra.height);
  for (int i = 0; i < 24; ++i)
    EXPECT_EQ(0, bgra.data[i]) << i;
  EXPECT_EQ(0, RVImage(0, 5, RV_IMG_BGR).byteCount());
}

TEST(RvImage, SourceIsCopiedNotAdopted) {
  std::vector<unsigned char> src = {1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12};
  RVImage img(2, 2, RV_IMG_BGR, src.data());
  ASSERT_NE(src.data(), img.data);
  std::fill(src.begin(), src.end(), 0);
  for (int i = 0; i < 12; ++i)
    EXPECT_EQ(i + 1, img.data[i]);
}

TEST(RvImage, CopiesAreDeepAndKeepStoredChannels) {
  std::vector<unsigned char> src = {9, 8, 7, 6, 5, 4, 3, 2, 1, 0, 11, 12};
  RVImage img(2, 2, RV_IMG_BGR, src.data());
  img.channels = 1;  // inconsistent with BGR on purpose: the copy must not re-derive
  RVImage copy(img);
  EXPECT_EQ(1, copy.channels);
  EXPECT_EQ(RV_IMG_BGR, copy.color);
  ASSERT_EQ(4, copy.byteCount());
  ASSERT_NE(img.data, copy.data);
  copy.data[0] = 100;
  EXPECT_EQ(9, img.data[0]);
  for (int i = 1; i < 4; ++i)
    EXPECT_EQ(src[i], copy.data[i]);

  RVImage target(5, 1, RV_IMG_RGBA);
  target = img;
  EXPECT_EQ(2, target.width);
  EXPECT_EQ(2, target.height);
  EXPECT_EQ(1, target.channels);
  EXPECT_EQ(RV_IMG_BGR, target.color);
  ASSERT_NE(img.data, target.data);
  for (int i = 0; i < 4; ++i)
    EXPECT_EQ(src[i], target.data[i]);
}

TEST(RvImage, SelfAssignmentLeavesZeroedBufferOfSameSize) {
  std::vector<unsigned char> src = {1, 2, 3, 4, 5, 6};
  RVImage img(3, 2, RV_IMG_GRAY, src.data());
  RVImage& alias = img;
  img = alias;
  EXPECT_EQ(3, img.width);
  EXPECT_EQ(2, img.height);
  EXPECT_EQ(1, img.channels);
  ASSERT_EQ(6, img.byteCount());
  for (int i = 0; i < 6; ++i)
    EXPECT_EQ(0, img.data[i]) << i;
}

}  // namespace
