#include "printer/kiwa_printer.h"

namespace {

constexpr unsigned char kFull = 255;
constexpr unsigned char kEmpty = 0;

// Dashed line: runs longer than this many full pixels are broken into
// 4-pixel dashes on an 8-pixel grid counted from column 0.
constexpr int kMinDashedRun = 320;
constexpr int kDashLength = 4;
constexpr int kDashPeriod = 8;
constexpr int kDashFirstRow = 2;
constexpr int kDashLastRowsKept = 6;

// Row scan: a bar must be longer than this, on a row at most half full.
constexpr int kMinBarRun = 40;
constexpr int kMaxGapBelow = 3;

// Column scan.
constexpr int kFirstColumnRow = 3;
constexpr int kLastRowsKept = 6;
constexpr int kStaggerRun = 6;
constexpr int kTrimRun = 3;
constexpr int kGapRun = 3;

int rowStrideFor(int width) {
  return (width + 3) / 4 * 4;
}

}  // namespace

unsigned char KiwaPrinter::getPix(const unsigned char* bits, int stride, int x, int y) {
  return bits[static_cast<int64_t>(y) * stride + x];
}

void KiwaPrinter::setPix(unsigned char* bits, int stride, int x, int y, unsigned char value) {
  bits[static_cast<int64_t>(y) * stride + x] = value;
}

void KiwaPrinter::ApplyDashedLine(unsigned char* bits, int width, int height) {
  const int stride = rowStrideFor(width);
  for (int y = kDashFirstRow; y < height - kDashLastRowsKept; ++y) {
    int run = 0;
    for (int x = 0; x < width; ++x) {
      if (getPix(bits, stride, x, y) == kFull) {
        ++run;
        continue;
      }
      if (run > kMinDashedRun) {
        // The last dash may cover the pixel that ended the run and up to three
        // beyond it; they are cleared too, as printers have always done.
        for (int xx = 0; xx < x; xx += kDashPeriod) {
          if (xx < x - run)
            continue;
          for (int k = 0; k < kDashLength; ++k)
            setPix(bits, stride, xx + k, y, kEmpty);
        }
      }
      run = 0;
    }
  }
}

void KiwaPrinter::OptimazeBarcode1(unsigned char* bits, int width, int height) {
  const int stride = rowStrideFor(width);
  if (width <= 0 || height <= 0) {
    kiwaLogCommon(KIWA_LOG_CRIT, "OptimazeBarcode1 CreateFromArray with image failed!");
  }
  for (int y = 1; y < height - 1; ++y) {
    int full = 0;
    for (int i = 0; i < width / 2; ++i) {
      if (getPix(bits, stride, i, y) == kFull)
        ++full;
      if (getPix(bits, stride, width - 1 - i, y) == kFull)
        ++full;
    }
    int run = 0;
    for (int x = 2; x < width; ++x) {
      if (getPix(bits, stride, x, y) == kFull) {
        ++run;
        continue;
      }
      // Thin the lower edge of a long bar where only a narrow gap follows.
      if (run > kMinBarRun && full < width / 2) {
        for (int c = x - run; c < x; ++c) {
          int below = 0;
          for (int yy = y + 1; yy < height && getPix(bits, stride, c, yy) == kEmpty; ++yy)
            ++below;
          if (below >= 1 && below <= kMaxGapBelow && getPix(bits, stride, c, y - 1) == kFull) {
            setPix(bits, stride, c, y, kEmpty);
          }
        }
      }
      run = 0;
    }
  }
  kiwaLogCommon(KIWA_LOG_DEBUG, "OptimazeBarcode1 is applied!");
}

void KiwaPrinter::OptimazeBarcode2(unsigned char* bits, int width, int height) {
  const int stride = rowStrideFor(width);
  if (width <= 0 || height <= 0) {
    kiwaLogCommon(KIWA_LOG_CRIT, "OptimazeBarcode2 CreateFromArray with image failed!");
  }
  // The stagger reaches up to four rows above the bar end; a write above row 0
  // is dropped (a run long enough to stagger keeps it below, but stay safe).
  const auto clear = [&](int x, int y) {
    if (y >= 0 && y < height)
      setPix(bits, stride, x, y, kEmpty);
  };
  for (int x = 0; x < width; ++x) {
    int fullRun = 0;
    int otherRun = 0;
    for (int y = kFirstColumnRow; y < height - kLastRowsKept;) {
      if (getPix(bits, stride, x, y) == kFull) {
        ++fullRun;
        otherRun = 0;
      } else {
        fullRun = 0;
        ++otherRun;
      }
      // Bar end: stagger the last rows in every other even column.
      if (fullRun > kStaggerRun && getPix(bits, stride, x, y - 2) == kFull &&
          getPix(bits, stride, x, y - 1) == kFull && getPix(bits, stride, x, y) == kFull &&
          getPix(bits, stride, x, y + 1) == kEmpty) {
        if (x % 4 == 0) {
          clear(x, y - 2);
          clear(x, y - 4);
        } else if (x % 4 == 2) {
          clear(x, y - 1);
          clear(x, y - 3);
        }
      }
      // Trim the last pixel of a bar when ink follows within two rows below it.
      // The scan then steps over the gap row after it: that row is not
      // examined and leaves both run counters as they are.
      if (fullRun > kTrimRun && getPix(bits, stride, x, y) == kFull &&
          getPix(bits, stride, x, y + 1) == kEmpty &&
          !(getPix(bits, stride, x, y + 2) != kFull && getPix(bits, stride, x, y + 3) != kFull)) {
        clear(x, y);
        y += 2;
        continue;
      }
      // Never true (a full pixel resets otherRun), kept as the printers have it.
      if (otherRun > kGapRun && getPix(bits, stride, x, y) == kFull &&
          getPix(bits, stride, x, y - 1) == kEmpty) {
        setPix(bits, stride, x, y - 1, kFull);
      }
      ++y;
    }
  }
  kiwaLogCommon(KIWA_LOG_DEBUG, "OptimazeBarcode2 is applied!");
}
