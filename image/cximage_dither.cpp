#include <cstdint>

#include "image/cximage.h"

namespace {

// Error-diffusion kernels, cells in the order they are applied, one kernel
// row to a line.
// clang-format off
const CxDiffusionKernel kBurkes = {32, 7, {
    {1, 0, 8}, {2, 0, 4},
    {-2, 1, 2}, {-1, 1, 4}, {0, 1, 8}, {1, 1, 4}, {2, 1, 2}}};
const CxDiffusionKernel kStucki = {42, 12, {
    {1, 0, 8}, {2, 0, 4},
    {-2, 1, 2}, {-1, 1, 4}, {0, 1, 8}, {1, 1, 4}, {2, 1, 2},
    {-2, 2, 1}, {-1, 2, 2}, {0, 2, 4}, {1, 2, 2}, {2, 2, 1}}};
const CxDiffusionKernel kJarvisJudiceNinke = {48, 12, {
    {1, 0, 7}, {2, 0, 5},
    {-2, 1, 3}, {-1, 1, 5}, {0, 1, 7}, {1, 1, 5}, {2, 1, 3},
    {-2, 2, 1}, {-1, 2, 3}, {0, 2, 5}, {1, 2, 3}, {2, 2, 1}}};
const CxDiffusionKernel kSierra = {32, 10, {
    {1, 0, 5}, {2, 0, 3},
    {-2, 1, 2}, {-1, 1, 4}, {0, 1, 5}, {1, 1, 4}, {2, 1, 2},
    {-1, 2, 2}, {0, 2, 3}, {1, 2, 2}}};
const CxDiffusionKernel kStevensonArce = {200, 12, {
    {2, 0, 32},
    {-3, 1, 12}, {-1, 1, 26}, {1, 1, 30}, {3, 1, 16},
    {-2, 2, 12}, {0, 2, 26}, {2, 2, 12},
    {-3, 3, 5}, {-1, 3, 12}, {1, 3, 12}, {3, 3, 5}}};
const CxDiffusionKernel kFloydSteinberg = {16, 4, {
    {1, 0, 7},
    {-1, 1, 3}, {0, 1, 5}, {1, 1, 1}}};
// clang-format on

// The fixed ordered matrix of method 1, indexed [y & 3][x & 3].
const int kOrderedMatrix[4][4] = {{0, 8, 2, 10}, {12, 4, 14, 6}, {3, 11, 1, 9}, {15, 7, 13, 5}};

constexpr int kGeneratedOrder = 4;

// Threshold shared by the fixed threshold and error diffusion: below is black.
constexpr int kBlackBelow = 129;

}  // namespace

const CxDiffusionKernel* cxDiffusionKernel(long method) {
  switch (static_cast<unsigned long>(method)) {
    case 0:
    case 1:
    case 7:
      return nullptr;
    case 2:
      return &kBurkes;
    case 3:
      return &kStucki;
    case 4:
      return &kJarvisJudiceNinke;
    case 5:
      return &kSierra;
    case 6:
      return &kStevensonArce;
    default:
      return &kFloydSteinberg;
  }
}

bool CxImage::Dither(long method) {
  if (dib_ == nullptr)
    return false;
  if (head_.biBitCount == 1)
    return true;

  CxImage target;
  target.CopyInfo(*this);
  target.Create(GetWidth(), GetHeight(), 1, info_.imageType);
  if (!target.IsValid()) {
    setError(target.GetLastError());
    return false;
  }

  const int64_t width = head_.biWidth;
  const int64_t height = head_.biHeight;
  const CxDiffusionKernel* kernel = nullptr;
  switch (static_cast<unsigned long>(method)) {
    case 0:
      for (int64_t y = 0; y < height; ++y) {
        for (int64_t x = 0; x < width; ++x) {
          // 255 is stored as 1 by the 1-bit write.
          target.SetPixelIndex(x, y, BlindGetPixelIndex(x, y) < kBlackBelow ? 0 : 255);
        }
      }
      break;
    case 1: {
      static const uint8_t kLevels[2] = {0, 1};
      for (int64_t y = 0; y < height; ++y) {
        for (int64_t x = 0; x < width; ++x) {
          const int level = BlindGetPixelIndex(x, y) * 16 / 255;
          const int above = kOrderedMatrix[y & 3][x & 3] < level % 16 ? 1 : 0;
          target.BlindSetPixelIndex(x, y, kLevels[level / 16 + above]);
        }
      }
      break;
    }
    case 7: {
      // Built per call as the generator has always done; the division by the
      // order instead of a power of two leaves only the first 16 entries meaningful.
      uint8_t table[1 << (2 * kGeneratedOrder)];
      for (int i = 0; i < (1 << (2 * kGeneratedOrder)); ++i) {
        int a = i / kGeneratedOrder;
        int b = i % kGeneratedOrder;
        int v = 0;
        for (int k = 0; k < kGeneratedOrder; ++k) {
          v = (((v << 1) | ((a ^ b) & 1)) << 1) | (b & 1);
          a >>= 1;
          b >>= 1;
        }
        table[i] = static_cast<uint8_t>(v);
      }
      const int shift = 8 - 2 * kGeneratedOrder > 0 ? 8 - 2 * kGeneratedOrder : 0;
      for (int64_t y = 0; y < height; ++y) {
        for (int64_t x = 0; x < width; ++x) {
          const int g = BlindGetPixelIndex(x, y) >> shift;
          const int cell =
              static_cast<int>(x % kGeneratedOrder + kGeneratedOrder * (y % kGeneratedOrder));
          target.SetPixelIndex(x, y, g <= table[cell] ? 0 : 1);
        }
      }
      break;
    }
    default:
      kernel = cxDiffusionKernel(method);
      break;
  }

  if (kernel != nullptr) {
    // The error lives in the source pixels themselves; cells that fall off the
    // image are dropped by the checked accessors, so that error is lost.
    for (int64_t y = 0; y < height; ++y) {
      for (int64_t x = 0; x < width; ++x) {
        const int g = BlindGetPixelIndex(x, y);
        int64_t error;
        if (g < kBlackBelow) {
          target.SetPixelIndex(x, y, 0);
          error = g;
        } else {
          target.SetPixelIndex(x, y, 1);
          error = g - 255;
        }
        for (int c = 0; c < kernel->cellCount; ++c) {
          const CxDiffusionKernel::Cell& cell = kernel->cells[c];
          const int64_t nx = x + cell.dx;
          const int64_t ny = y + cell.dy;
          int64_t n = GetPixelIndex(nx, ny) + error * cell.weight / kernel->divisor;
          n = n < 0 ? 0 : n > 255 ? 255 : n;
          SetPixelIndex(nx, ny, static_cast<uint8_t>(n));
        }
      }
    }
  }

  target.SetPaletteColor(0, 0, 0, 0, 0);
  target.SetPaletteColor(1, 255, 255, 255, 0);
  Transfer(target);
  return true;
}
