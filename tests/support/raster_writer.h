// Test inputs made by libcups's own raster writer: pages of any size, depth
// and content, written as a CUPS raster stream to a file.
#ifndef OSTRA_TESTS_SUPPORT_RASTER_WRITER_H
#define OSTRA_TESTS_SUPPORT_RASTER_WRITER_H

#include <cups/raster.h>

#include <string>
#include <vector>

struct TestPage {
  cups_page_header2_t header;
  std::vector<unsigned char> pixels;  // none: the header is written alone
};

// A blank K page (0 = no ink) at 203 dpi, `bitsPerPixel` deep.
TestPage makePageWithDepth(unsigned width, unsigned height, unsigned bitsPerPixel);
TestPage makeHeaderOnlyPage(unsigned width, unsigned height);
// Continuous tone like a photograph: ramps, a soft blob, texture, fine lines
// and type, from integer arithmetic only so every machine makes the same bytes.
TestPage makePhotoPage(unsigned width, unsigned height, unsigned xdpi = 203, unsigned ydpi = 203);
// Line art of full ink: upright bars of a barcode in the upper half, then
// horizontal bars with one- and two-row gaps, across the page and shorter
// than half of it.
TestPage makeBarsPage(unsigned width, unsigned height);

// Writes the pages with cupsRasterOpen, cupsRasterWriteHeader2 and
// cupsRasterWritePixels. Returns false with a reason in `error`.
bool writeRasterFile(const std::string& path, const std::vector<TestPage>& pages,
                     std::string* error, cups_mode_t mode = CUPS_RASTER_WRITE_COMPRESSED);

#endif  // OSTRA_TESTS_SUPPORT_RASTER_WRITER_H
