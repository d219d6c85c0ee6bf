#include <unistd.h>

#include <cctype>
#include <cerrno>
#include <cstring>
#include <new>

#include "app/ostra_app.h"

namespace {

// Points to millimetres as the printer's tools have always converted them.
constexpr double kMmPerPoint = 0.3528;
constexpr double kPointsPerInch = 72.0;
constexpr double kMmPerInch = 25.4;
constexpr float kMaxMediaWidthPt = 612.0f;
constexpr int kHundredthsMmPerInch = 2540;
constexpr int kMinSpeed = 2, kMaxSpeed = 6;

// The ten halftone names as IPP keywords, in the PPD's order, which is the
// order of DitherType.
const char* const kHalftoneKeywords[] = {
    "none",   "floyd-steinberg", "ordered", "burkes",    "stucki", "jarvis-judice-ninke",
    "sierra", "stevenson-arce",  "tattoo",  "tattoo-q7",
};
const char* const kBarcodeKeywords[] = {"off", "rows", "columns"};

template <size_t N>
int indexOf(const char* const (&names)[N], const std::string& value) {
  for (size_t i = 0; i < N; ++i) {
    if (value == names[i])
      return static_cast<int>(i);
  }
  return -1;
}

std::string valueOf(const AppJobValues& values, const char* name) {
  const auto found = values.vendor.find(name);
  if (found != values.vendor.end())
    return found->second;
  for (const AppVendorOption& option : appVendorOptions()) {
    if (strcmp(option.ipp, name) == 0)
      return option.defaultValue;
  }
  return std::string();
}

int intValue(const AppJobValues& values, const char* name) {
  return atoi(valueOf(values, name).c_str());
}

void copyText(char* dst, size_t size, const std::string& text) {
  snprintf(dst, size, "%s", text.c_str());
}

}  // namespace

// What the web page shows for the vendor options. The halftone names run one
// place ahead of the methods, so each label says what really runs.
const char* const kAppStrings = R"strings("halftone-type" = "Halftone method";
"halftone-type.none" = "None (threshold)";
"halftone-type.floyd-steinberg" = "FloydSteinberg (runs a 4 x 4 ordered matrix)";
"halftone-type.ordered" = "Ordered (runs Burkes diffusion)";
"halftone-type.burkes" = "Burkes (runs Stucki diffusion)";
"halftone-type.stucki" = "Stucki (runs Jarvis, Judice and Ninke diffusion)";
"halftone-type.jarvis-judice-ninke" = "Jarvis, Judice and Ninke (runs Sierra diffusion)";
"halftone-type.sierra" = "Sierra (runs Stevenson and Arce diffusion)";
"halftone-type.stevenson-arce" = "StevensonArce (runs a generated ordered matrix)";
"halftone-type.tattoo" = "Tattoo stencil";
"halftone-type.tattoo-q7" = "Tattoo stencil Q7";
"mirror-image" = "Mirror image";
"negative-image" = "Negative image";
"brightness" = "Brightness";
"gap-height" = "Gap between labels (mm)";
"barcode-thinning" = "Barcode bar thinning";
"barcode-thinning.off" = "Off";
"barcode-thinning.rows" = "Dash long lines, trim row edges";
"barcode-thinning.columns" = "Dash long lines, trim column ends";
)strings";

std::string appLabel(const std::string& key) {
  static const std::string text = std::string("\n") + kAppStrings;
  const std::string start = "\n\"" + key + "\" = \"";
  const size_t at = text.find(start);
  if (at == std::string::npos)
    return key;
  const size_t from = at + start.size();
  return text.substr(from, text.find('"', from) - from);
}

