#include <cstdlib>
#include <cstring>
#include <memory>
#if defined(__SSE2__)
#include <emmintrin.h>
#endif
#include <new>
#include <utility>

#include "enhance/rv_enhance.h"
#include "printer/kiwa_printer.h"

namespace {

size_t testedBytes(size_t bytesPerLine, size_t skipRightPixels) {
  return skipRightPixels > bytesPerLine ? bytesPerLine : bytesPerLine - skipRightPixels;
}

// Bytes past the page (bytesPerLine x height) read as blank: the front
// counter looks one row beyond the last one.
bool rowIsBlank(const unsigned char* data, size_t pageBytes, size_t offset, size_t n) {
  if (offset >= pageBytes)
    return true;
  const size_t end = n < pageBytes - offset ? offset + n : pageBytes;
  for (size_t i = offset; i < end; ++i) {
    if (data[i] != 0)
      return false;
  }
  return true;
}

using Buffer = std::unique_ptr<unsigned char, KiwaFree>;

constexpr int kBrightnessScale = 5;
constexpr int kContrastScale = 2;

bool isStencilType(DitherType type) {
  return type == DITHER_TATTOO || type == DITHER_TATTOO_Q7;
}

// The bytes the chain reads from the staging copy: the first width x height
// bytes of rows `stride` apart, each row's pixels followed by zeros.
RVImage stencilSource(const CxImage& image, int width, int height, int stride) {
  RVImage source(width, height, RV_IMG_GRAY);
  const int64_t n = source.byteCount();
  for (int64_t y = 0; y < height && y * stride < n; ++y) {
    const int64_t start = y * stride;
    const int64_t count = width < n - start ? width : n - start;
    memcpy(source.data() + start, image.GetBits(static_cast<uint32_t>(y)),
           static_cast<size_t>(count));
  }
  return source;
}

// Each byte with its bits in the opposite order: a mask with pixel 0 in bit 0
// becomes a packed byte with pixel 0 in the top bit.
struct ReversedBits {
  ReversedBits() noexcept {
    for (int i = 0; i < 256; ++i) {
      int r = 0;
      for (int b = 0; b < 8; ++b)
        r |= ((i >> b) & 1) << (7 - b);
      of[i] = static_cast<unsigned char>(r);
    }
  }
  unsigned char of[256];
};

}  // namespace

size_t kiwaImageCountBlankLinesFromFront(const unsigned char* data, size_t bytesPerLine,
                                         size_t height, size_t skipRightPixels, size_t rowStep) {
  const size_t n = testedBytes(bytesPerLine, skipRightPixels);
  const size_t pageBytes = bytesPerLine * height;
  // The first row tested is row 1: the pointer moves before each test.
  for (size_t i = 0; i < height; ++i) {
    if (!rowIsBlank(data, pageBytes, (i + 1) * rowStep, n))
      return i;
  }
  return height;
}

size_t kiwaImageCountBlankLinesFromBack(const unsigned char* data, size_t bytesPerLine,
                                        size_t height, size_t skipRightPixels, size_t rowStep) {
  const size_t n = testedBytes(bytesPerLine, skipRightPixels);
  const size_t pageBytes = bytesPerLine * height;
  for (size_t i = height; i >= 1; --i) {
    if (!rowIsBlank(data, pageBytes, (i - 1) * rowStep, n))
      return i;
  }
  return 0;
}

