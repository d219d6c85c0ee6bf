// Logging in the CUPS filter convention, the halftone method names and small
// path and string helpers shared by every part of the filter.
#ifndef OSTRA_COMMON_KIWA_COMMON_H
#define OSTRA_COMMON_KIWA_COMMON_H

#include <cstddef>
#include <cstdio>

// Halftone method chosen by the PPD option "HalftoneType". The value is handed
// unchanged to the image library as its dithering method number, whose own
// numbering runs one place behind these names; 8 and 9 select the stencil chain.
enum DitherType : int {
  DITHER_NONE = 0,
  DITHER_FLOYD_STEINBERG = 1,
  DITHER_ORDERED = 2,
  DITHER_BURKES = 3,
  DITHER_STUCKI = 4,
  DITHER_JARVIS_JUDICE_NINKE = 5,
  DITHER_SIERRA = 6,
  DITHER_STEVENSON_ARCE = 7,
  DITHER_TATTOO = 8,
  DITHER_TATTOO_Q7 = 9,
};

constexpr int kHalftoneTypeCount = 10;
extern const char* const sHalftoneTypeStrTable[kHalftoneTypeCount];

// Log levels of kiwaLogCommon; the level indexes the prefix table directly.
enum KiwaLogLevel : int {
  KIWA_LOG_DEBUG = 0,
  KIWA_LOG_DEBUG2 = 1,
  KIWA_LOG_WARN = 2,
  KIWA_LOG_ERROR = 3,
  KIWA_LOG_CRIT = 4,
  KIWA_LOG_INVALID = 5,
};

// Writes the level word, the formatted message and "\n" to the log stream
// (standard error unless redirected) in one write. There is no level filter.
void kiwaLogCommon(int level, const char* format, ...) __attribute__((format(printf, 2, 3)));

// Redirects the log to another stream (null restores standard error). Lets a
// second front end or a test collect the lines without touching fd 2.
void kiwaLogSetStream(FILE* stream);
// Hands this thread's lines (level word and message, no newline) to `handler`
// instead; null goes back to the stream. A front end that runs each job on its
// own thread sends each job's lines to that job's log.
using KiwaLogHandler = void (*)(void* context, int level, const char* line);
void kiwaLogSetHandler(KiwaLogHandler handler, void* context);

const char* kiwaHalftoneTypeToStr(DitherType type);
DitherType kiwaHalftoneTypeFromStr(const char* name);

// Part of `path` after its last '/' or '\\', the whole path without either,
// null for a null path.
const char* kiwaPathGetBasename(const char* path);

// strncpy that always terminates: at most len - 1 characters survive and the
// rest of the len bytes is zero. A null src copies as the empty string.
char* kiwaStrCpy(char* dst, const char* src, size_t len);

// Opens `path` to be written from its start, as fopen's "w+" does, unless it is
// a symbolic link or an existing file that is not a regular file of this user
// with a single name: a fixed name in a shared directory must not let another
// user redirect what is written. Null with errno set when refused.
FILE* kiwaOpenForWriting(const char* path);
// Opens `path` for reading unless it is a symbolic link.
FILE* kiwaOpenForReading(const char* path);

// Releases memory from malloc, calloc or realloc; for std::unique_ptr.
struct KiwaFree {
  void operator()(void* p) const;
};

// Which code runs the pixel loops of the page: the row loops over raw
// pointers with the widest vectors the processor has (the default), the same
// loops with only the instructions every x86-64 has, or the straightforward
// per-pixel code both must match byte for byte. Set per thread, so printers on
// other threads are not affected.
enum class KiwaPixelPath { Fast, Baseline, Reference };
void kiwaSetPixelPath(KiwaPixelPath path);
KiwaPixelPath kiwaPixelPath();
// The row loops run (Fast or Baseline).
bool kiwaFastPixels();
// The row loops may use AVX2: Fast on a processor that has it.
bool kiwaWideVectors();

// Truncation toward zero that cannot trap: NaN, infinities and values no
// 64-bit integer holds give 0.
long long kiwaTruncate(double v);

#endif  // OSTRA_COMMON_KIWA_COMMON_H