const AppMedia kAppMedia[] = {
    {"oe_4x6-label_4x6in", "w288h432", 288, 432},
    {"oe_4x4-label_4x4in", "w288h288", 288, 288},
    {"oe_4x3-label_4x3in", "w288h216", 288, 216},
    {"oe_4x2-label_4x2in", "w288h144", 288, 144},
    {"oe_2x1-label_2x1in", "w144h72", 143.14, 72},
    {"om_100x150-label_100x150mm", "w283h425", 282.25, 425.2},
    {"om_60x40-label_60x40mm", "w170h113", 169.003, 113.39},
    {"om_50x30-label_50x30mm", "w142h85", 141.73, 85.04},
    {"om_tattoo-a5_210x148mm", "Tattoo_A5", 594.31, 419.53},
    {"om_tattoo-a6_105x148mm", "Tattoo_A6", 296.6, 419.53},
    {"iso_a4_210x297mm", "A4", 594.31, 841.89},
    {"na_letter_8.5x11in", "Letter", 611.52, 792},
};
const size_t kAppMediaCount = sizeof(kAppMedia) / sizeof(kAppMedia[0]);
const char* const kAppRollMin = "roll_min_0.25x0.25in";
const char* const kAppRollMax = "roll_max_8.5x100in";

const AppMedia* appMediaByPwg(const std::string& pwg) {
  for (const AppMedia& m : kAppMedia) {
    if (pwg == m.pwg)
      return &m;
  }
  return nullptr;
}

std::string appCustomRoll(int widthMm, int lengthMm) {
  char name[128];
  if (widthMm < kRollMinMm || widthMm > kRollWidthMaxMm || lengthMm < kRollMinMm ||
      lengthMm > kRollLengthMaxMm ||
      pwgFormatSizeName(name, sizeof name, "custom", nullptr, widthMm * 100, lengthMm * 100,
                        "mm") == 0)
    return std::string();
  return name;
}

const std::vector<AppVendorOption>& appVendorOptions() {
  // In the PPD: HalftoneType, MirrorImage, NegativeImage, Brightness,
  // GapsHeight, VBarcodeDensity.
  static const std::vector<AppVendorOption> options = {
      {"halftone-type",
       std::vector<std::string>(std::begin(kHalftoneKeywords), std::end(kHalftoneKeywords)), "none",
       false, false},
      {"mirror-image", {"false", "true"}, "false", true, false},
      {"negative-image", {"false", "true"}, "false", true, false},
      {"brightness", {"-100", "-75", "-50", "-25", "0", "25", "50", "75", "100"}, "0", false, true},
      {"gap-height", {"0", "1", "2", "3", "4", "5", "6", "8", "10"}, "3", false, true},
      {"barcode-thinning",
       std::vector<std::string>(std::begin(kBarcodeKeywords), std::end(kBarcodeKeywords)), "off",
       false, false},
  };
  return options;
}

int appDarknessLevel(int configured, int adjustment) {
  // In 64 bits: a client may send any integer; below 0 counts as 0, above 100 as 100.
  const long long darkness = static_cast<long long>(configured) + adjustment;
  return darkness <= 33 ? 0 : darkness <= 66 ? 1 : 2;
}

int appSpeedInches(int printSpeed) {
  // In 64 bits: a client may send any integer.
  const long long inches =
      (static_cast<long long>(printSpeed) + kHundredthsMmPerInch / 2) / kHundredthsMmPerInch;
  return inches < kMinSpeed ? kMinSpeed : inches > kMaxSpeed ? kMaxSpeed : static_cast<int>(inches);
}

float appMaxMediaWidthMm() {
  return static_cast<float>(kMaxMediaWidthPt / kPointsPerInch * kMmPerInch);
}

