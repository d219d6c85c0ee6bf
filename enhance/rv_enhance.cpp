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
// by side. Each row is widened to doubles once (edge pixels replicated) rather
// than once per tap.
typedef double Doubles4 __attribute__((vector_size(32)));
typedef double Doubles2 __attribute__((vector_size(16)));
typedef float Floats4 __attribute__((vector_size(16)));
typedef int32_t Ints4 __attribute__((vector_size(16)));
#define OSTRA_INLINE inline __attribute__((always_inline))

// Four running sums in one 256-bit vector, for the AVX2 loop.
struct WideFour {
  Doubles4 sum = {};
  OSTRA_INLINE void add(const double* src, double k) {
    Doubles4 v;
    memcpy(&v, src, sizeof(v));
    sum = sum + v * Doubles4{k, k, k, k};
  }
  OSTRA_INLINE Floats4 floats() const { return __builtin_convertvector(sum, Floats4); }
  OSTRA_INLINE static void store(Ints4 v, double* dst) {
    const Doubles4 wide = __builtin_convertvector(v, Doubles4);
    memcpy(dst, &wide, sizeof(wide));
  }
};

// The same in two 128-bit halves: without AVX the compiler would split a
// 256-bit vector through memory.
struct PairFour {
  Doubles2 low = {}, high = {};
  OSTRA_INLINE void add(const double* src, double k) {
    Doubles2 a, b;
    memcpy(&a, src, sizeof(a));
    memcpy(&b, src + 2, sizeof(b));
    low = low + a * Doubles2{k, k};
    high = high + b * Doubles2{k, k};
  }
  OSTRA_INLINE Floats4 floats() const {
    return Floats4{static_cast<float>(low[0]), static_cast<float>(low[1]),
                   static_cast<float>(high[0]), static_cast<float>(high[1])};
  }
  OSTRA_INLINE static void store(Ints4 v, double* dst) {
    for (int i = 0; i < 4; ++i)
      dst[i] = static_cast<double>(v[i]);
  }
};

// my_round(static_cast<float>(sum)) & 0xFF for four sums. The sums of bytes
// under a normalised kernel lie well inside the int range.
OSTRA_INLINE Ints4 roundFour(const Floats4& x) {
  const Floats4 half =
      x >= 0.0f ? Floats4{0.5f, 0.5f, 0.5f, 0.5f} : Floats4{-0.5f, -0.5f, -0.5f, -0.5f};
  return __builtin_convertvector(x + half, Ints4) & 0xFF;
}

// Sixteen results, each 0..255, as bytes or as the doubles of the bytes.
template <typename Four>
OSTRA_INLINE void storeSixteen(const Ints4 (&v)[4], unsigned char* dst) {
#if defined(__SSE2__)
  const __m128i low =
      _mm_packs_epi32(reinterpret_cast<__m128i>(v[0]), reinterpret_cast<__m128i>(v[1]));
  const __m128i high =
      _mm_packs_epi32(reinterpret_cast<__m128i>(v[2]), reinterpret_cast<__m128i>(v[3]));
  _mm_storeu_si128(reinterpret_cast<__m128i*>(dst), _mm_packus_epi16(low, high));
#else
  for (int i = 0; i < 16; ++i)
    dst[i] = static_cast<unsigned char>(v[i / 4][i % 4]);
#endif
}

template <typename Four>
OSTRA_INLINE void storeSixteen(const Ints4 (&v)[4], double* dst) {
  for (const Ints4& four : v) {
    Four::store(four, dst);
    dst += 4;
  }
}

// One output row: dst[x] = round(sum over t of rows[t][x] * kernel[t]), as a
// byte or as the double of that byte. Sixteen pixels at a time in four sums
// keep enough adds in flight to hide their latency.
template <typename Four, typename Out>
OSTRA_INLINE void sumRowsBody(const double* const* rows, const double* kernel, int taps, int w,
                              Out* dst) {
  int x = 0;
  for (; x + 16 <= w; x += 16) {
    Four s0, s1, s2, s3;
    for (int t = 0; t < taps; ++t) {
      const double* row = rows[t] + x;
      s0.add(row, kernel[t]);
      s1.add(row + 4, kernel[t]);
      s2.add(row + 8, kernel[t]);
      s3.add(row + 12, kernel[t]);
    }
    const Ints4 rounded[4] = {roundFour(s0.floats()), roundFour(s1.floats()),
                              roundFour(s2.floats()), roundFour(s3.floats())};
    storeSixteen<Four>(rounded, dst + x);
  }
  for (; x < w; ++x) {
    double sum = 0.0;
    for (int t = 0; t < taps; ++t)
      sum += rows[t][x] * kernel[t];
    dst[x] = static_cast<Out>(my_round(static_cast<float>(sum)) & 0xFF);
  }
}

