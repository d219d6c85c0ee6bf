#include "common/kiwa_common.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdarg>
#include <cstdlib>
#include <cstring>
#include <memory>

const char* const sHalftoneTypeStrTable[kHalftoneTypeCount] = {
    "None",   "FloydSteinberg", "Ordered", "Burkes",    "Stucki", "JarvisJudiceNinke",
    "Sierra", "StevensonArce",  "Tattoo",  "Tattoo_Q7",
};

namespace {

const char* const kLogLevelWords[] = {"DEBUG:", "DEBUG:", "WARN:", "ERROR:", "CRIT:", "INVALID:"};
constexpr int kLogLevelCount = sizeof(kLogLevelWords) / sizeof(kLogLevelWords[0]);

FILE* sLogStream = nullptr;
thread_local KiwaLogHandler tLogHandler = nullptr;
thread_local void* tLogContext = nullptr;

}  // namespace

void kiwaLogSetStream(FILE* stream) {
  sLogStream = stream;
}

void kiwaLogSetHandler(KiwaLogHandler handler, void* context) {
  tLogHandler = handler;
  tLogContext = context;
}

void kiwaLogCommon(int level, const char* format, ...) {
  FILE* out = sLogStream ? sLogStream : stderr;
  // Callers only pass 0..5; anything else is logged as INVALID rather than
  // reading past the table.
  if (level < 0 || level >= kLogLevelCount)
    level = KIWA_LOG_INVALID;
  // Every filter of a job shares cupsd's status pipe, so the whole line goes
  // out in one write or it may be spliced into another filter's line. Lines
  // are built on the stack, so logging still works when memory has run out.
  char stackLine[1024];
  const size_t wordLength = strlen(kLogLevelWords[level]);
  memcpy(stackLine, kLogLevelWords[level], wordLength);
  va_list args;
  va_start(args, format);
  va_list again;
  va_copy(again, args);
  const int length =
      vsnprintf(stackLine + wordLength, sizeof(stackLine) - wordLength, format, args);
  va_end(args);
  const size_t total = wordLength + (length > 0 ? static_cast<size_t>(length) : 0) + 1;
  std::unique_ptr<char, KiwaFree> heapLine;
  char* line = stackLine;
  if (total > sizeof(stackLine)) {
    heapLine.reset(static_cast<char*>(malloc(total)));
    if (heapLine) {
      line = heapLine.get();
      memcpy(line, kLogLevelWords[level], wordLength);
      vsnprintf(line + wordLength, total - wordLength, format, again);
    }
  }
  va_end(again);
  const size_t used = line == stackLine && total > sizeof(stackLine) ? sizeof(stackLine) : total;
  if (tLogHandler != nullptr) {
    line[used - 1] = '\0';
    tLogHandler(tLogContext, level, line);
    return;
  }
  line[used - 1] = '\n';
  fwrite(line, used, 1, out);
  fflush(out);
}

const char* kiwaHalftoneTypeToStr(DitherType type) {
  const unsigned value = static_cast<unsigned>(type);
  return value < kHalftoneTypeCount ? sHalftoneTypeStrTable[value] : sHalftoneTypeStrTable[0];
}

DitherType kiwaHalftoneTypeFromStr(const char* name) {
  if (name == nullptr)
    return DITHER_NONE;
  for (int i = 0; i < kHalftoneTypeCount; ++i) {
    if (strcmp(name, sHalftoneTypeStrTable[i]) == 0)
      return static_cast<DitherType>(i);
  }
  return DITHER_NONE;
}

const char* kiwaPathGetBasename(const char* path) {
  if (path == nullptr)
    return nullptr;
  const char* slash = strrchr(path, '/');
  const char* backslash = strrchr(path, '\\');
  const char* last = slash;
  if (backslash != nullptr && (last == nullptr || backslash > last))
    last = backslash;
  return last != nullptr ? last + 1 : path;
}

char* kiwaStrCpy(char* dst, const char* src, size_t len) {
  strncpy(dst, src ? src : "", len);
  dst[len - 1] = '\0';
  return dst;
}

FILE* kiwaOpenForWriting(const char* path) {
  // Non-blocking, so that a FIFO planted under the name cannot hang the job.
  const int fd = open(path, O_RDWR | O_CREAT | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC, 0666);
  if (fd < 0)
    return nullptr;
  struct stat st;
  const bool ours =
      fstat(fd, &st) == 0 && S_ISREG(st.st_mode) && st.st_nlink == 1 && st.st_uid == geteuid();
  FILE* f = nullptr;
  if (!ours) {
    errno = EPERM;
  } else if (ftruncate(fd, 0) == 0 && fcntl(fd, F_SETFL, 0) == 0) {
    f = fdopen(fd, "w+");
  }
  if (f == nullptr) {
    const int error = errno;
    close(fd);
    errno = error;
  }
  return f;
}

FILE* kiwaOpenForReading(const char* path) {
  const int fd = open(path, O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC);
  FILE* f = fd < 0 ? nullptr : fdopen(fd, "r");
  if (f == nullptr && fd >= 0)
    close(fd);
  return f;
}

namespace {
thread_local KiwaPixelPath tPixelPath = KiwaPixelPath::Fast;
}  // namespace

void kiwaSetPixelPath(KiwaPixelPath path) {
  tPixelPath = path;
}

KiwaPixelPath kiwaPixelPath() {
  return tPixelPath;
}

bool kiwaFastPixels() {
  return tPixelPath != KiwaPixelPath::Reference;
}

bool kiwaWideVectors() {
#if defined(__x86_64__) || defined(__i386__)
  static const bool avx2 = __builtin_cpu_supports("avx2");
  return tPixelPath == KiwaPixelPath::Fast && avx2;
#else
  return false;
#endif
}

void KiwaFree::operator()(void* p) const {
  free(p);
}

long long kiwaTruncate(double v) {
  if (!(v > -9.2e18 && v < 9.2e18))
    return 0;
  return static_cast<long long>(v);
}