bool KiwaPrinter::printImage(const unsigned char* data, unsigned long bytesPerLine,
                             unsigned long height, unsigned long width) {
  kiwaLogCommon(KIWA_LOG_DEBUG,
                "printImage: Start processing image, input width: %zu, height: %zu, bytes per "
                "line: %zu",
                width, height, bytesPerLine);
  if (ImageSink* images = imageSink())
    images->beginPage();
  bool printed = false;
  const size_t size = bytesPerLine * height;
  // Allocated as the pipeline always has, though nothing is written to it.
  Buffer pageBuffer(static_cast<unsigned char*>(malloc(size)));
  Buffer result;
  if (!pageBuffer) {
    kiwaLogCommon(KIWA_LOG_ERROR,
                  "printImage: Memory allocation failed, unable to process image, exiting "
                  "processing");
  } else {
    kiwaLogCommon(KIWA_LOG_DEBUG, "printImage: Memory allocated successfully, size: %zu bytes",
                  size);
    size_t bottom = 0;
    size_t top = 0;
    if (removeBlankEdges_ != 0) {
      if (removeBlankEdges_ & 8) {
        bottom =
            kiwaImageCountBlankLinesFromBack(data, bytesPerLine, height, skipRightPixels_, width);
        kiwaLogCommon(KIWA_LOG_DEBUG,
                      "printImage: Removal of bottom blank edges detected, number of bottom blank "
                      "lines: %zu",
                      bottom);
      }
      if (removeBlankEdges_ & 2) {
        top =
            kiwaImageCountBlankLinesFromFront(data, bytesPerLine, height, skipRightPixels_, width);
        kiwaLogCommon(KIWA_LOG_DEBUG,
                      "printImage: Removal of top blank edges detected, number of top blank "
                      "lines: %zu",
                      top);
      }
    }

    kiwaLogCommon(KIWA_LOG_DEBUG,
                  "printImage: Saving original image, file path will be generated based on time");
    saveImage("origin_", data, bytesPerLine, height, width, 8);

    result.reset(static_cast<unsigned char*>(calloc(2, size)));
    if (!result) {
      kiwaLogCommon(KIWA_LOG_ERROR,
                    "printImage: Memory allocation for processing result failed, unable to "
                    "continue processing");
    } else {
      kiwaLogCommon(KIWA_LOG_DEBUG,
                    "printImage: Memory for processing result allocated successfully, size: %zu "
                    "bytes",
                    size);
      ProcessedPage processed =
          PageProcess(halftoneType_, data, static_cast<int>(bytesPerLine), static_cast<int>(width),
                      static_cast<int>(height), result.get(), 2 * size);

      // A page that did not come through every step must never print half done.
      if (processed.failure != nullptr) {
        kiwaLogCommon(KIWA_LOG_ERROR, "printImage: %s failed, the page is not printed",
                      processed.failure);
      } else {
        // The trim is worked out and logged only; the whole processed image prints.
        const unsigned char* start = result.get();
        size_t adjustedHeight = height;
        if (bottom > top) {
          adjustedHeight = bottom - top;
          start = result.get() + top * bytesPerLine;
          kiwaLogCommon(KIWA_LOG_DEBUG,
                        "printImage: Adjusted image height to %zu, pointer offset by %zu bytes",
                        adjustedHeight, top * bytesPerLine);
        }
        // The width and bytes-per-line slots carry each other's value; the log
        // has always read that way.
        kiwaLogCommon(KIWA_LOG_DEBUG,
                      "printImage: Processed image information - pointer address: %lu, width: %zu, "
                      "height: %zu, bytes per line: %zu, number of top blank lines: %zu, number of "
                      "bottom blank lines: %zu, adjusted height: %zu",
                      reinterpret_cast<unsigned long>(start), bytesPerLine, height, width, top,
                      bottom, adjustedHeight);

        CxImage& pimage = *processed.image;
        unsigned char* bits = pimage.GetBits(0);
        const int w = static_cast<int>(pimage.GetWidth());
        const int h = static_cast<int>(pimage.GetHeight());
        kiwaLogCommon(KIWA_LOG_DEBUG,
                      "printImage: Saving processed image, file path will be generated based on "
                      "time");
        saveImage("dithered_", bits, pimage.GetEffWidth(), pimage.GetHeight(), pimage.GetWidth(),
                  8);

        kiwaLogCommon(KIWA_LOG_DEBUG, "printImage: Starting to print the processed image");
        if (vBarcodeOpt_ == 1) {
          ApplyDashedLine(bits, w, h);
          OptimazeBarcode1(bits, w, h);
        } else if (vBarcodeOpt_ == 2) {
          ApplyDashedLine(bits, w, h);
          OptimazeBarcode2(bits, w, h);
        }
        // The pixel width is the row size on purpose: rows of a width that is
        // not a multiple of 4 are read from starts that drift left, as
        // printers expect.
        const int packed = GrayToMono(w, h, bits);
        printed = doPrintImage(bits, packed, pimage.GetHeight(), pimage.GetWidth());
        spareImage_ = std::move(processed.image);
      }
    }
  }

  if (pageBuffer) {
    pageBuffer.reset();
    kiwaLogCommon(KIWA_LOG_DEBUG, "printImage: Freed the allocated memory, address: %p",
                  static_cast<void*>(pageBuffer.get()));
  }
  if (result) {
    // The address is formatted before the free; only its text is logged.
    char former[32];
    snprintf(former, sizeof(former), "%p", static_cast<void*>(result.get()));
    result.reset();
    kiwaLogCommon(KIWA_LOG_DEBUG, "printImage: Freed the memory for processing result, address: %s",
                  former);
  }
  kiwaLogCommon(KIWA_LOG_DEBUG, "printImage: Image processing completed");
  return printed;
}

