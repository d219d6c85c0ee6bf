// The job settings record: what the PPD and the job options ask of this job,
// filled once by the filter and read by the printer for every page.
#ifndef OSTRA_COMMON_SETTINGS_H
#define OSTRA_COMMON_SETTINGS_H

#include <cctype>
#include <cstdint>

#include "common/kiwa_common.h"

// Text fields are fixed arrays that always hold a terminated copy.
constexpr int kSettingsChoiceLen = 41;
constexpr int kSettingsDataOutputFileLen = 256;
constexpr int kSettingsJobIdLen = 20;
constexpr int kSettingsPrinterNameLen = 260;

struct Settings {
  char PageSize[kSettingsChoiceLen];
  float pageWidth;   // millimetres
  float pageHeight;  // millimetres
  char Resolution[kSettingsChoiceLen];
  char MediaMethod[kSettingsChoiceLen];
  char PaperType[kSettingsChoiceLen];  // "LabelGaps", "LabelMark" or "Continue"
  int32_t GapsHeight;                  // millimetres between labels
  char PostAction[kSettingsChoiceLen];
  char Occurrence[kSettingsChoiceLen];
  char Origin[kSettingsChoiceLen];
  int32_t MirrorImage;
  int32_t NegativeImage;
  DitherType halftoneType;
  int32_t PrintSpeed;  // inches a second, as the PPD's choice reads
  int32_t Darkness;    // 0 Light, 1 Middle, 2 Dark
  int32_t Brightness;
  int32_t VBarcodeOpt;
  char DataOutputFile[kSettingsDataOutputFileLen];
  char JobId[kSettingsJobIdLen];  // not terminated when the id fills it
  char PrinterName[kSettingsPrinterNameLen];
  float maxMediaWidthMm;  // the head's width, for the job
  float MaxMediaWidth;    // the same in dots at the page's resolution, for each page
};

// The name becomes part of a file name, so nothing unprintable may survive.
inline void settingsSetPrinterName(Settings* settings, const char* name) {
  kiwaStrCpy(settings->PrinterName, name, kSettingsPrinterNameLen);
  for (char* c = settings->PrinterName; *c != '\0'; ++c) {
    if (!isprint(static_cast<unsigned char>(*c)))
      *c = '_';
  }
}

#endif  // OSTRA_COMMON_SETTINGS_H