template <typename Out>
void sumRowsBaseline(const double* const* rows, const double* kernel, int taps, int w, Out* dst) {
  sumRowsBody<PairFour>(rows, kernel, taps, w, dst);
}

// The same loop with 256-bit vectors, for processors found to have AVX2.
#if defined(__x86_64__)
template <typename Out>
__attribute__((target("avx2"))) void sumRowsWide(const double* const* rows, const double* kernel,
                                                 int taps, int w, Out* dst) {
  sumRowsBody<WideFour>(rows, kernel, taps, w, dst);
}
#endif

template <typename Out>
void sumRows(const double* const* rows, const double* kernel, int taps, int w, Out* dst) {
#if defined(__x86_64__)
  if (kiwaWideVectors()) {
    sumRowsWide(rows, kernel, taps, w, dst);
    return;
  }
#endif
  sumRowsBaseline(rows, kernel, taps, w, dst);
}

// Both passes without a page between them: the horizontal rows the vertical
// pass needs are kept, as doubles, in a ring of `size` rows, each made once,
// in order. Taps run -half .. half of an odd size; an even size stops one
// short. Each finished row goes to emit(y, row) once every horizontal row made
// from source row y exists, so emit may overwrite that source row.
template <typename Emit>
void gaussianRows(const RVImage& image, const double* kernel, int size, Emit emit) {
  const int w = image.width;
  const int h = image.height;
  const int half = size / 2;
  std::vector<double> padded(static_cast<size_t>(w) + 2 * static_cast<size_t>(half));
  std::vector<double> ring(static_cast<size_t>(size) * static_cast<size_t>(w));
  std::vector<const double*> taps(static_cast<size_t>(size));
  std::vector<unsigned char> row(static_cast<size_t>(w));
  int made = 0;  // horizontal rows made so far
  auto rowAt = [&](int r) {
    for (; made <= r; ++made) {
      const unsigned char* src = image.data() + static_cast<int64_t>(made) * w;
      std::fill(padded.begin(), padded.begin() + half, src[0]);
      std::copy(src, src + w, padded.begin() + half);
      std::fill(padded.begin() + half + w, padded.end(), src[w - 1]);
      for (int t = 0; t < size; ++t)
        taps[static_cast<size_t>(t)] = padded.data() + t;
      sumRows(taps.data(), kernel, size, w, ring.data() + static_cast<size_t>(made % size) * w);
    }
    return ring.data() + static_cast<size_t>(r % size) * w;
  };
  for (int y = 0; y < h; ++y) {
    // Every row is made before any is gathered: making one reuses `taps`.
    rowAt(myClamp(y + size - 1 - half, 0, h - 1));
    for (int t = 0; t < size; ++t)
      taps[static_cast<size_t>(t)] = rowAt(myClamp(y + t - half, 0, h - 1));
    sumRows(taps.data(), kernel, size, w, row.data());
    emit(y, row.data());
  }
}

std::unique_ptr<double[]> gaussianKernel(int size, double sigma) {
  auto kernel = std::make_unique<double[]>(static_cast<size_t>(size));
  generateGaussianKernel1D(size, sigma, kernel.get());
  return kernel;
}

// The rows the fast paths take: one byte per pixel, at least one of them.
bool rowsFit(const RVImage& image) {
  return image.channels == 1 && image.width > 0 && image.height > 0;
}

// add_Weighted as a table: each result depends only on the two bytes at its
// place, so all 65536 pairs are worked out once, with the same
// single-precision steps.
class SharpenTable {
 public:
  explicit SharpenTable(float amount) : table_(size_t{256} * 256) {
    for (int a = 0; a < 256; ++a) {
      for (int b = 0; b < 256; ++b) {
        const int v = my_round(static_cast<float>(a) * (1.0f + amount) +
                               static_cast<float>(b) * -amount + 0.0f);
        table_[static_cast<size_t>(a) * 256 + b] = static_cast<unsigned char>(myClamp(v, 0, 255));
      }
    }
  }
  unsigned char operator()(unsigned char image, unsigned char blurred) const {
    return table_[static_cast<size_t>(image) * 256 + blurred];
  }

 private:
  std::vector<unsigned char> table_;
};

}  // namespace