void KiwaPrinter::copyPixels(CxImage& image, unsigned char* out, int width, int height, int stride,
                             size_t outSize) {
  for (int y = 0; y < height; ++y) {
    for (int x = 0; x < width; ++x) {
      const size_t at = static_cast<size_t>(y) * stride + x;
      if (at < outSize)
        out[at] = image.GetPixelIndex(x, y);
    }
  }
}

void KiwaPrinter::copyProcessedPixels(CxImage* image, unsigned char* out, int width, int height,
                                      int stride, size_t outSize) {
  for (int y = 0; y < height; ++y) {
    for (int x = 0; x < width; ++x) {
      unsigned char v = image->GetPixelIndex(x, y);
      if (v == 1)
        v = 255;
      if (isNegativePrint())
        v = static_cast<unsigned char>(~v);
      const size_t at = static_cast<size_t>(y) * stride + x;
      if (at < outSize)
        out[at] = v;
    }
  }
}

std::unique_ptr<CxImage> KiwaPrinter::takeImage() {
  if (spareImage_)
    return std::move(spareImage_);
  return std::make_unique<CxImage>();
}

ProcessedPage KiwaPrinter::PageProcess(DitherType method, const unsigned char* data, int stride,
                                       int width, int height, unsigned char* out, size_t outSize) {
  const bool fast = kiwaFastPixels();
  ProcessedPage page;
  const auto failed = [](const char* step) { return ProcessedPage{nullptr, step, 0}; };
  useRVDithering_ = isStencilType(halftoneType_);
  kiwaLogCommon(KIWA_LOG_DEBUG, "PageProcess: RV dithering is %s",
                useRVDithering_ ? "enabled" : "disabled");

  std::unique_ptr<CxImage> image = takeImage();
  if (!image->CreateFromArray(data, static_cast<uint32_t>(width), static_cast<uint32_t>(height), 8,
                              static_cast<uint32_t>(stride), false)) {
    kiwaLogCommon(KIWA_LOG_CRIT, "cximage.CreateFromArray with grey failed!");
    return failed("CreateFromArray");
  }
  kiwaLogCommon(KIWA_LOG_DEBUG,
                "PageProcess: Successfully created CxImage from array with stride %d", stride);

  if (brightness_ != 0 || contrast_ != 0) {
    image->Light(brightness_ * kBrightnessScale, contrast_ * kContrastScale);
    kiwaLogCommon(KIWA_LOG_DEBUG, "PageProcess: Adjusted brightness to %d and contrast to %d",
                  brightness_ * kBrightnessScale, contrast_ * kContrastScale);
  }
  // Rotation always comes before mirroring.
  if (isRotate180Print()) {
    image->Rotate180();
    kiwaLogCommon(KIWA_LOG_DEBUG, "PageProcess: Rotated the image 180 degrees");
  }
  // Short of memory, the transforms leave the image without pixels.
  if (!image->IsValid())
    return failed("Rotate180");
  if (isMirrorPrint()) {
    image->Mirror();
    kiwaLogCommon(KIWA_LOG_DEBUG, "PageProcess: Mirrored the image");
  }
  if (!image->IsValid())
    return failed("Mirror");

  if (useRVDithering_) {
    // The staging copy in `out` is what the chain reads in the reference
    // path; the fast path builds the same bytes straight into the chain's image.
    const bool staged = !fast || stride < width;
    if (staged)
      copyPixels(*image, out, width, height, stride, outSize);
    kiwaLogCommon(KIWA_LOG_DEBUG,
                  "PageProcess: Copied pixels to the output buffer for RV dithering, with stride "
                  "%d, EffWidth %d",
                  stride, static_cast<int>(image->GetEffWidth()));
    // The chain reads the first width x height bytes as packed rows, which is
    // the page exactly when the stride equals the width, as on 8-bit pages.
    // The chain allocates with new; no memory ends the page, not the job.
    std::unique_ptr<RVImage> result;
    try {
      RVImage source = staged ? RVImage(width, height, RV_IMG_GRAY, out)
                              : stencilSource(*image, width, height, stride);
      // Nothing reads the gray page after this; a page less in memory while
      // the chain runs.
      image.reset();
      result =
          std::make_unique<RVImage>(halftoneType_ == DITHER_TATTOO_Q7 ? rvTattooDitheringQ7(source)
                                                                      : rvTattooDithering(source));
    } catch (const std::bad_alloc&) {
      result.reset();
    }
    const int resultStride = result ? (result->width + 3) / 4 * 4 : 0;
    kiwaLogCommon(KIWA_LOG_DEBUG, "PageProcess: Applied RV dithering with stride %d, width %d",
                  resultStride, width);
    // Rows of the result are `width` bytes long, whatever resultStride says.
    page.image = takeImage();
    if (!result || result->data() == nullptr ||
        !page.image->CreateFromArray(result->data(), static_cast<uint32_t>(width),
                                     static_cast<uint32_t>(height), 8, static_cast<uint32_t>(width),
                                     false)) {
      kiwaLogCommon(KIWA_LOG_ERROR,
                    "PageProcess: Failed to create a new CxImage from RV dithered data");
      return failed("stencil chain");
    }
    kiwaLogCommon(KIWA_LOG_DEBUG,
                  "PageProcess: Successfully created a new CxImage from RV dithered data");
  } else {
    // A page left gray would print every non-white byte as a dot.
    if (fast ? !image->Dither8(method) : !image->Dither(method))
      return failed("Dither");
    if (!image->IncreaseBpp(8))
      return failed("IncreaseBpp");
    page.image = std::move(image);
    kiwaLogCommon(KIWA_LOG_DEBUG, "PageProcess: Applied default dithering and increased bit depth");
  }

  CxImage* pimage = page.image.get();
  kiwaLogCommon(KIWA_LOG_DEBUG, "PageProcess: negativePrint_ %d", isNegativePrint() ? 1 : 0);
  if (isNegativePrint()) {
    kiwaLogCommon(KIWA_LOG_DEBUG, "PageProcess: Inverting the image for negative print");
    pimage->Negative();
  }
  // After negation, so the frame is never inverted.
  if (antiWrinkle_ != 0)
    EnableAntiWrink(*pimage);

  // copyProcessedPixels inverts again under negative printing, so `out` holds
  // the page inverted twice; the printer prints from the processed image, not
  // from `out`, so the fast path leaves it out.
  const int rowBytes = static_cast<int>(pimage->GetEffWidth());
  if (!fast) {
    copyProcessedPixels(pimage, out, static_cast<int>(pimage->GetWidth()),
                        static_cast<int>(pimage->GetHeight()), rowBytes, outSize);
  }
  page.length = static_cast<long>(height) * rowBytes;
  kiwaLogCommon(KIWA_LOG_DEBUG,
                "PageProcess: Filled the output buffer with processed pixels, length: %d",
                static_cast<int>(page.length));
  return page;
}

