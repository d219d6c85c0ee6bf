#include <algorithm>
#include <cstdint>
#include <cstring>
#include <vector>
#if defined(__SSE2__)
#include <emmintrin.h>
#endif

#include "image/cximage.h"

namespace {

// Error-diffusion kernels, cells in the order they are applied, one kernel
// row to a line.
// clang-format off
constexpr CxDiffusionKernel kBurkes = {32, 7, {
    {1, 0, 8}, {2, 0, 4},
    {-2, 1, 2}, {-1, 1, 4}, {0, 1, 8}, {1, 1, 4}, {2, 1, 2}}};
constexpr CxDiffusionKernel kStucki = {42, 12, {
    {1, 0, 8}, {2, 0, 4},
    {-2, 1, 2}, {-1, 1, 4}, {0, 1, 8}, {1, 1, 4}, {2, 1, 2},
    {-2, 2, 1}, {-1, 2, 2}, {0, 2, 4}, {1, 2, 2}, {2, 2, 1}}};
constexpr CxDiffusionKernel kJarvisJudiceNinke = {48, 12, {
    {1, 0, 7}, {2, 0, 5},
    {-2, 1, 3}, {-1, 1, 5}, {0, 1, 7}, {1, 1, 5}, {2, 1, 3},
    {-2, 2, 1}, {-1, 2, 3}, {0, 2, 5}, {1, 2, 3}, {2, 2, 1}}};
constexpr CxDiffusionKernel kSierra = {32, 10, {
    {1, 0, 5}, {2, 0, 3},
    {-2, 1, 2}, {-1, 1, 4}, {0, 1, 5}, {1, 1, 4}, {2, 1, 2},
    {-1, 2, 2}, {0, 2, 3}, {1, 2, 2}}};
constexpr CxDiffusionKernel kStevensonArce = {200, 12, {
    {2, 0, 32},
    {-3, 1, 12}, {-1, 1, 26}, {1, 1, 30}, {3, 1, 16},
    {-2, 2, 12}, {0, 2, 26}, {2, 2, 12},
    {-3, 3, 5}, {-1, 3, 12}, {1, 3, 12}, {3, 3, 5}}};
constexpr CxDiffusionKernel kFloydSteinberg = {16, 4, {
    {1, 0, 7},
    {-1, 1, 3}, {0, 1, 5}, {1, 1, 1}}};
// clang-format on

// The fixed ordered matrix of method 1, indexed [y & 3][x & 3].
const int kOrderedMatrix[4][4] = {{0, 8, 2, 10}, {12, 4, 14, 6}, {3, 11, 1, 9}, {15, 7, 13, 5}};

constexpr int kGeneratedOrder = 4;
constexpr int kGeneratedTableSize = 1 << (2 * kGeneratedOrder);
constexpr int kGeneratedShift = 8 - 2 * kGeneratedOrder > 0 ? 8 - 2 * kGeneratedOrder : 0;

// Threshold shared by the fixed threshold and error diffusion: below is black.
constexpr int kBlackBelow = 129;

// Built per call as the generator has always done; the division by the order
// instead of a power of two leaves only the first 16 entries meaningful.
void generatedOrderTable(uint8_t* table) {
  for (int i = 0; i < kGeneratedTableSize; ++i) {
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
}

constexpr int kernelReach(const CxDiffusionKernel& k) {
  int reach = 0;
  for (int c = 0; c < k.cellCount; ++c)
    reach = k.cells[c].dx > reach ? k.cells[c].dx : -k.cells[c].dx > reach ? -k.cells[c].dx : reach;
  return reach;
}

constexpr int kernelDepth(const CxDiffusionKernel& k) {
  int depth = 0;
  for (int c = 0; c < k.cellCount; ++c)
    depth = k.cells[c].dy > depth ? k.cells[c].dy : depth;
  return depth;
}

int clampLevel(int n) {
  return std::min(255, std::max(0, n));
}

constexpr bool forwardOnItsRow(const CxDiffusionKernel& k) {
  for (int c = 0; c < k.cellCount; ++c) {
    if (k.cells[c].dy == 0 && k.cells[c].dx <= 0)
      return false;
  }
  return true;
}

// The different weights of the cells on the rows below the pixel; a reduced
// row keeps one line of shares per weight.
struct WeightsBelow {
  int count;
  int weight[12];
  int line[12];  // of each cell below: its weight's line
};
constexpr WeightsBelow weightsBelow(const CxDiffusionKernel& k) {
  WeightsBelow w{0, {}, {}};
  for (int c = 0; c < k.cellCount; ++c) {
    if (k.cells[c].dy == 0)
      continue;
    int line = 0;
    while (line < w.count && w.weight[line] != k.cells[c].weight)
      ++line;
    if (line == w.count)
      w.weight[w.count++] = k.cells[c].weight;
    w.line[c] = line;
  }
  return w;
}

// The cells that reach the row `d` below the pixel, rightmost first: the
// order in which a pixel there gets its shares from the pixels above it.
struct CellOrder {
  int count;
  int cell[12];
};
constexpr CellOrder cellsOnRow(const CxDiffusionKernel& k, int d) {
  CellOrder order{0, {}};
  for (int dx = kernelReach(k); dx >= -kernelReach(k); --dx) {
    for (int c = 0; c < k.cellCount; ++c) {
      if (k.cells[c].dy == d && k.cells[c].dx == dx)
        order.cell[order.count++] = c;
    }
  }
  return order;
}

// A reduced row's shares for the rows below it: a line per weight, `pitch`
// apart, each with `reach` zeros either side (what falls off the image adds
// nothing).
struct ShareLines {
  int16_t* at;  // pixel 0 of the first line
  int64_t pitch;
};

// Pixels [from, to) of the row `d` below a reduced row get that row's shares,
// rightmost cell first, each addition clamped as it always was. Each pixel
// stands alone, so sixteen are done at once.
template <const CxDiffusionKernel& K, int d>
void shareDown(uint8_t* below, ShareLines lines, int64_t from, int64_t to) {
  constexpr CellOrder order = cellsOnRow(K, d);
  constexpr WeightsBelow weights = weightsBelow(K);
  int64_t x = from;
#if defined(__SSE2__)
  const __m128i zero = _mm_setzero_si128();
  const __m128i top = _mm_set1_epi16(255);
  for (; x + 16 <= to; x += 16) {
    const __m128i bytes = _mm_loadu_si128(reinterpret_cast<const __m128i*>(below + x));
    __m128i lo = _mm_unpacklo_epi8(bytes, zero);
    __m128i hi = _mm_unpackhi_epi8(bytes, zero);
#pragma GCC unroll 12
    for (int i = 0; i < order.count; ++i) {
      const int c = order.cell[i];
      const int16_t* s = lines.at + weights.line[c] * lines.pitch + x - K.cells[c].dx;
      lo = _mm_add_epi16(lo, _mm_loadu_si128(reinterpret_cast<const __m128i*>(s)));
      hi = _mm_add_epi16(hi, _mm_loadu_si128(reinterpret_cast<const __m128i*>(s + 8)));
      lo = _mm_min_epi16(_mm_max_epi16(lo, zero), top);
      hi = _mm_min_epi16(_mm_max_epi16(hi, zero), top);
    }
    _mm_storeu_si128(reinterpret_cast<__m128i*>(below + x), _mm_packus_epi16(lo, hi));
  }
#endif
  for (; x < to; ++x) {
    int v = below[x];
#pragma GCC unroll 12
    for (int i = 0; i < order.count; ++i) {
      const int c = order.cell[i];
      v = clampLevel(v + lines.at[weights.line[c] * lines.pitch + x - K.cells[c].dx]);
    }
    below[x] = static_cast<uint8_t>(v);
  }
}

// One row reduced pixel by pixel: each pixel becomes its level (0 or 1) and
// hands its error to the pixels after it on the row, which wait in registers,
// and its shares for the rows below to its share lines.
template <const CxDiffusionKernel& K>
struct RowChain {
  static_assert(forwardOnItsRow(K), "a cell on the pixel's own row lies after it");
  static constexpr int reach = kernelReach(K);
  static constexpr WeightsBelow weights = weightsBelow(K);
  uint8_t* row;
  ShareLines lines;
  int64_t width;
  int window[reach + 1];

  void start() {
#pragma GCC unroll 4
    for (int j = 0; j <= reach; ++j)
      window[j] = j < width ? row[j] : 0;
  }
  inline void step(int64_t x, const int (*share)[256], const int16_t (*byWeight)[256]) {
    const int g = window[0];
    row[x] = g < kBlackBelow ? 0 : 1;
#pragma GCC unroll 12
    for (int k = 0; k < weights.count; ++k)
      lines.at[k * lines.pitch + x] = byWeight[k][g];
#pragma GCC unroll 12
    for (int c = 0; c < K.cellCount; ++c) {
      if (K.cells[c].dy == 0)
        window[K.cells[c].dx] = clampLevel(window[K.cells[c].dx] + share[c][g]);
    }
#pragma GCC unroll 4
    for (int j = 0; j < reach; ++j)
      window[j] = window[j + 1];
    window[reach] = x + reach + 1 < width ? row[x + reach + 1] : 0;
  }
};

// Error diffusion in place. The error a cell gets depends only on the value
// of the pixel it comes from, so it comes from a table; and a row's errors to
// the rows below depend only on its values as they were reduced. So rows are
// reduced two at a time, the second some pixels behind the first: pixels of
// the second get the first row's shares, sixteen at a time, once the pixels
// above them are reduced, and the two chains of a pixel waiting for the one
// before it run side by side. The rows further below then get the shares of
// the first row, then of the second, in the order the pixels were reduced,
// each addition clamped as it always was.
template <const CxDiffusionKernel& K>
void diffuseInPlace(uint8_t* bits, int64_t stride, int64_t width, int64_t height) {
  constexpr int reach = kernelReach(K);
  constexpr int depth = kernelDepth(K);
  constexpr WeightsBelow weights = weightsBelow(K);
  // The second row's next pixel must have its shares: they are added up to
  // 15 pixels late.
  constexpr int64_t lag = 2 * reach + 17;
  int share[12][256];
  for (int c = 0; c < K.cellCount; ++c) {
    for (int g = 0; g < 256; ++g) {
      const int64_t error = g < kBlackBelow ? g : g - 255;
      share[c][g] = static_cast<int>(error * K.cells[c].weight / K.divisor);
    }
  }
  int16_t byWeight[12][256];
  for (int k = 0; k < weights.count; ++k) {
    for (int g = 0; g < 256; ++g) {
      const int64_t error = g < kBlackBelow ? g : g - 255;
      byWeight[k][g] = static_cast<int16_t>(error * weights.weight[k] / K.divisor);
    }
  }
  const int64_t pitch = width + int64_t{2} * reach;
  const int64_t lineCount = weights.count;
  std::vector<int16_t> storage(static_cast<size_t>(2 * lineCount * pitch));
  const ShareLines linesA{storage.data() + reach, pitch};
  const ShareLines linesB{linesA.at + lineCount * pitch, pitch};
  const auto shareBelow = [&](ShareLines lines, int64_t y, int first) {
    if (first <= 1 && depth >= 1 && y + 1 < height)
      shareDown<K, 1>(bits + (y + 1) * stride, lines, 0, width);
    if (first <= 2 && depth >= 2 && y + 2 < height)
      shareDown<K, 2>(bits + (y + 2) * stride, lines, 0, width);
    if (depth >= 3 && y + 3 < height)
      shareDown<K, 3>(bits + (y + 3) * stride, lines, 0, width);
  };
  for (int64_t y = 0; y < height; y += 2) {
    RowChain<K> a{bits + y * stride, linesA, width, {}};
    a.start();
    if (y + 1 == height) {
      for (int64_t x = 0; x < width; ++x)
        a.step(x, share, byWeight);
      break;
    }
    RowChain<K> b{a.row + stride, linesB, width, {}};
    // Pixels of the second row with all the first row's shares.
    int64_t ready = 0;
    const auto catchUp = [&](int64_t x, int64_t batch) {
      const int64_t to = std::min(x + 1 - reach, width);
      if (to - ready >= batch) {
        shareDown<K, 1>(b.row, linesA, ready, to);
        ready = to;
      }
    };
    int64_t x = 0;
    for (; x < lag; ++x) {
      if (x < width)
        a.step(x, share, byWeight);
      catchUp(x, x + 1 < width + reach ? 16 : 1);
    }
    b.start();
    for (; x < width; ++x) {
      a.step(x, share, byWeight);
      catchUp(x, 16);
      b.step(x - lag, share, byWeight);
    }
    for (; x < width + lag; ++x) {
      catchUp(x, 1);
      if (x - lag < width)
        b.step(x - lag, share, byWeight);
    }
    // The rows below: the first row's shares, then the second's.
    shareBelow(linesA, y, 2);
    shareBelow(linesB, y + 1, 1);
  }
}

// Rows reduced by a 4 x 4 pattern of cells whose level (0 or 1) rises with the
// value: each cell is then one threshold, and sixteen pixels take one
// comparison. `level(cell row, cell column, value)` is the pattern.
template <class Level>
void thresholdCells(uint8_t* bits, int64_t stride, int64_t width, int64_t height, Level level) {
  // Each cell's highest value still at level 0.
  uint8_t top[4][4];
  bool rising = true;
  for (int cy = 0; cy < 4; ++cy) {
    for (int cx = 0; cx < 4; ++cx) {
      int zeros = 0;
      for (int v = 0; v < 256; ++v) {
        const int l = level(cy, cx, v);
        rising = rising && (l == 0 ? zeros == v : l == 1);
        zeros += l == 0 ? 1 : 0;
      }
      rising = rising && zeros > 0;
      top[cy][cx] = static_cast<uint8_t>(zeros - 1);
    }
  }
  for (int64_t y = 0; y < height; ++y) {
    uint8_t* row = bits + y * stride;
    int64_t x = 0;
    if (!rising) {
      for (; x < width; ++x)
        row[x] =
            static_cast<uint8_t>(level(static_cast<int>(y & 3), static_cast<int>(x & 3), row[x]));
      continue;
    }
    const uint8_t* tops = top[y & 3];
#if defined(__SSE2__)
    // Above the top as a signed comparison, both less 128.
    const __m128i bias = _mm_set1_epi8(static_cast<char>(0x80));
    const __m128i one = _mm_set1_epi8(1);
    const __m128i limit = _mm_xor_si128(
        _mm_set_epi8(
            static_cast<char>(tops[3]), static_cast<char>(tops[2]), static_cast<char>(tops[1]),
            static_cast<char>(tops[0]), static_cast<char>(tops[3]), static_cast<char>(tops[2]),
            static_cast<char>(tops[1]), static_cast<char>(tops[0]), static_cast<char>(tops[3]),
            static_cast<char>(tops[2]), static_cast<char>(tops[1]), static_cast<char>(tops[0]),
            static_cast<char>(tops[3]), static_cast<char>(tops[2]), static_cast<char>(tops[1]),
            static_cast<char>(tops[0])),
        bias);
    for (; x + 16 <= width; x += 16) {
      const __m128i v = _mm_loadu_si128(reinterpret_cast<const __m128i*>(row + x));
      const __m128i above = _mm_cmpgt_epi8(_mm_xor_si128(v, bias), limit);
      _mm_storeu_si128(reinterpret_cast<__m128i*>(row + x), _mm_and_si128(above, one));
    }
#endif
    for (; x < width; ++x)
      row[x] = row[x] > tops[x & 3] ? 1 : 0;
  }
}

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
      uint8_t table[kGeneratedTableSize];
      generatedOrderTable(table);
      const int shift = kGeneratedShift;
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

void CxImage::ditherRowsInPlace(long method) {
  const int64_t width = head_.biWidth;
  const int64_t height = head_.biHeight;
  const int64_t stride = info_.effWidth;
  uint8_t* bits = info_.bits;
  switch (static_cast<unsigned long>(method)) {
    case 0:
      for (int64_t y = 0; y < height; ++y) {
        uint8_t* row = bits + y * stride;
        int64_t x = 0;
#if defined(__SSE2__)
        // Above 128 as a signed comparison of the value less 128.
        const __m128i bias = _mm_set1_epi8(static_cast<char>(0x80));
        const __m128i one = _mm_set1_epi8(1);
        for (; x + 16 <= width; x += 16) {
          const __m128i v = _mm_loadu_si128(reinterpret_cast<const __m128i*>(row + x));
          const __m128i above = _mm_cmpgt_epi8(_mm_xor_si128(v, bias), _mm_setzero_si128());
          _mm_storeu_si128(reinterpret_cast<__m128i*>(row + x), _mm_and_si128(above, one));
        }
#endif
        for (; x < width; ++x)
          row[x] = row[x] < kBlackBelow ? 0 : 1;
      }
      return;
    case 1:
      thresholdCells(bits, stride, width, height, [](int cy, int cx, int v) {
        const int level = v * 16 / 255;
        return level / 16 + (kOrderedMatrix[cy][cx] < level % 16 ? 1 : 0);
      });
      return;
    case 7: {
      uint8_t table[kGeneratedTableSize];
      generatedOrderTable(table);
      thresholdCells(bits, stride, width, height, [&table](int cy, int cx, int v) {
        return (v >> kGeneratedShift) <= table[kGeneratedOrder * cy + cx] ? 0 : 1;
      });
      return;
    }
    default:
      break;
  }
  const CxDiffusionKernel* kernel = cxDiffusionKernel(method);
  if (kernel == &kBurkes) {
    diffuseInPlace<kBurkes>(bits, stride, width, height);
  } else if (kernel == &kStucki) {
    diffuseInPlace<kStucki>(bits, stride, width, height);
  } else if (kernel == &kJarvisJudiceNinke) {
    diffuseInPlace<kJarvisJudiceNinke>(bits, stride, width, height);
  } else if (kernel == &kSierra) {
    diffuseInPlace<kSierra>(bits, stride, width, height);
  } else if (kernel == &kStevensonArce) {
    diffuseInPlace<kStevensonArce>(bits, stride, width, height);
  } else {
    diffuseInPlace<kFloydSteinberg>(bits, stride, width, height);
  }
}

bool CxImage::Dither8(long method) {
  if (dib_ == nullptr)
    return false;
  if (head_.biBitCount != 8)
    return Dither(method) && IncreaseBpp(8);

  ditherRowsInPlace(method);
  // The padding and palette of a fresh block: rows of a page wider than its
  // width may still hold the raster's bytes there.
  for (int64_t y = 0; y < head_.biHeight; ++y) {
    uint8_t* row = rowStart(y);
    memset(row + head_.biWidth, 0, info_.effWidth - static_cast<uint32_t>(head_.biWidth));
  }
  memset(GetPalette(), 0, GetPaletteSize());
  SetPaletteColor(1, 255, 255, 255, 0);
  return true;
}
