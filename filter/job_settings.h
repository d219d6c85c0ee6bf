// Builds the job's Settings record from the printer's PPD (environment PPD),
// the job options string and the printer name (environment PRINTER).
#ifndef OSTRA_FILTER_JOB_SETTINGS_H
#define OSTRA_FILTER_JOB_SETTINGS_H

#include <cups/ppd.h>

#include "common/settings.h"

// Never fails: a missing or unreadable PPD leaves every setting at its
// default, and the zero page size is refused by the job driver.
void parseSettings(Settings* settings, const char* options);

// Page size in millimetres from the marked "PageSize"; 0 x 0 when the PPD does
// not know the size.
void getPageWidthPageHeight(ppd_file_t* ppd, Settings* settings);

#endif  // OSTRA_FILTER_JOB_SETTINGS_H