RVImage cvtGray(const RVImage& image) {
  RVImage gray(image.width, image.height, RV_IMG_GRAY);
  const int64_t n = pixelCount(image);
  const unsigned char* src = image.data();
  const bool blueFirst = image.color == RV_IMG_BGR || image.color == RV_IMG_BGRA;
  if (image.color == RV_IMG_GRAY && image.channels == 1 && kiwaFastPixels()) {
    if (n > 0)
      memcpy(gray.data(), src, static_cast<size_t>(n));
    return gray;
  }
  for (int64_t k = 0, p = 0; k < n; ++k, p += image.channels) {
    if (image.color == RV_IMG_GRAY) {
      gray.data()[k] = src[p];
      continue;
    }
    const float c0 = src[p];
    const float c1 = src[p + 1];
    const float c2 = src[p + 2];
    const float v = blueFirst ? kWeightR * c2 + (kWeightB * c0 + kWeightG * c1)
                              : kWeightB * c2 + (kWeightR * c0 + kWeightG * c1);
    gray.data()[k] = static_cast<unsigned char>(my_round(v) & 0xFF);
  }
  return gray;
}

int thresh_global_moments(const RVImage& gray) {
  const int64_t n = pixelCount(gray);
  int32_t hist[256] = {0};
  for (int64_t i = 0; i < n; ++i)
    ++hist[gray.data()[i]];
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
    gray.data()[i] = lut[gray.data()[i]];
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
        sum += static_cast<double>(image.data()[at]) * kernel[k + half];
      }
      out.data()[static_cast<int64_t>(y) * w + x] =
          static_cast<unsigned char>(my_round(static_cast<float>(sum)) & 0xFF);
    }
  }
  return out;
}

RVImage enh_gaussian_filter_fast(const RVImage& image, int size, double sigma) {
  if (size <= 0)
    return RVImage(image);
  const std::unique_ptr<double[]> kernel = gaussianKernel(size, sigma);
  if (kiwaFastPixels() && rowsFit(image)) {
    RVImage out(image.width, image.height, image.color);
    gaussianRows(image, kernel.get(), size, [&](int y, const unsigned char* row) {
      memcpy(out.data() + static_cast<int64_t>(y) * image.width, row,
             static_cast<size_t>(image.width));
    });
    return out;
  }
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
  auto kernel = std::make_unique<double[]>(static_cast<size_t>(size) * size);
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
          sum += static_cast<double>(image.data()[at]) * kernel[(dy + half) * size + (dx + half)];
        }
      }
      out.data()[static_cast<int64_t>(y) * w + x] =
          static_cast<unsigned char>(my_round(static_cast<float>(sum)) & 0xFF);
    }
  }
  return out;
}

RVImage add_Weighted(const RVImage& image, const RVImage& blurred, float amount) {
  RVImage out(image);
  const int64_t n = pixelCount(image);
  for (int64_t i = 0; i < n; ++i) {
    const int v = my_round(static_cast<float>(image.data()[i]) * (1.0f + amount) +
                           static_cast<float>(blurred.data()[i]) * -amount + 0.0f);
    out.data()[i] = static_cast<unsigned char>(myClamp(v, 0, 255));
  }
  return out;
}

RVImage enh_unsharp_mask(const RVImage& image, float amountPercent, int size) {
  const float k = static_cast<float>(amountPercent / 100.0);
  RVImage blurred = enh_gaussian_filter_fast(image, size, kUnsharpSigma);
  if (kiwaFastPixels() && image.channels == 1 && blurred.byteCount() == image.byteCount()) {
    const SharpenTable sharpen(k);
    const int64_t n = pixelCount(image);
    for (int64_t i = 0; i < n; ++i)
      blurred.data()[i] = sharpen(image.data()[i], blurred.data()[i]);
    return blurred;
  }
  return add_Weighted(image, blurred, k);
}

RVImage enh_unsharp_mask(RVImage&& image, float amountPercent, int size) {
  if (!kiwaFastPixels() || image.color != RV_IMG_GRAY || !rowsFit(image) || size <= 0)
    return enh_unsharp_mask(static_cast<const RVImage&>(image), amountPercent, size);
  // Each blurred row is sharpened into the page as soon as it is made.
  const SharpenTable sharpen(static_cast<float>(amountPercent / 100.0));
  const std::unique_ptr<double[]> kernel = gaussianKernel(size, kUnsharpSigma);
  const int w = image.width;
  gaussianRows(image, kernel.get(), size, [&](int y, const unsigned char* blurred) {
    unsigned char* row = image.data() + static_cast<int64_t>(y) * w;
    for (int x = 0; x < w; ++x)
      row[x] = sharpen(row[x], blurred[x]);
  });
  return std::move(image);
}
