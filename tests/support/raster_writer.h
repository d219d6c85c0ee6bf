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

// An 8-bit K page (0 = no ink) of `bitsPerPixel` depth with a diagonal
// pattern; deeper than 8 bits is RGB, as CUPS writes it.
TestPage makePageWithDepth(unsigned width, unsigned height, unsigned bitsPerPixel);
// An 8-bit page header with no pixels behind it.
TestPage makeHeaderOnlyPage(unsigned width, unsigned height);
// Continuous tone like a photograph: ramps, a soft blob, texture, fine lines
// and solid type, from integer arithmetic only so every machine makes the
// same bytes.
TestPage makePhotoPage(unsigned width, unsigned height, unsigned xdpi = 203, unsigned ydpi = 203,
                       const char* pageSizeName = "w288h432");
// Line art of full ink: upright bars of a barcode in the upper half, then
// horizontal bars with one- and two-row gaps, across the page and shorter
// than half of it.
TestPage makeBarsPage(unsigned width, unsigned height);

// Writes the pages with cupsRasterOpen/cupsRasterWriteHeader2/
// cupsRasterWritePixels. Returns false with a reason in `error`.
bool writeRasterFile(const std::string& path, const std::vector<TestPage>& pages,
                     std::string* error, cups_mode_t mode = CUPS_RASTER_WRITE_COMPRESSED);

#endif  // OSTRA_TESTS_SUPPORT_RASTER_WRITER_H
