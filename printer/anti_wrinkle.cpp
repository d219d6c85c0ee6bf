#include <cstring>

#include "printer/kiwa_printer.h"

namespace {

// Canvas of each page size before the bars, in hundredths of a millimetre:
// the printable field of the stencil paper.
struct Canvas {
  const char* name;
  uint32_t widthMm100;
  uint32_t heightMm100;
};
const Canvas kCanvases[] = {
    {"A4", 20000, 27500},
    {"Letter", 21000, 25700},
    {"Tattoo_A5", 20000, 11800},
    {"Tattoo_A6", 10000, 11800},
};

// Tenths of a dot to dots.
uint32_t round10(uint32_t v) {
  return (v + 5) / 10;
}

// Fills the part of a bar that lies on the image and leaves the counters
// where a plain row-by-row loop over the whole bar would: the column one past
// the last filled row's end, and the row one past the last row.
void fillBar(CxImage& image, int64_t x0, int64_t x1, int64_t y0, int64_t y1, int64_t* x,
             int64_t* y) {
  if (y1 > y0) {
    const int64_t width = image.GetWidth();
    const int64_t height = image.GetHeight();
    const int64_t fx0 = x0 > 0 ? x0 : 0;
    const int64_t fx1 = x1 < width ? x1 : width;
    const int64_t fy0 = y0 > 0 ? y0 : 0;
    const int64_t fy1 = y1 < height ? y1 : height;
    for (int64_t row = fy0; row < fy1; ++row) {
      for (int64_t col = fx0; col < fx1; ++col)
        image.SetPixelIndex(col, row, 255);
    }
    *x = x1 > x0 ? x1 : x0;
  }
  *y = y1 > y0 ? y1 : y0;
}

}  // namespace

void KiwaPrinter::EnableAntiWrink(CxImage& image) {
  if (!image.IsValid() || pageHdr_ == nullptr) {
    kiwaLogCommon(KIWA_LOG_DEBUG, "EnableAntiWrink: Image or pageHdr_ is not valid, returning.");
    return;
  }

  const uint32_t res = static_cast<uint32_t>(resolution_);
  const uint32_t level = static_cast<uint32_t>(antiWrinkle_);
  const uint32_t lineH = round10(res * 100 / 254);
  const uint32_t lineV = round10(level * 100 * res / 254);
  kiwaLogCommon(KIWA_LOG_DEBUG,
                "EnableAntiWrink: AntiWrinkle level: %d, line_v: %d points, line_h: %d points.",
                antiWrinkle_, static_cast<int>(lineV), static_cast<int>(lineH));

  uint32_t canvasWidth = 0;
  uint32_t canvasHeight = 0;
  for (const Canvas& c : kCanvases) {
    if (strcmp(pageHdr_->cupsPageSizeName, c.name) != 0)
      continue;
    canvasWidth = round10(res * c.widthMm100 / 254) + 2 * lineV;
    canvasHeight = round10(res * c.heightMm100 / 254) + 2 * lineH;
    kiwaLogCommon(KIWA_LOG_DEBUG,
                  "EnableAntiWrink: Page size is %s, CanvasWidth: %d, CanvasHeight: %d", c.name,
                  static_cast<int>(canvasWidth), static_cast<int>(canvasHeight));
    break;
  }

  const int32_t cw = static_cast<int32_t>(canvasWidth);
  const int32_t ch = static_cast<int32_t>(canvasHeight);
  int32_t ex = 0;
  int32_t ey = 0;
  if (static_cast<int32_t>(image.GetWidth()) < cw) {
    ex = (cw - static_cast<int32_t>(image.GetWidth())) / 2;
    kiwaLogCommon(KIWA_LOG_DEBUG,
                  "EnableAntiWrink: Image width is less than canvas width, exPoints: %d", ex);
  }
  if (static_cast<int32_t>(image.GetHeight()) < ch) {
    ey = (ch - static_cast<int32_t>(image.GetHeight())) / 2;
    kiwaLogCommon(KIWA_LOG_DEBUG,
                  "EnableAntiWrink: Image height is less than canvas height, eyPoints: %d", ey);
  }
  if (ex != 0 || ey != 0) {
    const tagRGBQUAD white = {255, 255, 255, 0};
    if (!image.Expand(ex, ey, ex, ey, white)) {
      kiwaLogCommon(KIWA_LOG_DEBUG, "EnableAntiWrink: Failed to expand image, returning.");
      return;
    }
    kiwaLogCommon(KIWA_LOG_DEBUG, "EnableAntiWrink: Image expanded successfully.");
  }

  // A page larger than the canvas is not cropped: the frame is centred on it.
  int32_t ox = 0;
  int32_t oy = 0;
  if (static_cast<int32_t>(image.GetWidth()) > cw) {
    ox = (static_cast<int32_t>(image.GetWidth()) - cw) / 2;
    kiwaLogCommon(KIWA_LOG_DEBUG,
                  "EnableAntiWrink: Image width is greater than canvas width, offset.x: %d", ox);
  }
  if (static_cast<int32_t>(image.GetHeight()) > ch) {
    oy = (static_cast<int32_t>(image.GetHeight()) - ch) / 2;
    kiwaLogCommon(KIWA_LOG_DEBUG,
                  "EnableAntiWrink: Image height is greater than canvas height, offset.y: %d", oy);
  }

  const int64_t v = lineV;
  const int64_t h = lineH;
  int64_t x = 0;
  int64_t y = 0;
  fillBar(image, ox, ox + v, oy, oy + ch, &x, &y);
  kiwaLogCommon(KIWA_LOG_DEBUG, "EnableAntiWrink: Drawing left line. point(%d, %d, %d, %d)", ox, oy,
                static_cast<int>(x), static_cast<int>(y));
  fillBar(image, ox, ox + cw, oy, oy + h, &x, &y);
  kiwaLogCommon(KIWA_LOG_DEBUG, "EnableAntiWrink: Drawing top line. point(%d, %d, %d, %d)", ox, oy,
                static_cast<int>(x), static_cast<int>(y));
  fillBar(image, ox + cw - v, ox + cw, oy, oy + ch, &x, &y);
  kiwaLogCommon(KIWA_LOG_DEBUG, "EnableAntiWrink: Drawing right line. point(%d, %d, %d, %d)",
                static_cast<int>(ox + cw - v), oy, static_cast<int>(x), static_cast<int>(y));
  fillBar(image, ox, ox + cw, oy + ch - h, oy + ch, &x, &y);
  kiwaLogCommon(KIWA_LOG_DEBUG, "EnableAntiWrink: Drawing bottom line. point(%d, %d, %d, %d)", ox,
                oy, static_cast<int>(x), static_cast<int>(y));
}
