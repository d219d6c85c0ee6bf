// A palette-based raster image held in one memory block (bitmap header,
// palette, rows), with pixel access, whole-image transforms and dithering.
#ifndef OSTRA_IMAGE_CXIMAGE_H
#define OSTRA_IMAGE_CXIMAGE_H

#include <cstdint>
#include <memory>

#include "common/kiwa_common.h"

// Palette entry and colour value, in the byte order of a BMP palette.
struct tagRGBQUAD {
  uint8_t rgbBlue;
  uint8_t rgbGreen;
  uint8_t rgbRed;
  uint8_t rgbReserved;
};

// The BMP information header; a copy of it opens every image block.
struct CxBitmapInfoHeader {
  uint32_t biSize;
  int32_t biWidth;
  int32_t biHeight;
  uint16_t biPlanes;
  uint16_t biBitCount;
  uint32_t biCompression;
  uint32_t biSizeImage;
  int32_t biXPelsPerMeter;
  int32_t biYPelsPerMeter;
  uint32_t biClrUsed;
  uint32_t biClrImportant;
};
static_assert(sizeof(CxBitmapInfoHeader) == 40, "the block layout needs the 40-byte header");

// An error-diffusion kernel: cells (dx to the right, dy downward, weight) in
// the order they are applied, and the divisor the weights sum to.
struct CxDiffusionKernel {
  struct Cell {
    int dx;
    int dy;
    int weight;
  };
  int divisor;
  int cellCount;
  Cell cells[12];
};

// The kernel Dither runs for `method`, or null for the threshold and the two
// ordered methods (0, 1 and 7).
const CxDiffusionKernel* cxDiffusionKernel(long method);

// Largest image memory the size test admits (bytes).
constexpr uint32_t CXIMAGE_MAX_MEMORY = 0x7FFFFFFF;

// Row 0 is the first row in memory (the bottom line in the BMP convention);
// no accessor flips. 1-bit rows are most significant bit first, 4-bit rows
// high nibble first, 24-bit pixels blue, green, red.
class CxImage {
 public:
  CxImage();
  ~CxImage();
  CxImage(const CxImage&) = delete;
  CxImage& operator=(const CxImage&) = delete;

  // Memory and life cycle.
  void* Create(uint32_t dwWidth, uint32_t dwHeight, uint32_t wBpp, uint32_t imageType);
  bool CreateFromArray(const uint8_t* pArray, uint32_t dwWidth, uint32_t dwHeight,
                       uint32_t dwBitsperpixel, uint32_t dwBytesperline, bool bFlipImage);
  bool Destroy();
  bool Transfer(CxImage& from, bool transferFrames = true);
  void CopyInfo(const CxImage& src);
  bool IsValid() const { return dib_ != nullptr; }
  const char* GetLastError() const { return info_.lastError; }

  // Geometry.
  uint32_t GetWidth() const { return static_cast<uint32_t>(head_.biWidth); }
  uint32_t GetHeight() const { return static_cast<uint32_t>(head_.biHeight); }
  uint32_t GetEffWidth() const { return info_.effWidth; }
  uint32_t GetNumColors() const { return head_.biClrUsed; }
  uint16_t GetBpp() const { return head_.biBitCount; }
  uint32_t GetType() const { return info_.imageType; }
  uint32_t GetPaletteSize() const { return head_.biClrUsed * 4; }
  uint32_t GetSize() const { return head_.biSize + head_.biSizeImage + GetPaletteSize(); }
  const CxBitmapInfoHeader& GetHeader() const { return head_; }
  uint8_t* GetBits(uint32_t row = 0) const;
  const void* GetDIB() const { return dib_.get(); }

  // Palette.
  tagRGBQUAD* GetPalette() const;
  void SetPalette(const tagRGBQUAD* pPal, uint32_t nColors);
  tagRGBQUAD GetPaletteColor(uint8_t idx) const;
  void SetPaletteColor(uint8_t idx, uint8_t r, uint8_t g, uint8_t b, uint8_t alpha = 0);
  void SetGrayPalette();
  uint8_t GetNearestIndex(tagRGBQUAD c);

  // Pixels. The checked forms ignore writes outside the image and answer
  // reads outside it with the first byte of the pixel area.
  uint8_t GetPixelIndex(int64_t x, int64_t y) const;
  void SetPixelIndex(int64_t x, int64_t y, uint8_t i);
  uint8_t BlindGetPixelIndex(int64_t x, int64_t y) const;
  void BlindSetPixelIndex(int64_t x, int64_t y, uint8_t i);
  tagRGBQUAD BlindGetPixelColor(int64_t x, int64_t y, bool getAlpha = false) const;
  void BlindSetPixelColor(int64_t x, int64_t y, tagRGBQUAD c, bool setAlpha = false);

  // Transforms.
  bool Light(int brightness, int contrast);
  bool Lut(const uint8_t* table);
  void Negative();
  bool Rotate180(CxImage* iDst = nullptr);
  void Mirror();
  void MakeCenter(int width);
  bool Expand(long left, long top, long right, long bottom, tagRGBQUAD canvasColor);
  bool IncreaseBpp(uint32_t nbit);
  void DrawLine(int startX, int endX, int startY, int endY, uint8_t index);

  // Reduces the image to 1 bit per pixel (index 0 black, 1 white) with the
  // halftone method `method` (unknown numbers run Floyd-Steinberg).
  bool Dither(long method);
  // Dither(method) followed by IncreaseBpp(8), with the same pixels, palette
  // and zeroed row padding, but worked in the image's own block: every pixel
  // is read for the last time before its level is stored, so an 8-bit image
  // needs no second page-sized block.
  bool Dither8(long method);

 private:
  struct Info {
    uint32_t effWidth;
    uint8_t* bits;
    uint32_t imageType;
    char lastError[256];
    tagRGBQUAD nearestColor;
    uint8_t nearestIndex;
    bool nearestValid;
  };

  void setError(const char* text);
  void ditherRowsInPlace(long method);
  uint8_t* rowStart(int64_t y) const {
    return info_.bits + y * static_cast<int64_t>(info_.effWidth);
  }
  bool inside(int64_t x, int64_t y) const {
    return x >= 0 && y >= 0 && x < head_.biWidth && y < head_.biHeight;
  }
  // Bytes of the block from the first pixel byte on.
  uint64_t pixelBytes() const { return pixelBytes_; }

  CxBitmapInfoHeader head_;
  Info info_;
  std::unique_ptr<uint8_t, KiwaFree> dib_;
  uint64_t pixelBytes_;
  uint64_t blockBytes_ = 0;  // the whole allocation, header and palette included
};

#endif  // OSTRA_IMAGE_CXIMAGE_H