int KiwaPrinter::GrayToMono(int rowBytes, int height, unsigned char* buf) {
  const unsigned long skip = skipRightPixels_;
  int wb = rowBytes;
  if (skip != 0 && skip < static_cast<unsigned long>(rowBytes))
    wb = rowBytes - static_cast<int>(skip);
  kiwaLogCommon(KIWA_LOG_DEBUG, "GrayToMono, bpl(%d), h(%d), skipPixels(%d), wb(%d)", rowBytes,
                height, static_cast<int>(skip), wb);

  // Packed in place: every output byte lands at or before the byte being read.
  const bool fast = kiwaFastPixels();
  size_t o = 0;
  for (int y = 0; y < height; ++y) {
    const unsigned char* row = buf + static_cast<size_t>(y) * rowBytes;
    unsigned char acc = 0;
    int x = 0;
#if defined(__SSE2__)
    // Sixteen pixels at a time; the bytes are loaded before the two packed
    // bytes, which lie before them, are stored.
    static const ReversedBits kReversed;
    for (; fast && x + 16 <= wb; x += 16) {
      const __m128i v = _mm_loadu_si128(reinterpret_cast<const __m128i*>(row + x));
      const unsigned ink =
          ~static_cast<unsigned>(_mm_movemask_epi8(_mm_cmpeq_epi8(v, _mm_setzero_si128())));
      buf[o++] = kReversed.of[ink & 0xFF];
      buf[o++] = kReversed.of[(ink >> 8) & 0xFF];
    }
#endif
    for (; x < wb; ++x) {
      if (row[x] != 0)
        acc |= static_cast<unsigned char>(0x80 >> (x % 8));
      if (x % 8 == 7) {
        buf[o++] = acc;
        acc = 0;
      }
    }
    if (wb % 8 != 0)
      buf[o++] = acc;
  }
  return static_cast<int>(o);
}
