// One whole filter job per input, in process: the first three bytes pick the
// PPD, the queue name and the options (past the table, the text up to the first
// newline), the rest is the raster. Its files go to a directory emptied per run.
#include <cups/raster.h>

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>

#include "common/kiwa_common.h"
#include "filter/filter_job.h"

namespace fs = std::filesystem;

namespace {

const char* const kPpds[] = {OSTRA_SOURCE_DIR "/ppd/ostra.ppd",
                             OSTRA_FUZZ_DIR "/ppd/zero-max-width.ppd",
                             OSTRA_FUZZ_DIR "/ppd/no-defaults.ppd",
                             OSTRA_FUZZ_DIR "/ppd/odd-numbers.ppd", "/nonexistent.ppd"};
const std::string kLongName(300, 'q');
const char* const kPrinters[] = {"ostra",           "x/y", "../../tmp/escaped",
                                 kLongName.c_str(), "",    nullptr};
const char* const kOptions[] = {
    "",
    "PageSize=w144h72 Resolution=300dpi",
    "PageSize=w142h85 Resolution=300dpi HalftoneType=FloydSteinberg Brightness=-75",
    "HalftoneType=Tattoo MirrorImage=True NegativeImage=True",
    "HalftoneType=Tattoo_Q7 Brightness=100 Darkness=Light",
    "HalftoneType=Ordered VBarcodeDensity=1 Darkness=Dark PaperType=Continue",
    "HalftoneType=StevensonArce VBarcodeDensity=2 PrintSpeed=6 Origin=Bottom",
    "PageSize=Letter HalftoneType=Stucki GapsHeight=0"};

struct Sandbox {
  std::string root, work, input, geometryLog;
  FilterPaths paths;
  Sandbox() {
    // TMPDIR on tmpfs (/dev/shm) makes the many small files cheap.
    root = std::string(getenv("TMPDIR") ? getenv("TMPDIR") : "/tmp") + "/ostra-fuzz-XXXXXX";
    if (mkdtemp(root.data()) == nullptr || freopen("/dev/null", "w", stdout) == nullptr)
      abort();
    work = root + "/w", input = root + "/in.ras", geometryLog = root + "/geometry.log";
    paths.pageGeometryLog = geometryLog.c_str();
    // A queue name climbing two levels out of the spool lands in work/tmp.
    paths.printer.spoolDir = work + "/tmp/spool";
    paths.printer.imageDir = work + "/tmp/img";
    kiwaLogSetStream(fopen("/dev/null", "w"));
  }
  ~Sandbox() { fs::remove_all(root); }
};

#ifndef OSTRA_FUZZ_REPLAY
// libcups allocates cupsBytesPerLine bytes for a page before the filter sees
// its header, and the sanitizers' bookkeeping of a big block costs far more
// than the job. Past 600 MB the allocation fails (scripts/fuzz.sh); a first
// header asking for rows over 1 MB, far past the filter's limit, is passed
// over too. The replay still runs such streams.
bool firstRowIsHuge(const uint8_t* stream, size_t size) {
  const size_t at = 4 + offsetof(cups_page_header2_t, cupsBytesPerLine);
  uint32_t sync, bytes;
  if (size < at + sizeof bytes)
    return false;
  memcpy(&sync, stream, sizeof sync);
  memcpy(&bytes, stream + at, sizeof bytes);
  if (sync == CUPS_RASTER_REVSYNC || sync == CUPS_RASTER_REVSYNCv1 || sync == CUPS_RASTER_REVSYNCv2)
    bytes = __builtin_bswap32(bytes);
  else if (sync != CUPS_RASTER_SYNC && sync != CUPS_RASTER_SYNCv1 && sync != CUPS_RASTER_SYNCv2)
    return false;
  return bytes > (1u << 20);
}
#endif

// Runs the job and returns its status; the replay also counts its records.
int runJob(const uint8_t* data, size_t size, int* records = nullptr) {
  static Sandbox box;
  size_t start = 3;
  std::string options;
  if (data[2] < std::size(kOptions)) {
    options = kOptions[data[2]];
  } else {
    const void* nl = memchr(data + 3, '\n', size - 3);
    start = nl ? static_cast<const uint8_t*>(nl) - data + 1 : size;
    options.assign(reinterpret_cast<const char*>(data + 3), start - 3 - (nl ? 1 : 0));
  }
  std::ofstream(box.input, std::ios::binary)
      .write(reinterpret_cast<const char*>(data + start),
             static_cast<std::streamsize>(size - start));
  setenv("PPD", kPpds[data[0] % std::size(kPpds)], 1);
  const char* printer = kPrinters[data[1] % std::size(kPrinters)];
  printer ? setenv("PRINTER", printer, 1) : unsetenv("PRINTER");
  fs::create_directories(box.paths.printer.imageDir);
  std::string args[] = {"rastertoostra", "7", "user", "title", "1", options, box.input};
  char* argv[] = {args[0].data(), args[1].data(), args[2].data(), args[3].data(),
                  args[4].data(), args[5].data(), args[6].data()};
  const int status = runFilterJob(7, argv, box.paths);
  std::error_code ignored;
  for (const auto& entry : records ? fs::directory_iterator(box.paths.printer.spoolDir, ignored)
                                   : fs::directory_iterator())
    *records += entry.path().filename().string().rfind("page_", 0) == 0;
  fs::remove_all(box.work);
  return status;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size < 3)
    return 0;
#ifndef OSTRA_FUZZ_REPLAY
  if (firstRowIsHuge(data + 3, size - 3))
    return -1;
#endif
  // A finished job says 0 or 1, whatever it was fed.
  if (runJob(data, size) > 1)
    abort();
  return 0;
}

#ifdef OSTRA_FUZZ_REPLAY
// Feeds every file of the directories given to the target once; a single file
// is cut short, and flipped a byte at a time, all along its length. Every job
// must end with status 0 or 1, a crasher as its name says: <defect>.refused.ras
// with status 1 and no page record, <defect>.printed.ras with 0 and a record.
int main(int argc, char* argv[]) {
  int inputs = 0, wrong = 0;
  const auto run = [&](const std::string& bytes, const std::string& name) {
    ++inputs;
    if (bytes.size() < 3)
      return;
    int records = 0;
    const int status =
        runJob(reinterpret_cast<const uint8_t*>(bytes.data()), bytes.size(), &records);
    const bool ok = name.find(".refused.") != std::string::npos   ? status == 1 && records == 0
                    : name.find(".printed.") != std::string::npos ? status == 0 && records > 0
                                                                  : status <= 1;
    if (!ok)
      wrong +=
          fprintf(stderr, "%s: status %d, %d page records\n", name.c_str(), status, records) > 0;
  };
  const auto read = [](const fs::path& path) {
    std::ifstream in(path, std::ios::binary);
    return std::string{std::istreambuf_iterator<char>(in), {}};
  };
  for (int i = 1; i < argc; ++i) {
    const fs::path arg = argv[i];
    if (fs::is_directory(arg)) {
      for (const auto& entry : fs::directory_iterator(arg))
        run(read(entry.path()), entry.path().filename());
      continue;
    }
    const std::string bytes = read(arg);
    for (size_t at = 3; at < bytes.size(); at += 41) {
      std::string flipped = bytes;
      flipped[at] = static_cast<char>(~flipped[at]);
      run(bytes.substr(0, at), arg.filename().string() + " cut at " + std::to_string(at));
      run(flipped, arg.filename().string() + " flipped at " + std::to_string(at));
    }
  }
  return inputs > 0 && wrong == 0 ? 0 : 1;
}
#endif
