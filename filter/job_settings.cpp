#include "filter/job_settings.h"

#include <cctype>
#include <cstdlib>
#include <cstring>
#include <memory>

#include <cups/cups.h>

#include "common/kiwa_common.h"
#include "common/kiwa_ppd.h"

namespace {

struct PpdCloser {
  void operator()(ppd_file_t* ppd) const { ppdClose(ppd); }
};
using PpdPtr = std::unique_ptr<ppd_file_t, PpdCloser>;

// Points to millimetres as the printer's tools have always converted them.
constexpr double kMmPerPoint = 0.3528;
constexpr double kPointsPerInch = 72.0;
constexpr double kMmPerInch = 25.4;

void copyChoice(char* dst, ppd_file_t* ppd, const char* option) {
  kiwaStrCpy(dst, kiwaPpdGetChoiceAsStrDefault(ppd, option, ""), kSettingsChoiceLen);
}

void markJobOptions(ppd_file_t* ppd, const char* options) {
  cups_option_t* list = nullptr;
  const int count = cupsParseOptions(options, 0, &list);
  if (count > 0 && list != nullptr) {
    cupsMarkOptions(ppd, count, list);
  }
  cupsFreeOptions(count, list);
}

}  // namespace

void getPageWidthPageHeight(ppd_file_t* ppd, Settings* settings) {
  const char* name = kiwaPpdGetChoiceAsStrDefault(ppd, "PageSize", "");
  settings->pageWidth = 0.0f;
  settings->pageHeight = 0.0f;
  kiwaLogCommon(KIWA_LOG_DEBUG, "PageSizeName: %s", name);

  const ppd_size_t* size = ppdPageSize(ppd, name);
  if (size == nullptr)
    return;
  kiwaLogCommon(KIWA_LOG_DEBUG, "Custom Size: (%f,%f,%f,%f,%f,%f)", size->width, size->length,
                size->left, size->bottom, size->right, size->top);
  settings->pageWidth = static_cast<float>(size->width * kMmPerPoint);
  settings->pageHeight = static_cast<float>(size->length * kMmPerPoint);
  kiwaLogCommon(KIWA_LOG_DEBUG, "Set page size: width %f mm, height %f mm", settings->pageWidth,
                settings->pageHeight);
}

void parseSettings(Settings* settings, const char* options) {
  PpdPtr ppd(ppdOpenFile(getenv("PPD")));
  ppdMarkDefaults(ppd.get());
  markJobOptions(ppd.get(), options);

  memset(settings, 0, sizeof(*settings));
  ppd_file_t* p = ppd.get();

  copyChoice(settings->PageSize, p, "PageSize");
  copyChoice(settings->Resolution, p, "Resolution");

  const float maxMediaPoints =
      static_cast<float>(kiwaPpdGetAttrAsFloatDefault(p, "MaxMediaWidth", nullptr, 0.0));
  settings->maxMediaWidthMm = static_cast<float>(maxMediaPoints / kPointsPerInch * kMmPerInch);

  copyChoice(settings->MediaMethod, p, "MediaMethod");
  copyChoice(settings->PaperType, p, "PaperType");
  settings->GapsHeight = kiwaPpdGetChoiceAsIntDefault(p, "GapsHeight", 0);

  settingsSetPrinterName(settings, getenv("PRINTER"));

  copyChoice(settings->Origin, p, "Origin");
  settings->halftoneType =
      kiwaHalftoneTypeFromStr(kiwaPpdGetChoiceAsStrDefault(p, "HalftoneType", ""));
  settings->MirrorImage = kiwaPpdGetChoiceAsBoolDefault(p, "MirrorImage", 0);
  settings->NegativeImage = kiwaPpdGetChoiceAsBoolDefault(p, "NegativeImage", 0);
  // The choice as the log shows it, and as the number it reads as.
  char speed[kSettingsChoiceLen];
  copyChoice(speed, p, "PrintSpeed");
  settings->PrintSpeed = atoi(speed);

  const char* darkness = kiwaPpdGetChoiceAsStrDefault(p, "Darkness", "");
  if (strcmp(darkness, "Light") == 0) {
    settings->Darkness = 0;
  } else if (strcmp(darkness, "Middle") == 0) {
    settings->Darkness = 1;
  } else if (strcmp(darkness, "Dark") == 0) {
    settings->Darkness = 2;
  }

  settings->Brightness = kiwaPpdGetChoiceAsIntDefault(p, "Brightness", 0);
  settings->VBarcodeOpt = kiwaPpdGetChoiceAsIntDefault(p, "VBarcodeDensity", 0);

  getPageWidthPageHeight(p, settings);

  kiwaLogCommon(KIWA_LOG_DEBUG, "settings->Resolution:%s", settings->Resolution);
  kiwaLogCommon(KIWA_LOG_DEBUG, "settings->MediaMethod:%s", settings->MediaMethod);
  kiwaLogCommon(KIWA_LOG_DEBUG, "settings->PaperType:%s", settings->PaperType);
  kiwaLogCommon(KIWA_LOG_DEBUG, "settings->GapsHeight:%d", settings->GapsHeight);
  kiwaLogCommon(KIWA_LOG_DEBUG, "settings->PostAction:%s", settings->PostAction);
  kiwaLogCommon(KIWA_LOG_DEBUG, "settings->Occurrence:%s", settings->Occurrence);
  kiwaLogCommon(KIWA_LOG_DEBUG, "settings->Origin:%s", settings->Origin);
  kiwaLogCommon(KIWA_LOG_DEBUG, "settings->MirrorImage:%d", settings->MirrorImage);
  kiwaLogCommon(KIWA_LOG_DEBUG, "settings->NegativeImage:%d", settings->NegativeImage);
  kiwaLogCommon(KIWA_LOG_DEBUG, "settings->PrintSpeed:%s", speed);
  kiwaLogCommon(KIWA_LOG_DEBUG, "settings->Darkness:%d", settings->Darkness);
  kiwaLogCommon(KIWA_LOG_DEBUG, "settings->halftoneType:%d", settings->halftoneType);
  kiwaLogCommon(KIWA_LOG_DEBUG, "settings->PageSize:%s", settings->PageSize);
  kiwaLogCommon(KIWA_LOG_DEBUG, "settings->pageWidth:%f", settings->pageWidth);
  kiwaLogCommon(KIWA_LOG_DEBUG, "settings->pageHeight:%f", settings->pageHeight);
  kiwaLogCommon(KIWA_LOG_DEBUG, "settings->MaxMediaWidth:%f", settings->maxMediaWidthMm);
  // The "%f" for an integer is the line's historical form; the value is
  // converted so the line stays well defined.
  kiwaLogCommon(KIWA_LOG_DEBUG, "settings->VBarcodeOpt:%f",
                static_cast<double>(settings->VBarcodeOpt));
}
