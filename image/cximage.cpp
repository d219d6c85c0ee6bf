#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <memory>

#include "image/cximage.h"

#include "common/kiwa_common.h"

namespace {

constexpr uint32_t kHeaderSize = sizeof(CxBitmapInfoHeader);

}  // namespace

CxImage::CxImage() : pixelBytes_(0) {
  memset(&head_, 0, sizeof(head_));
  memset(&info_, 0, sizeof(info_));
}

CxImage::~CxImage() {
  Destroy();
}

void CxImage::setError(const char* text) {
  strncpy(info_.lastError, text, sizeof(info_.lastError) - 1);
  info_.lastError[sizeof(info_.lastError) - 1] = '\0';
}

void* CxImage::Create(uint32_t dwWidth, uint32_t dwHeight, uint32_t wBpp, uint32_t imageType) {
  // A block of the size the new image needs is cleared and kept: each page of
  // a job would otherwise map and fault in a fresh one.
  std::unique_ptr<uint8_t, KiwaFree> former(std::move(dib_));
  const uint64_t formerBytes = former ? blockBytes_ : 0;
  pixelBytes_ = 0;
  blockBytes_ = 0;

  if (dwWidth == 0 || dwHeight == 0) {
    setError("CxImage::Create : width and height must be greater than zero");
    return nullptr;
  }

  if (wBpp <= 1) {
    wBpp = 1;
  } else if (wBpp <= 4) {
    wBpp = 4;
  } else if (wBpp <= 8) {
    wBpp = 8;
  } else {
    wBpp = 24;
  }

  // The limit test works on wrapping 32-bit products on purpose: it only
  // catches a product that wrapped through the depth factor.
  const uint32_t pixels = dwWidth * dwHeight;
  const uint32_t bitsTotal = pixels * wBpp;
  if (bitsTotal / 8 > CXIMAGE_MAX_MEMORY || bitsTotal / wBpp != pixels) {
    setError("CXIMAGE_MAX_MEMORY exceeded");
    return nullptr;
  }

  switch (wBpp) {
    case 1:
      head_.biClrUsed = 2;
      break;
    case 4:
      head_.biClrUsed = 16;
      break;
    case 8:
      head_.biClrUsed = 256;
      break;
    default:
      head_.biClrUsed = 0;
  }

  info_.effWidth = ((wBpp * dwWidth + 31) >> 5) << 2;
  info_.imageType = imageType;
  head_.biSize = kHeaderSize;
  head_.biWidth = static_cast<int32_t>(dwWidth);
  head_.biHeight = static_cast<int32_t>(dwHeight);
  head_.biPlanes = 1;
  head_.biBitCount = static_cast<uint16_t>(wBpp);
  head_.biCompression = 0;
  head_.biSizeImage = info_.effWidth * dwHeight;

  // The header keeps its 32-bit sizes, but the block is sized in 64 bits for
  // every byte the accessors can reach, so sizes that wrap never lead outside
  // it. New memory is zeroed: row padding reaches the debug images and the
  // page record, and output must not depend on leftover memory.
  const uint64_t rowReach =
      std::max<uint64_t>(info_.effWidth, (static_cast<uint64_t>(dwWidth) * wBpp + 7) / 8);
  const uint64_t reach = static_cast<uint64_t>(info_.effWidth) * (dwHeight - 1) + rowReach;
  pixelBytes_ = std::max<uint64_t>(head_.biSizeImage, reach);
  const uint64_t blockBytes = kHeaderSize + static_cast<uint64_t>(GetPaletteSize()) + pixelBytes_;
  if (former && formerBytes == blockBytes) {
    memset(former.get(), 0, blockBytes);
    dib_ = std::move(former);
  } else {
    former.reset();
    dib_.reset(static_cast<uint8_t*>(blockBytes <= SIZE_MAX ? calloc(1, blockBytes) : nullptr));
  }
  if (dib_ == nullptr) {
    pixelBytes_ = 0;
    setError("CxImage::Create can't allocate memory");
    return nullptr;
  }

  blockBytes_ = blockBytes;
  memcpy(dib_.get(), &head_, kHeaderSize);
  info_.bits = dib_.get() + kHeaderSize + GetPaletteSize();
  return dib_.get();
}

