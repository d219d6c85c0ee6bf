#include "tools/page_record.h"

#include <cstdarg>
#include <cstdio>
#include <new>
#include <utility>

namespace {

uint16_t le16(const std::vector<uint8_t>& file, size_t offset) {
  return static_cast<uint16_t>(file[offset] | (file[offset + 1] << 8));
}

std::string formatted(const char* fmt, ...) __attribute__((format(printf, 1, 2)));
std::string formatted(const char* fmt, ...) {
  char text[256];
  va_list args;
  va_start(args, fmt);
  vsnprintf(text, sizeof text, fmt, args);
  va_end(args);
  return text;
}

int bitCount(uint8_t byte) {
  int n = 0;
  for (; byte != 0; byte &= static_cast<uint8_t>(byte - 1))
    ++n;
  return n;
}

}  // namespace

std::string mediaName(uint8_t code) {
  switch (code) {
    case 0:
      return "Continue";
    case 1:
      return "LabelGaps";
    case 2:
      return "LabelMark";
    default:
      return "media " + std::to_string(code);
  }
}

bool decodePageRecord(const std::vector<uint8_t>& file, PageRecord* out, std::string* error) {
  const size_t size = file.size();
  if (size < kPageRecordHeaderSize) {
    *error = formatted("file is %zu bytes, shorter than the %zu-byte header", size,
                       kPageRecordHeaderSize);
    return false;
  }
  if (file[0] != 'S' || file[1] != 'I' || file[2] != 'Z') {
    *error =
        formatted("no \"SIZ\" label block: file starts %02X %02X %02X", file[0], file[1], file[2]);
    return false;
  }
  if (file[14] != 0x1D || file[15] != 0x76 || file[16] != 0x30 || file[17] != 0x00) {
    *error = formatted("no raster command 1D 76 30 00 at offset 14: found %02X %02X %02X %02X",
                       file[14], file[15], file[16], file[17]);
    return false;
  }

  PageRecord rec;
  rec.media = file[3];
  rec.labelWidth = le16(file, 4);
  rec.labelHeight = le16(file, 6);
  rec.gapHeight = le16(file, 8);
  rec.pageNumber = le16(file, 12);
  rec.stride = le16(file, 18);
  rec.rows = le16(file, 20);
  if (rec.stride < 2) {
    *error = formatted("row stride %u is below the 2 bytes of the dot count", rec.stride);
    return false;
  }
  if (rec.rows == 0) {
    *error = "raster has no rows";
    return false;
  }

  // Both factors are 16-bit, so no product here can overflow 64 bits.
  const uint64_t need = kPageRecordHeaderSize + uint64_t{rec.stride} * rec.rows;
  if (size < need) {
    *error = formatted("truncated in row %zu: %u rows of %u bytes need %llu bytes, file has %zu",
                       (size - kPageRecordHeaderSize) / rec.stride, rec.rows, rec.stride,
                       static_cast<unsigned long long>(need), size);
    return false;
  }
  if (size > need) {
    *error = formatted("%llu trailing byte(s) after %u rows of %u bytes",
                       static_cast<unsigned long long>(size - need), rec.rows, rec.stride);
    return false;
  }

  rec.width = (rec.stride - size_t{2}) * 8;
  const uint64_t pixels = uint64_t{rec.width} * rec.rows;
  try {
    if (pixels > rec.dots.max_size())
      throw std::bad_alloc();
    rec.dots.assign(pixels, 0);
  } catch (const std::bad_alloc&) {
    *error = formatted("picture of %zu x %u pixels does not fit in memory", rec.width, rec.rows);
    return false;
  }

  for (size_t r = 0; r < rec.rows; ++r) {
    const size_t start = kPageRecordHeaderSize + r * rec.stride;
    uint8_t* row = rec.dots.data() + r * rec.width;
    uint64_t bits = 0;
    for (size_t i = 2; i < rec.stride; ++i) {
      const uint8_t byte = file[start + i];
      bits += bitCount(byte);
      for (int b = 0; b < 8; ++b)
        row[(i - 2) * 8 + b] = (byte >> (7 - b)) & 1;
    }
    // The filter keeps only the low 16 bits of the count.
    const uint16_t count = le16(file, start);
    if (count != (bits & 0xFFFF)) {
      *error = formatted("row %zu (offset %zu): dot count %u but %llu bits set", r, start, count,
                         static_cast<unsigned long long>(bits));
      return false;
    }
    rec.blackDots += bits;
  }
  *out = std::move(rec);
  return true;
}
