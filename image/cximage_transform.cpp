#include <algorithm>
#include <cstdlib>
#include <cstring>

#include "common/kiwa_common.h"
#include "image/cximage.h"

bool CxImage::Light(int brightness, int contrast) {
  if (dib_ == nullptr)
    return false;
  // Single precision throughout: the printed tones depend on these roundings.
  const float c = static_cast<float>(contrast + 100) / 100.0f;
  const int b = brightness + 128;
  uint8_t table[256];
  for (int i = 0; i < 256; ++i) {
    const float v = static_cast<float>(i - 128) * c + static_cast<float>(b) + 0.5f;
    // Clamping before the conversion gives the same table as truncating and
    // then clamping, without converting an out-of-range float.
    table[i] = v <= 0.0f ? 0 : v >= 255.0f ? 255 : static_cast<uint8_t>(static_cast<int>(v));
  }
  return Lut(table);
}

bool CxImage::Lut(const uint8_t* table) {
  if (dib_ == nullptr || table == nullptr)
    return false;
  const int64_t width = head_.biWidth;
  const int64_t height = head_.biHeight;
  const bool rows = head_.biBitCount == 8 && kiwaFastPixels();
  for (int64_t y = 0; y < height; ++y) {
    if (rows) {
      uint8_t* row = rowStart(y);
      for (int64_t x = 0; x < width; ++x)
        row[x] = table[row[x]];
      continue;
    }
    for (int64_t x = 0; x < width; ++x)
      BlindSetPixelIndex(x, y, table[BlindGetPixelIndex(x, y)]);
  }
  return true;
}

void CxImage::Negative() {
  if (dib_ == nullptr)
    return;
  uint8_t* p = info_.bits;
  for (uint32_t i = 0; i < head_.biSizeImage; ++i)
    p[i] = static_cast<uint8_t>(~p[i]);
}

bool CxImage::Rotate180(CxImage* iDst) {
  if (dib_ == nullptr)
    return false;
  const int64_t width = head_.biWidth;
  const int64_t height = head_.biHeight;
  CxImage target;
  target.CopyInfo(*this);
  target.Create(GetWidth(), GetHeight(), 8, info_.imageType);
  target.SetPalette(GetPalette(), GetNumColors());
  const bool rows = head_.biBitCount == 8 && kiwaFastPixels();
  if (target.IsValid()) {
    for (int64_t y = 0; y < height; ++y) {
      if (rows) {
        const uint8_t* src = rowStart(y);
        uint8_t* dst = target.rowStart(height - 1 - y) + width - 1;
        for (int64_t x = 0; x < width; ++x)
          dst[-x] = src[x];
        continue;
      }
      for (int64_t x = 0; x < width; ++x) {
        target.SetPixelIndex(width - 1 - x, height - 1 - y, BlindGetPixelIndex(x, y));
      }
    }
  }
  (iDst != nullptr ? *iDst : *this).Transfer(target);
  return true;
}

void CxImage::Mirror() {
  if (dib_ == nullptr)
    return;
  CxImage target;
  target.CopyInfo(*this);
  target.Create(GetWidth(), GetHeight(), 8, info_.imageType);
  target.SetPalette(GetPalette(), GetNumColors());
  if (target.IsValid()) {
    const int64_t width = head_.biWidth;
    const uint64_t last =
        static_cast<uint64_t>(head_.biBitCount == 24 ? (width - 1) * 3 : width - 1);
    // Both rows advance by the source's row size. For 8-bit sources, the only
    // ones the pipeline mirrors, that is an exact pixel mirror; for other
    // depths bytes that would lie outside either block read as 0 or are dropped.
    const uint64_t step = info_.effWidth;
    for (int64_t y = 0; y < head_.biHeight; ++y) {
      const uint64_t offset = static_cast<uint64_t>(y) * step;
      const uint8_t* src = info_.bits + offset;
      uint8_t* dst = target.info_.bits + offset;
      if (offset + last < pixelBytes_ && offset + last < target.pixelBytes_) {
        for (uint64_t j = 0; j <= last; ++j)
          dst[j] = src[last - j];
      } else {
        for (uint64_t j = 0; j <= last && offset + j < target.pixelBytes_; ++j) {
          dst[j] = offset + last - j < pixelBytes_ ? src[last - j] : 0;
        }
      }
    }
  }
  Transfer(target);
}

void CxImage::MakeCenter(int width) {
  if (dib_ == nullptr || static_cast<int64_t>(head_.biWidth) >= width)
    return;
  CxImage target;
  target.CopyInfo(*this);
  target.Create(static_cast<uint32_t>(width), GetHeight(), 8, info_.imageType);
  target.SetPalette(GetPalette(), GetNumColors());
  if (target.IsValid()) {
    const int64_t offset = (width - static_cast<int64_t>(head_.biWidth)) / 2;
    for (int64_t y = 0; y < head_.biHeight; ++y) {
      for (int64_t x = 0; x < head_.biWidth; ++x) {
        target.SetPixelIndex(x + offset, y, BlindGetPixelIndex(x, y));
      }
    }
  }
  Transfer(target);
}

