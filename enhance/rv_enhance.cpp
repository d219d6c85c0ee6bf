#include "enhance/rv_enhance.h"

#include <memory>

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

}  // namespace

RVImage cvtGray(const RVImage& image) {
  RVImage gray(image.width, image.height, RV_IMG_GRAY);
  const int64_t n = pixelCount(image);
  const unsigned char* src = image.data;
  const bool blueFirst = image.color == RV_IMG_BGR || image.color == RV_IMG_BGRA;
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
  const RVImage blurred = enh_gaussian_filter_fast(image, size, kUnsharpSigma);
  return add_Weighted(image, blurred, k);
}
