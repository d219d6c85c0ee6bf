// Typed look-ups of one PPD option choice or attribute, each falling back to
// the caller's default when the PPD, the option, the choice or the value is missing.
#ifndef OSTRA_COMMON_KIWA_PPD_H
#define OSTRA_COMMON_KIWA_PPD_H

#include <cups/ppd.h>

extern "C" {

// The marked choice (job option or marked default), else the option's default
// choice, else null.
ppd_choice_t* kiwaPpdGetChoice(ppd_file_t* ppd, const char* option);

// The returned text belongs to the PPD; copy it before the PPD is closed.
const char* kiwaPpdGetChoiceAsStrDefault(ppd_file_t* ppd, const char* option, const char* def);
int kiwaPpdGetChoiceAsIntDefault(ppd_file_t* ppd, const char* option, int def);
// "true"/"yes" give 1 and "false"/"no" give 0 in any case; any other keyword
// gives its number kept to the low 8 bits, so the result is not always 0 or 1.
signed char kiwaPpdGetChoiceAsBoolDefault(ppd_file_t* ppd, const char* option, signed char def);

const char* kiwaPpdGetAttrAsStrDefault(ppd_file_t* ppd, const char* name, const char* spec,
                                       const char* def);
double kiwaPpdGetAttrAsFloatDefault(ppd_file_t* ppd, const char* name, const char* spec,
                                    double def);

}  // extern "C"

#endif  // OSTRA_COMMON_KIWA_PPD_H
