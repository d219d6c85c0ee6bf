#include "printer/debug_image.h"

#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <ctime>
#include <memory>
#include <string>
#include <vector>

#include "common/kiwa_common.h"
#include "printer/kiwa_printer.h"

namespace {

constexpr size_t kImageNameLen = 1024;
constexpr uint32_t kHeadersSize = 54;  // file header + information header
constexpr uint32_t kGrayPaletteSize = 256 * 4;
constexpr uint32_t kMonoPaletteSize = 2 * 4;

void put16(std::vector<uint8_t>& out, size_t at, uint32_t v) {
  out[at] = static_cast<uint8_t>(v);
  out[at + 1] = static_cast<uint8_t>(v >> 8);
}

void put32(std::vector<uint8_t>& out, size_t at, uint32_t v) {
  put16(out, at, v & 0xFFFF);
  put16(out, at + 2, v >> 16);
}

}  // namespace

void BmpImageSink::saveImage(const char* prefix, const unsigned char* data,
                             unsigned long bytesPerLine, unsigned long height, unsigned long width,
                             unsigned short bpp) {
  // The name is a printf pattern, so a '%' in the directory must be escaped.
  std::string escaped;
  for (char c : dir_) {
    escaped += c;
    if (c == '%')
      escaped += '%';
  }
  char pattern[kImageNameLen];
  snprintf(pattern, sizeof(pattern), "%s/%s%%d-%%d-%%d_%%d_%%d_%%d_%%ld.bmp", escaped.c_str(),
           prefix);
  const time_t now = time(nullptr);
  struct tm local;
  localtime_r(&now, &local);
  char name[kImageNameLen + 128];
  snprintf(name, sizeof(name), pattern, local.tm_year + 1900, local.tm_mon + 1, local.tm_mday,
           local.tm_hour, local.tm_min, local.tm_sec, static_cast<long>(index_));
  ++index_;

  FILE* file = kiwaOpenForWriting(name);
  if (file == nullptr) {
    fprintf(stderr, "KiwaPrinter::saveImage: unable to open the file %s\n", name);
    return;
  }
  pageImages_.push_back(name);

  const bool gray = bpp == 8;
  const uint32_t rowSize = ((gray ? width : (width + 7) / 8) + 3) & ~3ul;
  const uint32_t dataOffset = kHeadersSize + (gray ? kGrayPaletteSize : kMonoPaletteSize);
  const uint32_t imageSize = static_cast<uint32_t>(rowSize * height);

  std::vector<uint8_t> head(kHeadersSize, 0);
  head[0] = 'B';
  head[1] = 'M';
  put32(head, 2, dataOffset + imageSize);
  put32(head, 10, dataOffset);
  put32(head, 14, 40);
  put32(head, 18, static_cast<uint32_t>(width));
  put32(head, 22, static_cast<uint32_t>(height));
  put16(head, 26, 1);
  put16(head, 28, gray ? 8 : 1);
  put32(head, 34, imageSize);
  put32(head, 46, gray ? 256 : 0);
  put32(head, 50, gray ? 256 : 0);
  fwrite(head.data(), head.size(), 1, file);

  if (gray) {
    uint8_t palette[kGrayPaletteSize];
    for (int i = 0; i < 256; ++i) {
      palette[4 * i] = palette[4 * i + 1] = palette[4 * i + 2] = static_cast<uint8_t>(i);
      palette[4 * i + 3] = 0;
    }
    fwrite(palette, sizeof(palette), 1, file);
    // The pixels go out as they lie, width x height bytes with no padding and
    // top row first, although the header promises padded bottom-up rows.
    fwrite(data, width * height, 1, file);
  } else {
    if (bpp == 1) {
      const uint8_t palette[kMonoPaletteSize] = {0, 0, 0, 0, 255, 255, 255, 0};
      fwrite(palette, sizeof(palette), 1, file);
    }
    std::vector<uint8_t> row(rowSize);
    for (unsigned long r = 0; r < height; ++r) {
      const unsigned char* src = data + bytesPerLine * (height - 1 - r);
      std::fill(row.begin(), row.end(), 0);
      uint8_t acc = 0;
      for (unsigned long x = 0; x < bytesPerLine; ++x) {
        if (src[x] == 0)
          acc |= static_cast<uint8_t>(0x80 >> (x % 8));
        // A row longer than the header's width is cut at the row buffer.
        if (x % 8 == 7) {
          if (x / 8 < rowSize)
            row[x / 8] = acc;
          acc = 0;
        }
      }
      if (bytesPerLine % 8 != 0 && bytesPerLine / 8 < rowSize) {
        row[bytesPerLine / 8] = acc | static_cast<uint8_t>(0xFF >> (bytesPerLine % 8));
      }
      fwrite(row.data(), row.size(), 1, file);
    }
  }
  fclose(file);
}

void BmpImageSink::discardPage() {
  for (const std::string& name : pageImages_)
    unlink(name.c_str());
  pageImages_.clear();
}

ImageSink* KiwaPrinter::imageSink() {
  if (images_ != nullptr || !paths_.debugImages)
    return images_;
  if (!bmpImages_)
    bmpImages_ = std::make_unique<BmpImageSink>(paths_.imageDir, state_.page_index);
  return bmpImages_.get();
}

void KiwaPrinter::saveImage(const char* prefix, const unsigned char* data,
                            unsigned long bytesPerLine, unsigned long height, unsigned long width,
                            unsigned short bpp) {
  ImageSink* images = data != nullptr ? imageSink() : nullptr;
  if (images != nullptr)
    images->saveImage(prefix, data, bytesPerLine, height, width, bpp);
}

void KiwaPrinter::discardPageImages() {
  if (ImageSink* images = imageSink())
    images->discardPage();
}
