// ostra-preview: draws the filter's page records as PNG pictures of the dots
// the printer would print and sums each one up in a line.
#include <png.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <new>
#include <string>
#include <vector>

#include "tools/page_record.h"

namespace {

const char kUsage[] =
    "usage: ostra-preview [--dpi N] [-o OUTDIR] FILE...\n"
    "Writes the dots of each page record FILE as an 8-bit grayscale PNG named like\n"
    "FILE with \".png\" for \".dat\", beside FILE or into OUTDIR, and prints one\n"
    "summary line per file. N (default 203) converts dots to millimetres.\n";

int usageError(const char* message, const char* arg) {
  fprintf(stderr, "ostra-preview: %s%s\n%s", message, arg, kUsage);
  return 2;
}

bool readFile(const char* path, std::vector<uint8_t>* data, std::string* error) {
  FILE* in = fopen(path, "rb");
  if (in == nullptr) {
    *error = strerror(errno);
    return false;
  }
  bool ok = true;
  try {
    struct stat info;
    if (fstat(fileno(in), &info) == 0 && S_ISREG(info.st_mode))
      data->reserve(info.st_size);
    uint8_t chunk[65536];
    size_t n;
    while ((n = fread(chunk, 1, sizeof chunk, in)) > 0)
      data->insert(data->end(), chunk, chunk + n);
    if (ferror(in)) {
      *error = std::string("cannot read: ") + strerror(errno);
      ok = false;
    }
  } catch (const std::bad_alloc&) {
    *error = "file does not fit in memory";
    ok = false;
  }
  fclose(in);
  return ok;
}

std::string pngPathFor(const std::string& input, const std::string& outDir) {
  namespace fs = std::filesystem;
  const fs::path in(input);
  std::string name = in.filename().string();
  if (name.size() > 4 && name.compare(name.size() - 4, 4, ".dat") == 0)
    name.resize(name.size() - 4);
  name += ".png";
  return ((outDir.empty() ? in.parent_path() : fs::path(outDir)) / name).string();
}

// Writes under a temporary name in the same directory and renames, so a failed
// write never leaves a half picture under the final name.
bool writePng(const std::string& path, PageRecord* rec, std::string* error) {
  if (rec->width == 0) {
    *error = "rows of stride 2 hold no pixels: nothing to draw";
    return false;
  }
  for (uint8_t& dot : rec->dots)
    dot = dot ? 0 : 255;

  std::string tmp = path + ".XXXXXX";
  const int fd = mkstemp(&tmp[0]);
  if (fd < 0) {
    *error = "cannot create " + tmp + ": " + strerror(errno);
    return false;
  }
  // mkstemp makes the file private; give it the permissions a plain create would.
  const mode_t mask = umask(0);
  umask(mask);
  fchmod(fd, 0666 & ~mask);
  FILE* out = fdopen(fd, "wb");
  if (out == nullptr) {
    *error = std::string("cannot write ") + tmp + ": " + strerror(errno);
    close(fd);
    unlink(tmp.c_str());
    return false;
  }

  png_image image;
  memset(&image, 0, sizeof image);
  image.version = PNG_IMAGE_VERSION;
  image.width = static_cast<png_uint_32>(rec->width);
  image.height = rec->rows;
  image.format = PNG_FORMAT_GRAY;
  bool ok = png_image_write_to_stdio(&image, out, 0, rec->dots.data(),
                                     static_cast<png_int_32>(rec->width), nullptr) != 0;
  if (!ok)
    *error = std::string("cannot write ") + tmp + ": " + image.message;
  png_image_free(&image);
  // Errors of buffered writes (a full disk) surface only when flushing.
  if (fflush(out) != 0 || ferror(out)) {
    if (ok)
      *error = std::string("cannot write ") + tmp + ": " + strerror(errno);
    ok = false;
  }
  if (fclose(out) != 0 && ok) {
    *error = std::string("cannot write ") + tmp + ": " + strerror(errno);
    ok = false;
  }
  if (ok && rename(tmp.c_str(), path.c_str()) != 0) {
    *error = "cannot rename " + tmp + " to " + path + ": " + strerror(errno);
    ok = false;
  }
  if (!ok)
    unlink(tmp.c_str());
  return ok;
}

bool preview(const char* input, const std::string& outDir, long dpi) {
  std::vector<uint8_t> file;
  PageRecord rec;
  std::string error;
  const std::string pngPath = pngPathFor(input, outDir);
  if (!readFile(input, &file, &error) || !decodePageRecord(file, &rec, &error) ||
      !writePng(pngPath, &rec, &error)) {
    fprintf(stderr, "ostra-preview: %s: %s\n", input, error.c_str());
    return false;
  }
  const auto mm = [dpi](unsigned dots) { return dots / static_cast<double>(dpi) * 25.4; };
  printf(
      "%s: page %u, %s, label %u x %u dots (%.1f x %.1f mm), gap %u dots (%.1f mm), "
      "raster %u bytes x %u rows, %llu black dots -> %s\n",
      input, rec.pageNumber, mediaName(rec.media).c_str(), rec.labelWidth, rec.labelHeight,
      mm(rec.labelWidth), mm(rec.labelHeight), rec.gapHeight, mm(rec.gapHeight), rec.stride,
      rec.rows, static_cast<unsigned long long>(rec.blackDots), pngPath.c_str());
  // Keeps the summaries in step with the error lines when both go to one terminal.
  fflush(stdout);
  return true;
}

}  // namespace

int main(int argc, char** argv) {
  long dpi = 203;
  std::string outDir;
  std::vector<const char*> inputs;
  bool optionsDone = false;
  for (int i = 1; i < argc; ++i) {
    const std::string arg = argv[i];
    if (optionsDone || arg == "-" || arg.empty() || arg[0] != '-') {
      inputs.push_back(argv[i]);
    } else if (arg == "--") {
      optionsDone = true;
    } else if (arg == "-h" || arg == "--help") {
      fputs(kUsage, stdout);
      return 0;
    } else if (arg == "--dpi" || arg == "-o") {
      if (i + 1 == argc)
        return usageError("missing value after ", argv[i]);
      const char* value = argv[++i];
      if (arg == "-o") {
        if (*value == '\0')
          return usageError("empty output directory", "");
        outDir = value;
        continue;
      }
      char* end = nullptr;
      errno = 0;
      dpi = strtol(value, &end, 10);
      if (errno != 0 || end == value || *end != '\0' || dpi < 1 || dpi > 100000)
        return usageError("--dpi needs a whole number from 1 to 100000, not ", value);
    } else {
      return usageError("unknown option ", argv[i]);
    }
  }
  if (inputs.empty())
    return usageError("no page record given", "");

  bool allOk = true;
  for (const char* input : inputs)
    allOk = preview(input, outDir, dpi) && allOk;
  if (fflush(stdout) != 0 || ferror(stdout)) {
    fprintf(stderr, "ostra-preview: cannot write the summary: %s\n", strerror(errno));
    return 1;
  }
  return allOk ? 0 : 1;
}
