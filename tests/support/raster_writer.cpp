#include "tests/support/raster_writer.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

namespace {

// A small integer hash, for texture that no library version can change.
unsigned noise(unsigned x, unsigned y) {
  unsigned h = x * 374761393u + y * 668265263u;
  h = (h ^ (h >> 13)) * 1274126177u;
  return h ^ (h >> 16);
}

template <typename Fn>
TestPage drawn(unsigned width, unsigned height, Fn ink) {
  TestPage page = makePageWithDepth(width, height, 8);
  for (unsigned y = 0; y < height; ++y)
    for (unsigned x = 0; x < width; ++x)
      page.pixels[y * width + x] =
          static_cast<unsigned char>(std::clamp(ink(int(x), int(y)), 0, 255));
  return page;
}

}  // namespace

TestPage makePageWithDepth(unsigned width, unsigned height, unsigned bitsPerPixel) {
  TestPage page;
  cups_page_header2_t& h = page.header;
  memset(&h, 0, sizeof(h));
  h.HWResolution[0] = h.HWResolution[1] = 203;
  h.NumCopies = 1;
  h.cupsWidth = width;
  h.cupsHeight = height;
  h.cupsBitsPerColor = h.cupsBitsPerPixel = bitsPerPixel;
  h.cupsBytesPerLine = (width * bitsPerPixel + 7) / 8;
  h.cupsColorSpace = CUPS_CSPACE_K;
  h.cupsNumColors = 1;
  page.pixels.resize(static_cast<size_t>(h.cupsBytesPerLine) * height);
  return page;
}

TestPage makeHeaderOnlyPage(unsigned width, unsigned height) {
  TestPage page = makePageWithDepth(1, 1, 8);
  page.header.cupsWidth = page.header.cupsBytesPerLine = width;
  page.header.cupsHeight = height;
  page.pixels.clear();
  return page;
}

TestPage makePhotoPage(unsigned width, unsigned height, unsigned xdpi, unsigned ydpi) {
  const int w = static_cast<int>(width), h = static_cast<int>(height);
  TestPage page = drawn(width, height, [&](int x, int y) {
    int v = x * 150 / w + y * 60 / h;  // soft light from the top left
    const int dx = x - w / 3, dy = y - h / 2, r2 = h * h / 9, d2 = dx * dx + dy * dy;
    if (d2 < r2)
      v += 110 * (r2 - d2) / r2;  // a shaded round form
    v += static_cast<int>(noise(x, y) % 33) - 16;
    if (y % 29 == 7 && x > w / 2)
      v = 255;  // hairlines
    if (x > w * 3 / 5 && x < w * 9 / 10 && y > h / 8 && y < h / 3 && (x / 3 + y / 5) % 4 == 0)
      v = 240;  // type
    return v;
  });
  page.header.HWResolution[0] = xdpi;
  page.header.HWResolution[1] = ydpi;
  return page;
}

TestPage makeBarsPage(unsigned width, unsigned height) {
  const int w = static_cast<int>(width), h = static_cast<int>(height);
  return drawn(width, height, [&](int x, int y) {
    if (y > h / 10 && y < h / 2 && x > 16 && x < w - 16)
      return noise(x / 3, 0) % 5 < 2 ? 255 : 0;  // bars 3 dots a module
    const bool band = noise(0, y) % 3 != 0;
    if (y > h / 2 + 8 && y < h * 3 / 4 && x > 24 && x < w - 24)
      return band ? 255 : 0;
    return y >= h * 3 / 4 && y < h - 12 && x > 24 && x < w * 2 / 5 && band ? 255 : 0;
  });
}

bool writeRasterFile(const std::string& path, const std::vector<TestPage>& pages,
                     std::string* error, cups_mode_t mode) {
  const int fd = open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
  cups_raster_t* ras = fd < 0 ? nullptr : cupsRasterOpen(fd, mode);
  bool ok = ras != nullptr;
  for (const TestPage& page : pages) {
    cups_page_header2_t header = page.header;
    std::vector<unsigned char> pixels = page.pixels;
    const unsigned len = static_cast<unsigned>(pixels.size());
    ok = ok && cupsRasterWriteHeader2(ras, &header) &&
         (len == 0 || cupsRasterWritePixels(ras, pixels.data(), len) == len);
  }
  if (!ok)
    *error = path + ": " + (fd < 0 ? strerror(errno) : cupsRasterErrorString());
  if (ras != nullptr)
    cupsRasterClose(ras);
  if (fd >= 0)
    close(fd);
  return ok;
}
