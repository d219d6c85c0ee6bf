#include <unistd.h>

#include <cctype>
#include <cerrno>
#include <cstring>
#include <filesystem>
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
  s.MaxMediaWidth = appMaxMediaWidthMm();
  copyText(s.MediaMethod, sizeof(s.MediaMethod), "DirectThermal");
  copyText(s.PaperType, sizeof(s.PaperType),
           values.tracking == "mark"         ? "LabelMark"
           : values.tracking == "continuous" ? "Continue"
                                             : "LabelGaps");
  s.GapsHeight = intValue(values, "gap-height");
  copyText(s.Origin, sizeof(s.Origin), "Top");
  // The name becomes part of a file name, so nothing unprintable may survive.
  copyText(s.PrinterName, sizeof(s.PrinterName), printerName);
  for (char* c = s.PrinterName; *c != '\0'; ++c) {
    if (!isprint(static_cast<unsigned char>(*c)))
      *c = '_';
  }
  const int halftone = indexOf(kHalftoneKeywords, valueOf(values, "halftone-type"));
  s.halftoneType = halftone >= 0 ? static_cast<DitherType>(halftone) : DITHER_NONE;
  s.MirrorImage = valueOf(values, "mirror-image") == "true" ? 1 : 0;
  s.NegativeImage = valueOf(values, "negative-image") == "true" ? 1 : 0;
  copyText(s.PrintSpeed, sizeof(s.PrintSpeed), std::to_string(appSpeedInches(values.printSpeed)));
  s.Darkness = appDarknessLevel(values.darknessConfigured, values.printDarkness);
  s.Brightness = intValue(values, "brightness");
  const int barcode = indexOf(kBarcodeKeywords, valueOf(values, "barcode-thinning"));
  s.VBarcodeOpt = barcode >= 0 ? barcode : 0;
  return s;
}

AppJob::AppJob(PrinterState& state, const PrinterPaths& paths, const Settings& settings, int jobId,
               FILE* device)
    : settings_(settings), jobId_(std::to_string(jobId)), printer_(state, paths) {
  printer_.getOutputStreams().clear();
  if (device != nullptr)
    printer_.getOutputStreams().push_back(device);
  printer_.setSettings(&settings_);
}

const char* AppJob::startPage(const cups_page_header2_t& header, const char* ppdPageSize) {
  if (header.cupsBitsPerPixel != 8 || header.cupsBitsPerColor != 8)
    return "only 8-bit pages are accepted";
  gray_ = header.cupsColorSpace == CUPS_CSPACE_SW || header.cupsColorSpace == CUPS_CSPACE_W;
  if (!gray_ && header.cupsColorSpace != CUPS_CSPACE_K)
    return "only black and gray pages are accepted";
  const OstraHeaderField bad = ostraBadHeaderField(header);
  if (bad.name != nullptr) {
    problem_ = std::string(bad.name) + " is " + std::to_string(bad.value) + ", must be " +
               std::to_string(bad.low) + " to " + std::to_string(bad.high);
    return problem_.c_str();
  }
  header_ = header;
  rows_ = 0;
  copyText(header_.cupsPageSizeName, sizeof(header_.cupsPageSizeName), ppdPageSize);
  try {
    page_.assign(static_cast<size_t>(header.cupsBytesPerLine) * header.cupsHeight, 0);
  } catch (const std::bad_alloc&) {
    return "no memory for the page";
  }
  beginPage(&printer_, &settings_, &header_, appMaxMediaWidthMm(), jobId_.c_str());
  if (printer_.deviceFailed())
    return "the printer did not take the page's settings";
  return nullptr;
}

void AppJob::writeRow(unsigned y, const unsigned char* row) {
  if (y >= header_.cupsHeight || page_.empty())
    return;
  ++rows_;
  unsigned char* dst = page_.data() + static_cast<size_t>(y) * header_.cupsBytesPerLine;
  for (unsigned x = 0; x < header_.cupsBytesPerLine; ++x)
    dst[x] = gray_ ? static_cast<unsigned char>(255 - row[x]) : row[x];
}

bool AppJob::endPage(bool canceled) {
  if (canceled || page_.empty())
    return true;
  // A document that ends inside a page leaves it unprinted: half a label is
  // not what was sent.
  if (rows_ < header_.cupsHeight) {
    kiwaLogCommon(KIWA_LOG_ERROR, "The page ended after %u of its %u rows: it is not printed",
                  rows_, header_.cupsHeight);
    return false;
  }
  // The counter is stored at the job's end; until then, before each page's
  // record is written, the value the job would store once it is goes to a
  // journal beside the counter, which a server that crashed takes as the
  // counter when it starts again: a number may be skipped, none used twice.
  // Only the first record makes the directory; that page's entry follows it.
  const std::string counter = printer_.pageCounterPath();
  const bool before =
      !counter.empty() && std::filesystem::exists(std::filesystem::path(counter).parent_path());
  if (before && !journalCounter(counter, static_cast<uint16_t>(printer_.state().PageNum + 1)))
    return false;
  try {
    printer_.printImage(page_.data(), header_.cupsBytesPerLine, header_.cupsHeight,
                        header_.cupsWidth);
  } catch (const std::bad_alloc&) {
    kiwaLogCommon(KIWA_LOG_ERROR, "No memory to process the page, the page is not printed");
    return false;
  }
  return printer_.pageFailure() == nullptr && !printer_.outputFailed() &&
         (before || counter.empty() || journalCounter(counter, printer_.state().PageNum));
}

bool AppJob::journalCounter(const std::string& path, uint16_t next) {
  const uint16_t stored = next >= kPageNumWrap ? 1 : next;
  const unsigned char bytes[2] = {static_cast<unsigned char>(stored & 0xFF),
                                  static_cast<unsigned char>(stored >> 8)};
  if (appReplaceFile(path + ".journal", bytes, sizeof(bytes)))
    return true;
  kiwaLogCommon(KIWA_LOG_ERROR, "Unable to store the page counter in %s.journal: %s", path.c_str(),
                strerror(errno));
  return false;
}

bool appReplaceFile(const std::string& path, const void* data, size_t size) {
  const std::string temp = path + ".new";
  FILE* out = fopen(temp.c_str(), "wb");
  bool ok = out != nullptr && fwrite(data, 1, size, out) == size && fflush(out) == 0 &&
            fsync(fileno(out)) == 0;
  int error = errno;
  if (out != nullptr && fclose(out) != 0 && ok) {
    ok = false;
    error = errno;
  }
  if (ok && rename(temp.c_str(), path.c_str()) == 0)
    return true;
  error = ok ? errno : error;
  unlink(temp.c_str());
  errno = error;
  return false;
}

bool AppJob::end() {
  jobEnd(&printer_, &settings_);
  printer_.flushOutput();
  if (printer_.outputFailed())
    return false;
  const std::string path = printer_.pageCounterPath();
  if (!path.empty())
    unlink((path + ".journal").c_str());
  return true;
}
