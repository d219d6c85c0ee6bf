#include "tests/support/log_capture.h"

#include <cstdio>
#include <cstdlib>

#include "common/kiwa_common.h"

std::string captureLog(const std::function<void()>& body) {
  char* data = nullptr;
  size_t size = 0;
  FILE* mem = open_memstream(&data, &size);
  kiwaLogSetStream(mem);
  body();
  kiwaLogSetStream(nullptr);
  fclose(mem);
  std::string text(data, size);
  free(data);
  return text;
}
