// Decoder for the page records the filter leaves in its spool directory: the
// label block, the raster rows and their dot counts, checked against each other.
#ifndef OSTRA_TOOLS_PAGE_RECORD_H
#define OSTRA_TOOLS_PAGE_RECORD_H

#include <cstdint>
#include <string>
#include <vector>

// Bytes before the first row record: the 14-byte label block and the 8-byte
// raster command.
constexpr size_t kPageRecordHeaderSize = 22;

struct PageRecord {
  uint8_t media = 0;  // 0 Continue, 1 LabelGaps, 2 LabelMark
  uint16_t labelWidth = 0;
  uint16_t labelHeight = 0;
  uint16_t gapHeight = 0;
  uint16_t pageNumber = 0;
  uint16_t stride = 0;  // bytes per row record, the 2-byte dot count included
  uint16_t rows = 0;
  // Pixels per row, (stride - 2) x 8: the left margin is kept so the picture
  // shows where the dots land on the media.
  size_t width = 0;
  std::vector<uint8_t> dots;  // rows x width, row-major, 1 = black dot
  uint64_t blackDots = 0;
};

// "LabelGaps", "LabelMark", "Continue", or "media N" for a code the PPD does
// not offer.
std::string mediaName(uint8_t code);

// Decodes a whole page record. On a malformed file returns false and puts a
// one-line reason into *error; *out is then unspecified.
bool decodePageRecord(const std::vector<uint8_t>& file, PageRecord* out, std::string* error);

#endif  // OSTRA_TOOLS_PAGE_RECORD_H
