#include "enhance/rv_enhance.h"

#include <algorithm>
#include <cstring>
#include <memory>
#include <vector>
#if defined(__SSE2__)
#include <emmintrin.h>
#endif

#include "common/kiwa_common.h"

namespace {

// Single-precision gray weights.
constexpr float kWeightR = 0.299f;
constexpr float kWeightG = 0.587f;
constexpr float kWeightB = 0.114f;
constexpr float kTwoPiF = 6.2831855f;
constexpr double kTwoPi = 6.283185307179586;
constexpr double kUnsharpSigma = 3.0;

int64_t pixelCount(const RVImage& image) {
  const int64_t n = static_cast<int64_t>(image.width) * image.height;
  return n > 0 ? n : 0;
}

// The fast Gaussian works a row at a time. Each pixel's sum still starts at
// 0.0 and takes the taps in order, one multiply and one add each, so it is
// the same double as in the per-pixel loops; only the pixels are done side
// by side. Edge pixels are replicated once per row instead of clamped per tap.

// One output row: dst[x] = round(sum over t of rows[t][x] * kernel[t]).
void convolveRow(const unsigned char* const* rows, const double* kernel, int taps, int w,
                 unsigned char* dst) {
  int x = 0;
#if defined(__SSE2__)
  const __m128i zero = _mm_setzero_si128();
  for (; x + 4 <= w; x += 4) {
    __m128d low = _mm_setzero_pd();
    __m128d high = _mm_setzero_pd();
    for (int t = 0; t < taps; ++t) {
      int32_t four;
      memcpy(&four, rows[t] + x, sizeof(four));
      const __m128i words = _mm_unpacklo_epi8(_mm_cvtsi32_si128(four), zero);
      const __m128i ints = _mm_unpacklo_epi16(words, zero);
      const __m128d weight = _mm_set1_pd(kernel[t]);
      low = _mm_add_pd(low, _mm_mul_pd(_mm_cvtepi32_pd(ints), weight));
      high = _mm_add_pd(high, _mm_mul_pd(_mm_cvtepi32_pd(_mm_srli_si128(ints, 8)), weight));
    }
    double sums[4];
    _mm_storeu_pd(sums, low);
    _mm_storeu_pd(sums + 2, high);
    for (int i = 0; i < 4; ++i)
      dst[x + i] = static_cast<unsigned char>(my_round(static_cast<float>(sums[i])) & 0xFF);
  }
#endif
  for (; x < w; ++x) {
    double sum = 0.0;
    for (int t = 0; t < taps; ++t)
      sum += static_cast<double>(rows[t][x]) * kernel[t];
    dst[x] = static_cast<unsigned char>(my_round(static_cast<float>(sum)) & 0xFF);
  }
}

// Taps -half .. half of an odd size; an even size stops one short.
class RowConvolver {
 public:
  RowConvolver(const double* kernel, int size, int w)
      : kernel_(kernel),
        taps_(size),
        half_(size / 2),
        w_(w),
        padded_(static_cast<size_t>(w) + 2 * static_cast<size_t>(half_)),
        paddedTaps_(static_cast<size_t>(size)),
        rows_(static_cast<size_t>(size)) {
    for (int t = 0; t < taps_; ++t)
      paddedTaps_[static_cast<size_t>(t)] = padded_.data() + t;
  }

  void horizontal(const unsigned char* src, unsigned char* dst) {
    std::fill(padded_.begin(), padded_.begin() + half_, src[0]);
    std::copy(src, src + w_, padded_.begin() + half_);
    std::fill(padded_.begin() + half_ + w_, padded_.end(), src[w_ - 1]);
    convolveRow(paddedTaps_.data(), kernel_, taps_, w_, dst);
  }

  // Output row y of the vertical pass; rowAt(r) gives source row r.
  template <typename RowAt>
  void vertical(int y, int h, RowAt rowAt, unsigned char* dst) {
    for (int t = 0; t < taps_; ++t)
      rows_[static_cast<size_t>(t)] = rowAt(myClamp(y + t - half_, 0, h - 1));
    convolveRow(rows_.data(), kernel_, taps_, w_, dst);
  }

