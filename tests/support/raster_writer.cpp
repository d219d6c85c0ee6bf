#include "tests/support/raster_writer.h"

#include <fcntl.h>
#include <unistd.h>

#include <cstring>

TestPage makeHeaderOnlyPage(unsigned width, unsigned height) {
  TestPage page = makePageWithDepth(1, 1, 8);
  page.header.cupsWidth = page.header.cupsBytesPerLine = width;
  page.header.cupsHeight = height;
  page.pixels.clear();
  return page;
}

TestPage makePageWithDepth(unsigned width, unsigned height, unsigned bitsPerPixel) {
  TestPage page;
  cups_page_header2_t& h = page.header;
  memset(&h, 0, sizeof(h));
  h.HWResolution[0] = h.HWResolution[1] = 203;
  h.NumCopies = 1;
  h.cupsWidth = width;
  h.cupsHeight = height;
  // Deeper than 8 bits means RGB at 8 bits a colour, as CUPS writes it.
  const bool rgb = bitsPerPixel > 8;
  h.cupsBitsPerColor = rgb ? 8 : bitsPerPixel;
  h.cupsBitsPerPixel = bitsPerPixel;
  h.cupsBytesPerLine = (width * bitsPerPixel + 7) / 8;
  h.cupsColorOrder = CUPS_ORDER_CHUNKED;
  h.cupsColorSpace = rgb ? CUPS_CSPACE_RGB : CUPS_CSPACE_K;
  h.cupsNumColors = rgb ? 3 : 1;
  h.PageSize[0] = width * 72 / 203;
  h.PageSize[1] = height * 72 / 203;
  page.pixels.resize(static_cast<size_t>(h.cupsBytesPerLine) * height);
  for (unsigned y = 0; y < height; ++y) {
    for (unsigned x = 0; x < h.cupsBytesPerLine; ++x) {
      page.pixels[static_cast<size_t>(y) * h.cupsBytesPerLine + x] = (x + y) % 7 == 0 ? 255 : 0;
    }
  }
  return page;
}

TestPage makeGrayPage(unsigned width, unsigned height, unsigned dpi, const char* pageSizeName) {
  TestPage page = makePageWithDepth(width, height, 8);
  page.header.HWResolution[0] = page.header.HWResolution[1] = dpi;
  strncpy(page.header.cupsPageSizeName, pageSizeName, sizeof(page.header.cupsPageSizeName) - 1);
  return page;
}

bool writeRasterFile(const std::string& path, const std::vector<TestPage>& pages,
                     std::string* error, cups_mode_t mode) {
  const int fd = open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
  if (fd < 0) {
    *error = "cannot create " + path + ": " + strerror(errno);
    return false;
  }
  cups_raster_t* ras = cupsRasterOpen(fd, mode);
  bool ok = ras != nullptr;
  if (!ok)
    *error = std::string("cupsRasterOpen: ") + cupsRasterErrorString();
  for (const TestPage& page : pages) {
    if (!ok)
      break;
    cups_page_header2_t header = page.header;
    if (!cupsRasterWriteHeader2(ras, &header)) {
      *error = std::string("cupsRasterWriteHeader2: ") + cupsRasterErrorString();
      ok = false;
      break;
    }
    if (!page.pixels.empty()) {
      std::vector<unsigned char> pixels = page.pixels;
      const unsigned len = static_cast<unsigned>(pixels.size());
      if (cupsRasterWritePixels(ras, pixels.data(), len) != len) {
        *error = std::string("cupsRasterWritePixels: ") + cupsRasterErrorString();
        ok = false;
      }
    }
  }
  if (ras != nullptr)
    cupsRasterClose(ras);
  close(fd);
  return ok;
}
