// The stencil chain's packed image type and its own single-precision math,
// whose approximations are part of the printed result.
#ifndef OSTRA_ENHANCE_RV_MATH_H
#define OSTRA_ENHANCE_RV_MATH_H

#include <cstdint>
#include <memory>

enum RV_IMG_COLOR : int32_t {
  RV_IMG_GRAY = 0,
  RV_IMG_BGR = 1,
  RV_IMG_RGB = 2,
  RV_IMG_BGRA = 3,
  RV_IMG_RGBA = 4,
};

// One tightly packed buffer: pixel (x, y), channel c at (y * width + x) * channels + c.
// The shape fields are read directly by the chain.
class RVImage {
 public:
  // Copies width * height * channels bytes from `src`; the caller keeps `src`.
  RVImage(int width, int height, RV_IMG_COLOR color, const unsigned char* src);
  // A new buffer, zeroed.
  RVImage(int width, int height, RV_IMG_COLOR color);
  RVImage(const RVImage& other);
  // Takes the buffer; `other` is left empty.
  RVImage(RVImage&& other) noexcept;
  RVImage& operator=(const RVImage& other);

  // Bytes owned: width * height * channels, 0 for an empty image.
  int64_t byteCount() const;
  unsigned char* data() { return pixels_.get(); }
  const unsigned char* data() const { return pixels_.get(); }

  int32_t width = 0;
  int32_t height = 0;
  int32_t channels = 4;
  RV_IMG_COLOR color = RV_IMG_BGR;

 private:
  std::unique_ptr<unsigned char[]> pixels_;

  void allocate(const unsigned char* src);
};

// Channel count of a colour layout: 1 for gray, 3 for BGR/RGB, 4 otherwise.
int32_t rvChannelsFor(RV_IMG_COLOR color);

float myabs(float v);
// Newton square root; returns the estimate before the converged one, -1 for
// a negative argument.
float my_sqrt(float x);
// Taylor series of at most 20 terms after the leading 1.
float my_exp(float x);
// Fixed-slope Newton logarithm; -1 for a non-positive argument.
float my_ln(float x);
float my_pow(float x, float y);
// Truncation toward zero as the processor converts: values no int holds,
// NaN included, become INT32_MIN.
inline int rvTruncToInt(float v) {
  if (!(v >= -2147483648.0f && v < 2147483648.0f))
    return INT32_MIN;
  return static_cast<int>(v);
}

// Halves away from zero; the addition of 0.5 is in single precision.
inline int my_round(float x) {
  if (static_cast<double>(x) >= 0.0)
    return rvTruncToInt(x + 0.5f);
  return rvTruncToInt(x - 0.5f);
}

inline int myClamp(int v, int lo, int hi) {
  if (v < lo)
    return lo;
  if (v < hi)
    return v;
  return hi;
}

inline bool isWithinBounds(int x, int y, int width, int height) {
  if (x < 0)
    return false;
  if (x >= width)
    return false;
  return y >= 0 && y < height;
}

#endif  // OSTRA_ENHANCE_RV_MATH_H