bool CxImage::Expand(long left, long top, long right, long bottom, tagRGBQUAD canvasColor) {
  if (dib_ == nullptr || left < 0 || top < 0 || right < 0 || bottom < 0)
    return false;
  const int64_t width = head_.biWidth;
  const int64_t height = head_.biHeight;
  // Amounts that cannot make a 32-bit size are refused like any other image
  // that exceeds the memory limit.
  constexpr int64_t kMaxSide = UINT32_MAX;
  if (left > kMaxSide || right > kMaxSide || top > kMaxSide || bottom > kMaxSide ||
      width + left + right > kMaxSide || height + top + bottom > kMaxSide) {
    setError("CXIMAGE_MAX_MEMORY exceeded");
    return false;
  }
  const int64_t newWidth = width + left + right;
  const int64_t newHeight = height + top + bottom;

  CxImage target;
  target.CopyInfo(*this);
  target.Create(static_cast<uint32_t>(newWidth), static_cast<uint32_t>(newHeight), head_.biBitCount,
                info_.imageType);
  if (!target.IsValid()) {
    setError(target.GetLastError());
    return false;
  }
  target.SetPalette(GetPalette(), GetNumColors());

  const uint16_t bpp = head_.biBitCount;
  if (bpp == 1 || bpp == 4) {
    const uint8_t canvas = target.GetNearestIndex(canvasColor);
    for (int64_t y = 0; y < newHeight; ++y) {
      for (int64_t x = 0; x < newWidth; ++x) {
        const bool old = x >= left && x < left + width && y >= bottom && y < bottom + height;
        target.SetPixelIndex(x, y, old ? GetPixelIndex(x - left, y - bottom) : canvas);
      }
    }
  } else {
    if (bpp == 8) {
      memset(target.info_.bits, target.GetNearestIndex(canvasColor), target.head_.biSizeImage);
    } else {
      for (int64_t y = 0; y < newHeight; ++y) {
        uint8_t* px = target.rowStart(y);
        for (int64_t x = 0; x < newWidth; ++x, px += 3) {
          px[0] = canvasColor.rgbBlue;
          px[1] = canvasColor.rgbGreen;
          px[2] = canvasColor.rgbRed;
        }
      }
    }
    const int64_t pixelSize = bpp / 8;
    for (int64_t y = 0; y < height; ++y) {
      memcpy(target.rowStart(bottom + y) + left * pixelSize, rowStart(y),
             static_cast<size_t>(width * pixelSize));
    }
  }
  Transfer(target);
  return true;
}

bool CxImage::IncreaseBpp(uint32_t nbit) {
  if (dib_ == nullptr)
    return false;
  if (nbit != 4 && nbit != 8 && nbit != 24)
    return false;
  if (head_.biBitCount == nbit)
    return true;
  if (head_.biBitCount > nbit)
    return false;

  const int64_t width = head_.biWidth;
  const int64_t height = head_.biHeight;
  CxImage target;
  target.CopyInfo(*this);
  target.Create(GetWidth(), GetHeight(), nbit, info_.imageType);
  if (!target.IsValid()) {
    setError(target.GetLastError());
    return false;
  }
  if (nbit == 24) {
    for (int64_t y = 0; y < height; ++y) {
      for (int64_t x = 0; x < width; ++x) {
        target.BlindSetPixelColor(x, y, BlindGetPixelColor(x, y));
      }
    }
  } else {
    // Only the first 2 (or 16) entries are copied; the rest stay black.
    target.SetPalette(GetPalette(), GetNumColors());
    for (int64_t y = 0; y < height; ++y) {
      for (int64_t x = 0; x < width; ++x)
        target.BlindSetPixelIndex(x, y, BlindGetPixelIndex(x, y));
    }
  }
  Transfer(target);
  return true;
}

void CxImage::DrawLine(int startX, int endX, int startY, int endY, uint8_t index) {
  if (dib_ == nullptr)
    return;
  const int64_t dx = std::llabs(static_cast<int64_t>(endX) - startX);
  const int64_t dy = std::llabs(static_cast<int64_t>(endY) - startY);
  const int64_t sx = endX >= startX ? 1 : -1;
  const int64_t sy = endY >= startY ? 1 : -1;
  const bool xMajor = dx >= dy;
  const int64_t den = xMajor ? dx : dy;
  const int64_t add = xMajor ? dy : dx;
  int64_t num = den / 2;
  int64_t x = startX;
  int64_t y = startY;
  for (int64_t i = 0; i <= den; ++i) {
    SetPixelIndex(x, y, index);
    num += add;
    if (num >= den) {
      num -= den;
      if (xMajor) {
        y += sy;
      } else {
        x += sx;
      }
    }
    if (xMajor) {
      x += sx;
    } else {
      y += sy;
    }
  }
}
