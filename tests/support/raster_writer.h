// Test inputs made by libcups's own raster writer: pages of any size, depth
// and content, written as a CUPS raster stream to a file.
#ifndef OSTRA_TESTS_SUPPORT_RASTER_WRITER_H
#define OSTRA_TESTS_SUPPORT_RASTER_WRITER_H

#include <cups/raster.h>

#include <string>
#include <vector>

struct TestPage {
  cups_page_header2_t header;
  // Exactly cupsBytesPerLine * cupsHeight bytes are written when the vector
  // is that long; an empty vector writes the header alone.
  std::vector<unsigned char> pixels;
};

// An 8-bit K page (0 = no ink) at `dpi`, with a diagonal ink pattern.
TestPage makeGrayPage(unsigned width, unsigned height, unsigned dpi = 203,
                      const char* pageSizeName = "w288h432");

// Same page with another depth; bytes per line follow the depth.
TestPage makePageWithDepth(unsigned width, unsigned height, unsigned bitsPerPixel);

// An 8-bit page header with no pixels behind it, for sizes too large to fill.
TestPage makeHeaderOnlyPage(unsigned width, unsigned height);

// Writes the pages with cupsRasterOpen/cupsRasterWriteHeader2/
// cupsRasterWritePixels. Returns false with a reason in `error`.
bool writeRasterFile(const std::string& path, const std::vector<TestPage>& pages,
                     std::string* error, cups_mode_t mode = CUPS_RASTER_WRITE_COMPRESSED);

#endif  // OSTRA_TESTS_SUPPORT_RASTER_WRITER_H