 private:
  const double* kernel_;
  int taps_;
  int half_;
  int w_;
  std::vector<unsigned char> padded_;
  std::vector<const unsigned char*> paddedTaps_;
  // Gathered before any is read: the vertical pass may make horizontal rows
  // while it gathers.
  std::vector<const unsigned char*> rows_;
};

// Both passes without the page between them: the horizontal rows the vertical
// pass needs are kept in a ring of `size` rows, each made once, in order.
RVImage gaussianRows(const RVImage& image, const double* kernel, int size) {
  const int w = image.width;
  const int h = image.height;
  RVImage out(w, h, image.color);
  RowConvolver convolver(kernel, size, w);
  std::vector<unsigned char> ring(static_cast<size_t>(size) * static_cast<size_t>(w));
  int made = 0;  // horizontal rows made so far
  auto rowAt = [&](int r) {
    for (; made <= r; ++made) {
      convolver.horizontal(image.data + static_cast<int64_t>(made) * w,
                           ring.data() + static_cast<size_t>(made % size) * w);
    }
    return ring.data() + static_cast<size_t>(r % size) * w;
  };
  for (int y = 0; y < h; ++y)
    convolver.vertical(y, h, rowAt, out.data + static_cast<int64_t>(y) * w);
  return out;
}

// add_Weighted into the blurred image itself: each result depends only on the
// two bytes at its place, so all 65536 pairs are worked out once, with the
// same single-precision steps.
void sharpenInPlace(const RVImage& image, RVImage& blurred, float amount) {
  std::vector<unsigned char> table(size_t{256} * 256);
  for (int a = 0; a < 256; ++a) {
    for (int b = 0; b < 256; ++b) {
      const int v = my_round(static_cast<float>(a) * (1.0f + amount) +
                             static_cast<float>(b) * -amount + 0.0f);
      table[static_cast<size_t>(a) * 256 + b] = static_cast<unsigned char>(myClamp(v, 0, 255));
    }
  }
  const int64_t n = pixelCount(image);
  for (int64_t i = 0; i < n; ++i)
    blurred.data[i] = table[static_cast<size_t>(image.data[i]) * 256 + blurred.data[i]];
}

}  // namespace

RVImage cvtGray(const RVImage& image) {
  RVImage gray(image.width, image.height, RV_IMG_GRAY);
  const int64_t n = pixelCount(image);
  const unsigned char* src = image.data;
  const bool blueFirst = image.color == RV_IMG_BGR || image.color == RV_IMG_BGRA;
  if (image.color == RV_IMG_GRAY && image.channels == 1 && kiwaPixelPath() == KiwaPixelPath::Fast) {
    if (n > 0)
      memcpy(gray.data, src, static_cast<size_t>(n));
    return gray;
  }
  for (int64_t k = 0, p = 0; k < n; ++k, p += image.channels) {
    if (image.color == RV_IMG_GRAY) {
      gray.data[k] = src[p];
      continue;
    }
    const float c0 = src[p];
    const float c1 = src[p + 1];
    const float c2 = src[p + 2];
    const float v = blueFirst ? kWeightR * c2 + (kWeightB * c0 + kWeightG * c1)
                              : kWeightB * c2 + (kWeightR * c0 + kWeightG * c1);
    gray.data[k] = static_cast<unsigned char>(my_round(v) & 0xFF);
  }
  return gray;
}

int thresh_global_moments(const RVImage& gray) {
  const int64_t n = pixelCount(gray);
  int32_t hist[256] = {0};
  for (int64_t i = 0; i < n; ++i)
    ++hist[gray.data[i]];
  float p[256];
  for (int i = 0; i < 256; ++i)
    p[i] = static_cast<float>(hist[i]) / static_cast<float>(n);

  const float m0 = 1.0f;
  float m1 = 0.0f, m2 = 0.0f, m3 = 0.0f;
  for (int i = 0; i < 256; ++i) {
    m1 += static_cast<float>(i) * p[i];
    m2 += static_cast<float>(i * i) * p[i];
    m3 += static_cast<float>(i * i * i) * p[i];
  }
  const float cd = m0 * m2 - m1 * m1;
  const float c0 = (m1 * m3 - m2 * m2) / cd;
  const float c1 = (m1 * m2 - m0 * m3) / cd;
  const float disc = static_cast<float>(static_cast<double>(c1 * c1) + -4.0 * c0);
  // A uniform image makes every moment term 0/0; NaN is not below zero and
  // the walk below then finds no level.
  if (disc < 0.0f)
    return 128;
  const float z0 = 0.5f * (-c1 - my_sqrt(disc));
  const float z1 = 0.5f * (-c1 + my_sqrt(disc));
  const float p0 = (z1 - m1) / (z1 - z0);

  float cum = 0.0f;
  for (int i = 0; i < 256; ++i) {
    cum += p[i];
    if (cum > p0)
      return i;
  }
  return -1;
}

void enh_piecewise_gamma(RVImage& gray, int knee, float gamma1, float gamma2) {
  const float t = static_cast<float>(knee);
  const int upperSpan = 255 - knee;
  unsigned char lut[256];
  for (int i = 0; i < 256; ++i) {
    int v;
    if (i < knee) {
      v = rvTruncToInt(my_pow(static_cast<float>(i) / t, gamma1) * t);
    } else {
      const float span = static_cast<float>(upperSpan);
      v = rvTruncToInt(my_pow((static_cast<float>(i) - t) / span, gamma2) * span + t);
    }
    lut[i] = static_cast<unsigned char>(v & 0xFF);
  }
  const int64_t n = pixelCount(gray);
  for (int64_t i = 0; i < n; ++i)
    gray.data[i] = lut[gray.data[i]];
}

void generateGaussianKernel1D(int size, double sigma, double* kernel) {
  if (size <= 0)
    return;
  const int half = size / 2;
  const double coeff = 1.0 / (static_cast<double>(my_sqrt(kTwoPiF)) * sigma);
  for (int k = -half; k <= half; ++k) {
    // An even size would reach one entry past the kernel; it is left out.
    if (k + half >= size)
      break;
    const double exponent = (-0.5 * static_cast<double>(k * k)) / (sigma * sigma);
    kernel[k + half] = coeff * static_cast<double>(my_exp(static_cast<float>(exponent)));
  }
  double sum = 0.0;
  for (int i = 0; i < size; ++i)
    sum += kernel[i];
  for (int i = 0; i < size; ++i)
    kernel[i] /= sum;
}

