#include "printer/ostra_job.h"

#include <cstring>
#include <new>

namespace {

constexpr double kMmPerInch = 25.4;

struct OstraHeaderField {
  const char* name;  // null when every field fits
  uint32_t value, low, high;
};

// The first field of a page header outside what the printer can take.
OstraHeaderField ostraBadHeaderField(const cups_page_header2_t& h) {
  const OstraHeaderField fields[] = {
      {"cupsWidth", h.cupsWidth, 1, kOstraMaxPageWidthDots},
      {"cupsHeight", h.cupsHeight, 1, kOstraMaxPageHeightDots},
      {"cupsBytesPerLine", h.cupsBytesPerLine, h.cupsWidth, kOstraMaxPageWidthDots},
      {"HWResolution[0]", h.HWResolution[0], 1, kOstraMaxResolutionDpi},
      {"HWResolution[1]", h.HWResolution[1], 1, kOstraMaxResolutionDpi},
  };
  for (const OstraHeaderField& f : fields) {
    if (f.value < f.low || f.value > f.high)
      return f;
  }
  return OstraHeaderField{nullptr, 0, 0, 0};
}

}  // namespace

void updatePageSettings(Settings* settings, const cups_page_header2_t& h, const char* jobId) {
  settings->pageWidth = static_cast<float>(h.cupsWidth * kMmPerInch / h.HWResolution[0]);
  settings->pageHeight = static_cast<float>(h.cupsHeight * kMmPerInch / h.HWResolution[1]);
  settings->MaxMediaWidth =
      static_cast<float>(settings->maxMediaWidthMm / kMmPerInch * h.HWResolution[0]);
  // Media claimed wider than any page would centre each row in a margin of
  // gigabytes.
  if (settings->MaxMediaWidth > static_cast<float>(kOstraMaxPageWidthDots))
    settings->MaxMediaWidth = static_cast<float>(kOstraMaxPageWidthDots);
  // strncpy semantics: an id of 20 characters or more fills the field with no
  // terminator.
  const size_t idLen = strnlen(jobId, sizeof(settings->JobId));
  memset(settings->JobId, 0, sizeof(settings->JobId));
  memcpy(settings->JobId, jobId, idLen);
}

void jobSetup(OstraPrinter* printer, const Settings* settings) {
  if (printer == nullptr || settings == nullptr)
    return;
  printer->records().loadCounter(&printer->state().PageNum);
  printer->SendPrintSetting();
}

void jobEnd(OstraPrinter* printer, const Settings* settings) {
  if (printer == nullptr || settings == nullptr)
    return;
  uint16_t& pageNum = printer->state().PageNum;
  if (pageNum >= kPageNumWrap)
    pageNum = 1;
  RecordFailure failure;
  if (!printer->records().storeCounter(pageNum, &failure))
    printer->reportWriteFailure(failure.what, failure.path, failure.error);
}

OstraJob::OstraJob(PrinterState& state, const PrinterPaths& paths, const Settings& settings,
                   std::string jobId, RecordSink* records)
    : settings_(settings), jobId_(std::move(jobId)), printer_(state, paths) {
  printer_.getOutputStreams().clear();
  printer_.setSettings(&settings_);
  printer_.setRecordSink(records);
}

OstraJob::Check OstraJob::checkPage(const cups_page_header2_t& header, std::string* why) {
  char text[160];
  if (header.cupsBitsPerPixel != 8) {
    snprintf(text, sizeof(text), "Unsupported bits per pixel : %d ! Requires 8 bits per pixel!",
             static_cast<int>(header.cupsBitsPerPixel));
    *why = text;
    return Check::Refused;
  }
  if (header.cupsHeight == 0 || header.cupsBytesPerLine == 0)
    return Check::EndOfPages;
  const OstraHeaderField bad = ostraBadHeaderField(header);
  if (bad.name != nullptr) {
    snprintf(text, sizeof(text), "Unsupported page header: %s is %u, must be %u to %u", bad.name,
             bad.value, bad.low, bad.high);
    *why = text;
    return Check::Refused;
  }
  return Check::Print;
}

bool OstraJob::allocatePage(const cups_page_header2_t& header) {
  header_ = header;
  try {
    page_.assign(static_cast<size_t>(header.cupsBytesPerLine) * header.cupsHeight, 0);
  } catch (const std::bad_alloc&) {
    page_.clear();
    return false;
  }
  return true;
}

bool OstraJob::beginPage() {
  updatePageSettings(&settings_, header_, jobId_.c_str());
  kiwaLogCommon(KIWA_LOG_DEBUG, "pageWidth: %f,pageHeight: %f", settings_.pageWidth,
                settings_.pageHeight);

  printer_.setPageHeader(&header_);
  printer_.setBrightness(settings_.Brightness);
  printer_.setVBarcodeOpt(settings_.VBarcodeOpt);
  printer_.setHalftoneType(settings_.halftoneType);
  printer_.setMirrorPrint(settings_.MirrorImage != 0);
  printer_.setNegativePrint(settings_.NegativeImage != 0);

  // Every page reloads the counter and resends the settings, which reach the
  // printer before the page's record appears.
  jobSetup(&printer_, &settings_);
  printer_.flushOutput();
  return !printer_.deviceFailed();
}

bool OstraJob::printPage(int pageCount) {
  bool printed = false;
  try {
    printed = printer_.printImage(page_.data(), header_.cupsBytesPerLine, header_.cupsHeight,
                                  header_.cupsWidth);
  } catch (const std::bad_alloc&) {
    kiwaLogCommon(KIWA_LOG_ERROR, "No memory to process page %d, the page is not printed",
                  pageCount);
    printed = false;
  }
  pageFinished_ = true;
  counterAfterPage_ = printer_.state().PageNum;
  return printed && !printer_.outputFailed();
}

void OstraJob::cancel() {
  if (pageFinished_)
    printer_.state().PageNum = counterAfterPage_;
}

bool OstraJob::finish() {
  jobEnd(&printer_, &settings_);
  printer_.flushOutput();
  return !printer_.outputFailed();
}
