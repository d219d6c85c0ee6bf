#include "printer/kiwa_printer.h"

#include <cerrno>
#include <cstdarg>
#include <cstdlib>
#include <cstring>
#include <string>

namespace {

const char kNotice[] = "rastertoostra 1.0.0 for Kiwa Ostra printers\r";

std::string hexNotice() {
  static const char kDigits[] = "0123456789ABCDEF";
  std::string text = "MFT:";
  for (const char* p = kNotice; *p != '\0'; ++p) {
    const unsigned char c = static_cast<unsigned char>(*p);
    if (p != kNotice)
      text += ' ';
    text += kDigits[c >> 4];
    text += kDigits[c & 0x0F];
  }
  return text;
}

}  // namespace

KiwaPrinter::KiwaPrinter(PrinterState& state, const PrinterPaths& paths)
    : state_(state), paths_(paths) {
  outputStreams_.push_back(stdout);
}

KiwaPrinter::~KiwaPrinter() = default;

const char* KiwaPrinter::getCopyRight() const {
  static const std::string text = hexNotice();
  return text.c_str();
}

void KiwaPrinter::printBytes(const unsigned char* data, unsigned long size) {
  for (FILE* stream : outputStreams_) {
    if (fwrite(data, size, 1, stream) != 1)
      noteDeviceFailure(errno);
  }
}

void KiwaPrinter::flushOutput() {
  for (FILE* stream : outputStreams_) {
    if (fflush(stream) != 0)
      noteDeviceFailure(errno);
  }
}

void KiwaPrinter::noteDeviceFailure(int error) {
  if (!deviceFailed_)
    kiwaLogCommon(KIWA_LOG_ERROR, "Unable to send the print settings to the printer: %s",
                  strerror(error));
  deviceFailed_ = true;
}

void KiwaPrinter::printStr(const char* s) {
  for (FILE* stream : outputStreams_)
    fprintf(stream, "%s", s);
}

void KiwaPrinter::printByte(unsigned char c) {
  for (FILE* stream : outputStreams_)
    fputc(c, stream);
}

int KiwaPrinter::printFormat(const char* format, ...) {
  int result = 0;
  va_list args;
  va_start(args, format);
  for (FILE* stream : outputStreams_) {
    // Each stream gets the whole text, so each needs its own argument list.
    va_list copy;
    va_copy(copy, args);
    result = vfprintf(stream, format, copy);
    va_end(copy);
  }
  va_end(args);
  return result;
}