RVImage convolve1D(const RVImage& image, const double* kernel, int size, bool horizontal) {
  RVImage out(image);
  if (size <= 0)
    return out;
  const int half = size / 2;
  const int w = image.width;
  const int h = image.height;
  for (int y = 0; y < h; ++y) {
    for (int x = 0; x < w; ++x) {
      double sum = 0.0;
      for (int k = -half; k <= half && k + half < size; ++k) {
        // Edge pixels are replicated.
        const int64_t at = horizontal ? static_cast<int64_t>(y) * w + myClamp(x + k, 0, w - 1)
                                      : static_cast<int64_t>(myClamp(y + k, 0, h - 1)) * w + x;
        sum += static_cast<double>(image.data[at]) * kernel[k + half];
      }
      out.data[static_cast<int64_t>(y) * w + x] =
          static_cast<unsigned char>(my_round(static_cast<float>(sum)) & 0xFF);
    }
  }
  return out;
}

RVImage enh_gaussian_filter_fast(const RVImage& image, int size, double sigma) {
  if (size <= 0)
    return RVImage(image);
  std::unique_ptr<double[]> kernel(new double[size]());
  generateGaussianKernel1D(size, sigma, kernel.get());
  if (kiwaPixelPath() == KiwaPixelPath::Fast && image.channels == 1 && image.width > 0 &&
      image.height > 0)
    return gaussianRows(image, kernel.get(), size);
  // The horizontal pass is rounded to bytes before the vertical one.
  const RVImage tmp = convolve1D(image, kernel.get(), size, true);
  return convolve1D(tmp, kernel.get(), size, false);
}

void generateGaussianKernel(int size, double sigmaX, double sigmaY, double* kernel) {
  if (size <= 0)
    return;
  const int half = size / 2;
  const double coeff = 1.0 / (kTwoPi * sigmaX * sigmaY);
  for (int dy = -half; dy <= half && dy + half < size; ++dy) {
    for (int dx = -half; dx <= half && dx + half < size; ++dx) {
      const double exponent =
          -(dx * dx) / (2.0 * sigmaX * sigmaX) - (dy * dy) / (2.0 * sigmaY * sigmaY);
      kernel[(dy + half) * size + (dx + half)] =
          coeff * static_cast<double>(my_exp(static_cast<float>(exponent)));
    }
  }
  double sum = 0.0;
  for (int i = 0; i < size * size; ++i)
    sum += kernel[i];
  for (int i = 0; i < size * size; ++i)
    kernel[i] /= sum;
}

RVImage enh_gaussian_filter(const RVImage& image, int size, double sigmaX, double sigmaY) {
  if (size <= 0)
    return RVImage(image);
  RVImage out(image.width, image.height, RV_IMG_GRAY);
  const int half = size / 2;
  std::unique_ptr<double[]> kernel(new double[static_cast<size_t>(size) * size]());
  generateGaussianKernel(size, sigmaX, sigmaY, kernel.get());
  const int w = image.width;
  const int h = image.height;
  for (int y = 0; y < h; ++y) {
    for (int x = 0; x < w; ++x) {
      double sum = 0.0;
      for (int dy = -half; dy <= half && dy + half < size; ++dy) {
        for (int dx = -half; dx <= half && dx + half < size; ++dx) {
          const int64_t at =
              static_cast<int64_t>(myClamp(y + dy, 0, h - 1)) * w + myClamp(x + dx, 0, w - 1);
          sum += static_cast<double>(image.data[at]) * kernel[(dy + half) * size + (dx + half)];
        }
      }
      out.data[static_cast<int64_t>(y) * w + x] =
          static_cast<unsigned char>(my_round(static_cast<float>(sum)) & 0xFF);
    }
  }
  return out;
}

RVImage add_Weighted(const RVImage& image, const RVImage& blurred, float amount) {
  RVImage out(image);
  const int64_t n = pixelCount(image);
  for (int64_t i = 0; i < n; ++i) {
    const int v = my_round(static_cast<float>(image.data[i]) * (1.0f + amount) +
                           static_cast<float>(blurred.data[i]) * -amount + 0.0f);
    out.data[i] = static_cast<unsigned char>(myClamp(v, 0, 255));
  }
  return out;
}

RVImage enh_unsharp_mask(const RVImage& image, float amountPercent, int size) {
  const float k = static_cast<float>(amountPercent / 100.0);
  RVImage blurred = enh_gaussian_filter_fast(image, size, kUnsharpSigma);
  if (kiwaPixelPath() == KiwaPixelPath::Fast && image.channels == 1 &&
      blurred.byteCount() == image.byteCount()) {
    sharpenInPlace(image, blurred, k);
    return blurred;
  }
  return add_Weighted(image, blurred, k);
}
