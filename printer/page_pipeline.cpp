#include <cstdlib>
#include <memory>
#include <utility>

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