bool CxImage::CreateFromArray(const uint8_t* pArray, uint32_t dwWidth, uint32_t dwHeight,
                              uint32_t dwBitsperpixel, uint32_t dwBytesperline, bool bFlipImage) {
  if (pArray == nullptr)
    return false;
  if (dwBitsperpixel != 1 && dwBitsperpixel != 4 && dwBitsperpixel != 8 && dwBitsperpixel != 24 &&
      dwBitsperpixel != 32) {
    return false;
  }
  if (Create(dwWidth, dwHeight, dwBitsperpixel, 0) == nullptr)
    return false;
  if (dwBitsperpixel < 24)
    SetGrayPalette();

  const uint32_t rowCopy = std::min(info_.effWidth, dwBytesperline);
  for (uint32_t y = 0; y < dwHeight; ++y) {
    uint8_t* dst = rowStart(bFlipImage ? dwHeight - 1 - y : y);
    const uint8_t* src = pArray + static_cast<uint64_t>(y) * dwBytesperline;
    if (dwBitsperpixel == 32) {
      for (uint32_t x = 0; x < dwWidth; ++x)
        memcpy(dst + 3 * x, src + 4 * x, 3);
    } else {
      memcpy(dst, src, rowCopy);
    }
  }
  return true;
}

bool CxImage::Destroy() {
  if (dib_ != nullptr) {
    dib_.reset();
    pixelBytes_ = 0;
    blockBytes_ = 0;
  }
  return true;
}

bool CxImage::Transfer(CxImage& from, bool /*transferFrames*/) {
  if (&from == this)
    return true;
  Destroy();
  head_ = from.head_;
  info_ = from.info_;
  dib_ = std::move(from.dib_);
  pixelBytes_ = from.pixelBytes_;
  blockBytes_ = from.blockBytes_;
  memset(&from.head_, 0, sizeof(from.head_));
  memset(&from.info_, 0, sizeof(from.info_));
  from.pixelBytes_ = 0;
  from.blockBytes_ = 0;
  return true;
}

void CxImage::CopyInfo(const CxImage& src) {
  if (dib_ == nullptr)
    info_ = src.info_;
}

uint8_t* CxImage::GetBits(uint32_t row) const {
  if (dib_ == nullptr)
    return nullptr;
  if (static_cast<int64_t>(row) >= head_.biHeight)
    return nullptr;
  uint32_t blockHeaderSize;
  memcpy(&blockHeaderSize, dib_.get(), sizeof(blockHeaderSize));
  uint8_t* first = dib_.get() + blockHeaderSize + GetPaletteSize();
  return first + static_cast<uint64_t>(info_.effWidth) * row;
}

tagRGBQUAD* CxImage::GetPalette() const {
  if (dib_ == nullptr || head_.biClrUsed == 0)
    return nullptr;
  return reinterpret_cast<tagRGBQUAD*>(dib_.get() + kHeaderSize);
}

void CxImage::SetPalette(const tagRGBQUAD* pPal, uint32_t nColors) {
  if (pPal == nullptr || dib_ == nullptr || head_.biClrUsed == 0)
    return;
  const uint64_t bytes = std::min<uint64_t>(GetPaletteSize(), 4ull * nColors);
  memcpy(GetPalette(), pPal, bytes);
}

tagRGBQUAD CxImage::GetPaletteColor(uint8_t idx) const {
  tagRGBQUAD c = {0, 0, 0, 0};
  const tagRGBQUAD* pal = GetPalette();
  if (pal != nullptr && idx < head_.biClrUsed)
    c = pal[idx];
  return c;
}

void CxImage::SetPaletteColor(uint8_t idx, uint8_t r, uint8_t g, uint8_t b, uint8_t alpha) {
  tagRGBQUAD* pal = GetPalette();
  if (pal == nullptr || idx >= head_.biClrUsed)
    return;
  pal[idx].rgbBlue = b;
  pal[idx].rgbGreen = g;
  pal[idx].rgbRed = r;
  pal[idx].rgbReserved = alpha;
}

void CxImage::SetGrayPalette() {
  tagRGBQUAD* pal = GetPalette();
  if (pal == nullptr)
    return;
  const uint32_t step = 255 / (head_.biClrUsed - 1);
  for (uint32_t i = 0; i < head_.biClrUsed; ++i) {
    const uint8_t level = static_cast<uint8_t>(i * step);
    pal[i].rgbBlue = pal[i].rgbGreen = pal[i].rgbRed = level;
  }
}

