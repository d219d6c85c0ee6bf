#include "common/kiwa_ppd.h"

#include <strings.h>

#include <cstdlib>

extern "C" {

ppd_choice_t* kiwaPpdGetChoice(ppd_file_t* ppd, const char* option) {
  ppd_choice_t* marked = ppdFindMarkedChoice(ppd, option);
  if (marked != nullptr)
    return marked;
  ppd_option_t* opt = ppdFindOption(ppd, option);
  if (opt == nullptr)
    return nullptr;
  return ppdFindChoice(opt, opt->defchoice);
}

const char* kiwaPpdGetChoiceAsStrDefault(ppd_file_t* ppd, const char* option, const char* def) {
  const ppd_choice_t* choice = kiwaPpdGetChoice(ppd, option);
  return choice != nullptr ? choice->choice : def;
}

int kiwaPpdGetChoiceAsIntDefault(ppd_file_t* ppd, const char* option, int def) {
  const ppd_choice_t* choice = kiwaPpdGetChoice(ppd, option);
  return choice != nullptr ? atoi(choice->choice) : def;
}

signed char kiwaPpdGetChoiceAsBoolDefault(ppd_file_t* ppd, const char* option, signed char def) {
  const ppd_choice_t* choice = kiwaPpdGetChoice(ppd, option);
  if (choice == nullptr)
    return def;
  const char* keyword = choice->choice;
  if (strcasecmp(keyword, "true") == 0 || strcasecmp(keyword, "yes") == 0)
    return 1;
  if (strcasecmp(keyword, "false") == 0 || strcasecmp(keyword, "no") == 0)
    return 0;
  return static_cast<signed char>(atoi(keyword) & 0xFF);
}

const char* kiwaPpdGetAttrAsStrDefault(ppd_file_t* ppd, const char* name, const char* spec,
                                       const char* def) {
  const ppd_attr_t* attr = ppdFindAttr(ppd, name, spec);
  return (attr != nullptr && attr->value != nullptr) ? attr->value : def;
}

double kiwaPpdGetAttrAsFloatDefault(ppd_file_t* ppd, const char* name, const char* spec,
                                    double def) {
  const ppd_attr_t* attr = ppdFindAttr(ppd, name, spec);
  return (attr != nullptr && attr->value != nullptr) ? atof(attr->value) : def;
}

}  // extern "C"