Settings appJobSettings(const AppJobValues& values, const std::string& printerName) {
  Settings s{};
  const AppMedia* media = appMediaByPwg(values.media);
  copyText(s.PageSize, sizeof(s.PageSize), media != nullptr ? media->ppd : values.media);
  if (media != nullptr) {
    s.pageWidth = static_cast<float>(media->widthPt * kMmPerPoint);
    s.pageHeight = static_cast<float>(media->lengthPt * kMmPerPoint);
  }
  copyText(s.Resolution, sizeof(s.Resolution), std::to_string(values.resolution) + "dpi");
  s.maxMediaWidthMm = appMaxMediaWidthMm();
  copyText(s.MediaMethod, sizeof(s.MediaMethod), "DirectThermal");
  copyText(s.PaperType, sizeof(s.PaperType),
           values.tracking == "mark"         ? "LabelMark"
           : values.tracking == "continuous" ? "Continue"
                                             : "LabelGaps");
  s.GapsHeight = intValue(values, "gap-height");
  copyText(s.Origin, sizeof(s.Origin), "Top");
  settingsSetPrinterName(&s, printerName.c_str());
  const int halftone = indexOf(kHalftoneKeywords, valueOf(values, "halftone-type"));
  s.halftoneType = halftone >= 0 ? static_cast<DitherType>(halftone) : DITHER_NONE;
  s.MirrorImage = valueOf(values, "mirror-image") == "true" ? 1 : 0;
  s.NegativeImage = valueOf(values, "negative-image") == "true" ? 1 : 0;
  s.PrintSpeed = appSpeedInches(values.printSpeed);
  s.Darkness = appDarknessLevel(values.darknessConfigured, values.printDarkness);
  s.Brightness = intValue(values, "brightness");
  const int barcode = indexOf(kBarcodeKeywords, valueOf(values, "barcode-thinning"));
  s.VBarcodeOpt = barcode >= 0 ? barcode : 0;
  return s;
}

AppJob::AppJob(PrinterState& state, const PrinterPaths& paths, const Settings& settings, int jobId,
               FILE* device, RecordSink* records)
    : records_(paths.spoolDir, settings.PrinterName, true),
      job_(state, paths, settings, std::to_string(jobId),
           records != nullptr ? records : &records_) {
  if (device != nullptr)
    job_.addDevice(device);
}

const char* AppJob::startPage(const cups_page_header2_t& header, const char* ppdPageSize) {
  if (header.cupsBitsPerPixel != 8 || header.cupsBitsPerColor != 8)
    return "only 8-bit pages are accepted";
  gray_ = header.cupsColorSpace == CUPS_CSPACE_SW || header.cupsColorSpace == CUPS_CSPACE_W;
  if (!gray_ && header.cupsColorSpace != CUPS_CSPACE_K)
    return "only black and gray pages are accepted";
  rows_ = 0;
  height_ = 0;
  problem_.clear();
  if (OstraJob::checkPage(header, &problem_) != OstraJob::Check::Print)
    return problem_.empty() ? "the page is empty" : problem_.c_str();
  cups_page_header2_t page = header;
  copyText(page.cupsPageSizeName, sizeof(page.cupsPageSizeName), ppdPageSize);
  if (!job_.allocatePage(page))
    return "no memory for the page";
  if (!job_.beginPage())
    return "the printer did not take the page's settings";
  height_ = header.cupsHeight;
  return nullptr;
}

void AppJob::writeRow(unsigned y, const unsigned char* row) {
  const cups_page_header2_t& h = job_.header();
  if (y >= height_)
    return;
  ++rows_;
  unsigned char* dst = job_.rows() + static_cast<size_t>(y) * h.cupsBytesPerLine;
  for (unsigned x = 0; x < h.cupsBytesPerLine; ++x)
    dst[x] = gray_ ? static_cast<unsigned char>(255 - row[x]) : row[x];
}

bool AppJob::endPage(bool canceled) {
  if (height_ == 0)
    return true;
  if (canceled) {
    job_.cancel();
    return true;
  }
  // A document that ends inside a page leaves it unprinted: half a label is
  // not what was sent.
  if (rows_ < height_) {
    kiwaLogCommon(KIWA_LOG_ERROR, "The page ended after %u of its %u rows: it is not printed",
                  rows_, height_);
    return false;
  }
  return job_.printPage(++pages_);
}

RecordSink::Kept AppJob::NotedRecords::keepPage(uint16_t pageNum, int jobId,
                                                const unsigned char* data, size_t size,
                                                const std::function<bool()>& abandon,
                                                RecordFailure* where) {
  const Kept result = FileRecordSink::keepPage(pageNum, jobId, data, size, abandon, where);
  if (result == Kept::Yes)
    kept.push_back(where->path);
  return result;
}

bool AppJob::end() {
  return job_.finish();
}