uint8_t CxImage::GetNearestIndex(tagRGBQUAD c) {
  if (dib_ == nullptr || head_.biClrUsed == 0)
    return 0;
  if (info_.nearestValid && info_.nearestColor.rgbBlue == c.rgbBlue &&
      info_.nearestColor.rgbGreen == c.rgbGreen && info_.nearestColor.rgbRed == c.rgbRed &&
      info_.nearestColor.rgbReserved == c.rgbReserved) {
    return info_.nearestIndex;
  }
  info_.nearestColor = c;
  info_.nearestValid = true;

  const tagRGBQUAD* pal = GetPalette();
  // The header has no setter for biClrImportant, but never search past the palette.
  uint32_t count = head_.biClrImportant != 0 ? head_.biClrImportant : head_.biClrUsed;
  count = std::min(count, head_.biClrUsed);
  int best = 200000;
  uint8_t found = 0;
  for (uint32_t j = 0; j < count; ++j) {
    const int db = pal[j].rgbBlue - c.rgbBlue;
    const int dg = pal[j].rgbGreen - c.rgbGreen;
    const int dr = pal[j].rgbRed - c.rgbRed;
    const int distance = db * db + dg * dg + dr * dr;
    if (distance == 0) {
      found = static_cast<uint8_t>(j);
      break;
    }
    if (distance < best) {
      best = distance;
      found = static_cast<uint8_t>(j);
    }
  }
  info_.nearestIndex = found;
  return found;
}

uint8_t CxImage::GetPixelIndex(int64_t x, int64_t y) const {
  if (dib_ == nullptr || head_.biClrUsed == 0)
    return 0;
  // Outside the image the first pixel byte comes back, raw, as it always has.
  if (!inside(x, y))
    return info_.bits[0];
  return BlindGetPixelIndex(x, y);
}

void CxImage::SetPixelIndex(int64_t x, int64_t y, uint8_t i) {
  if (dib_ == nullptr || head_.biClrUsed == 0 || !inside(x, y))
    return;
  BlindSetPixelIndex(x, y, i);
}

uint8_t CxImage::BlindGetPixelIndex(int64_t x, int64_t y) const {
  const uint8_t* row = rowStart(y);
  switch (head_.biBitCount) {
    case 8:
      return row[x];
    case 4:
      return (row[x / 2] >> ((1 - x % 2) * 4)) & 0x0F;
    case 1:
      return (row[x / 8] >> (7 - x % 8)) & 0x01;
    default:
      return 0;
  }
}

void CxImage::BlindSetPixelIndex(int64_t x, int64_t y, uint8_t i) {
  uint8_t* row = rowStart(y);
  switch (head_.biBitCount) {
    case 8:
      row[x] = i;
      break;
    case 4: {
      const int shift = static_cast<int>((1 - x % 2) * 4);
      row[x / 2] = static_cast<uint8_t>((row[x / 2] & ~(0x0F << shift)) | ((i & 0x0F) << shift));
      break;
    }
    case 1: {
      const int shift = static_cast<int>(7 - x % 8);
      row[x / 8] = static_cast<uint8_t>((row[x / 8] & ~(1 << shift)) | ((i & 0x01) << shift));
      break;
    }
    default:
      break;
  }
}

tagRGBQUAD CxImage::BlindGetPixelColor(int64_t x, int64_t y, bool /*getAlpha*/) const {
  if (head_.biClrUsed == 0) {
    const uint8_t* px = rowStart(y) + 3 * x;
    return tagRGBQUAD{px[0], px[1], px[2], 0};
  }
  return GetPaletteColor(BlindGetPixelIndex(x, y));
}

void CxImage::BlindSetPixelColor(int64_t x, int64_t y, tagRGBQUAD c, bool /*setAlpha*/) {
  if (head_.biClrUsed == 0) {
    uint8_t* px = rowStart(y) + 3 * x;
    px[0] = c.rgbBlue;
    px[1] = c.rgbGreen;
    px[2] = c.rgbRed;
    return;
  }
  BlindSetPixelIndex(x, y, GetNearestIndex(c));
}
