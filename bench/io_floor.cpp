// The I/O floor of a job: reads every page of a CUPS raster with libcups and
// writes what the filter must write for it (two 8-bit BMPs and one 1-bit page
// record) with no image processing. bench/run.sh times the filter against it.
#include <cups/raster.h>
#include <fcntl.h>
#include <unistd.h>

#include <cstdint>
#include <cstdio>
#include <string>
#include <vector>

namespace {

void put(std::vector<uint8_t>& out, size_t at, uint32_t v, int bytes) {
  for (int i = 0; i < bytes; ++i)
    out[at + i] = static_cast<uint8_t>(v >> (8 * i));
}

// An 8-bit BMP with a gray palette, written as the debug images are: the
// pixels in one write, as they lie.
bool writeBmp(const std::string& path, const std::vector<uint8_t>& page, uint32_t bpl, uint32_t w,
              uint32_t h) {
  const uint32_t row = (w + 3) / 4 * 4, offset = 14 + 40 + 1024;
  std::vector<uint8_t> head(offset, 0);
  head[0] = 'B', head[1] = 'M';
  put(head, 2, offset + row * h, 4), put(head, 10, offset, 4), put(head, 14, 40, 4);
  put(head, 18, w, 4), put(head, 22, h, 4), put(head, 26, 1, 2), put(head, 28, 8, 2);
  put(head, 34, row * h, 4);
  for (uint32_t i = 0; i < 256; ++i)
    head[54 + 4 * i] = head[55 + 4 * i] = head[56 + 4 * i] = static_cast<uint8_t>(i);
  FILE* f = fopen(path.c_str(), "wb");
  if (f == nullptr)
    return false;
  bool ok = fwrite(head.data(), head.size(), 1, f) == 1;
  if (bpl == w) {
    ok = ok && fwrite(page.data(), static_cast<size_t>(w) * h, 1, f) == 1;
  } else {
    for (uint32_t y = 0; ok && y < h; ++y)
      ok = fwrite(page.data() + static_cast<size_t>(y) * bpl, w, 1, f) == 1;
  }
  return fclose(f) == 0 && ok;
}

// Dots packed eight to a byte behind a small header, the size of a page record.
bool writeRecord(const std::string& path, const std::vector<uint8_t>& page, uint32_t bpl,
                 uint32_t w, uint32_t h) {
  const uint32_t row = (w + 7) / 8;
  static std::vector<uint8_t> out;  // kept across pages, as the filter keeps its page buffer
  out.assign(16 + static_cast<size_t>(row) * h, 0);
  put(out, 0, w, 4), put(out, 4, h, 4);
  for (uint32_t y = 0; y < h; ++y) {
    const uint8_t* src = page.data() + static_cast<size_t>(y) * bpl;
    uint8_t* dst = out.data() + 16 + static_cast<size_t>(y) * row;
    for (uint32_t x = 0; x < w; x += 8) {
      unsigned byte = 0;
      for (uint32_t i = 0; i < 8; ++i)
        byte = (byte << 1) | (x + i < w ? src[x + i] >> 7 : 0u);
      dst[x / 8] = static_cast<uint8_t>(byte);
    }
  }
  FILE* f = fopen(path.c_str(), "wb");
  if (f == nullptr)
    return false;
  const bool ok = fwrite(out.data(), out.size(), 1, f) == 1;
  return fclose(f) == 0 && ok;
}

}  // namespace

int main(int argc, char* argv[]) {
  if (argc != 3) {
    fprintf(stderr, "usage: ostra_io_floor RASTER OUTDIR\n");
    return 2;
  }
  const int fd = open(argv[1], O_RDONLY);
  cups_raster_t* raster = fd < 0 ? nullptr : cupsRasterOpen(fd, CUPS_RASTER_READ);
  if (raster == nullptr) {
    fprintf(stderr, "ostra_io_floor: cannot read %s\n", argv[1]);
    return 1;
  }
  const std::string dir = argv[2];
  cups_page_header2_t h;
  bool ok = true;
  std::vector<uint8_t> page;
  for (int n = 1; ok && cupsRasterReadHeader2(raster, &h) && h.cupsHeight > 0; ++n) {
    page.resize(static_cast<size_t>(h.cupsBytesPerLine) * h.cupsHeight);
    if (cupsRasterReadPixels(raster, page.data(), static_cast<unsigned>(page.size())) == 0)
      break;
    const std::string stem = dir + "/" + std::to_string(n);
    ok = writeBmp(stem + "-origin.bmp", page, h.cupsBytesPerLine, h.cupsWidth, h.cupsHeight) &&
         writeBmp(stem + "-dithered.bmp", page, h.cupsBytesPerLine, h.cupsWidth, h.cupsHeight) &&
         writeRecord(stem + ".dat", page, h.cupsBytesPerLine, h.cupsWidth, h.cupsHeight);
  }
  cupsRasterClose(raster);
  close(fd);
  return ok ? 0 : 1;
}
