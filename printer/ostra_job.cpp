#include <cstring>

#include "printer/ostra_printer.h"

namespace {

constexpr double kMmPerInch = 25.4;

}  // namespace

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

void updatePageSettings(Settings* settings, const cups_page_header2_t& h, float maxMediaWidthMm,
                        const char* jobId) {
  settings->pageWidth = static_cast<float>(h.cupsWidth * kMmPerInch / h.HWResolution[0]);
  settings->pageHeight = static_cast<float>(h.cupsHeight * kMmPerInch / h.HWResolution[1]);
  settings->MaxMediaWidth = static_cast<float>(maxMediaWidthMm / kMmPerInch * h.HWResolution[0]);
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

void beginPage(OstraPrinter* printer, Settings* settings, cups_page_header2_t* header,
               float maxMediaWidthMm, const char* jobId) {
  updatePageSettings(settings, *header, maxMediaWidthMm, jobId);
  kiwaLogCommon(KIWA_LOG_DEBUG, "pageWidth: %f,pageHeight: %f", settings->pageWidth,
                settings->pageHeight);

  printer->setPageHeader(header);
  printer->setBrightness(settings->Brightness);
  printer->setVBarcodeOpt(settings->VBarcodeOpt);
  printer->setPrintSpeed(settings->PrintSpeed);
  printer->setPrintDensity(settings->Darkness);
  printer->setHalftoneType(settings->halftoneType);
  printer->setMirrorPrint(settings->MirrorImage != 0);
  printer->setNegativePrint(settings->NegativeImage != 0);
  printer->SetPrintWidth(static_cast<long>(kiwaTruncate(settings->MaxMediaWidth)));

  // Every page reloads the counter and resends the settings, which reach the
  // printer before the page's record appears.
  jobSetup(printer, settings);
  printer->flushOutput();
}
