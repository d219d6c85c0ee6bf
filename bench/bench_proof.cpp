// Time of the printer application's proof page on an A4 page at 300 dpi: one
// proof with its picture (what the page shows after an upload) and the sheet
// of all ten halftones (each proofed at full resolution, then shrunk).
//   OSTRA_PROOF_IMAGE=photo.png build/ostra_proof_bench
#include <benchmark/benchmark.h>
#include <pappl/pappl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <string>
#include <vector>

#include "app/app_proof.h"
#include "app/ostra_app.h"

namespace {

struct Proofs {
  std::string dir, image;
  AppConfig config;
  pappl_system_t* system = nullptr;
  pappl_printer_t* printer = nullptr;
};

// A system with one 300 dpi printer, never run: proofs need only the printer.
Proofs* make() {
  static Proofs p;
  const char* image = getenv("OSTRA_PROOF_IMAGE");
  if (image == nullptr) {
    fprintf(stderr, "ostra_proof_bench: set OSTRA_PROOF_IMAGE to a PNG or JPEG image\n");
    exit(2);
  }
  p.image = image;
  char dir[] = "/dev/shm/ostra-proof-XXXXXX";
  p.dir = mkdtemp(dir) != nullptr ? dir : "/tmp";
  mkdir((p.dir + "/dev").c_str(), 0755);
  cups_option_t* options = nullptr;
  const int n =
      cupsParseOptions(("private-server=yes log-level=error spool-directory=" + p.dir +
                        "/spool page-directory=" + p.dir + "/pages state-file=" + p.dir +
                        "/state log-file=" + p.dir + "/log file-device-directory=" + p.dir)
                           .c_str(),
                       0, &options);
  p.system = appCreateSystem(n, options, &p.config);
  cupsFreeOptions(n, options);
  if (p.system != nullptr)
    p.printer = papplPrinterCreate(p.system, 0, "bench", "ostra_300", "MFG:Kiwa;MDL:Ostra;",
                                   ("file://" + p.dir + "/dev").c_str());
  if (p.printer == nullptr) {
    fprintf(stderr, "ostra_proof_bench: no printer\n");
    exit(2);
  }
  return &p;
}

Proofs* setUp() {
  static Proofs* made = make();
  return made;
}

bool proofPicture(const Proofs& p, const std::string& halftone, int shrink) {
  ipp_t* attrs = ippNew();
  ippAddString(attrs, IPP_TAG_JOB, IPP_TAG_KEYWORD, "media", nullptr, "iso_a4_210x297mm");
  ippAddString(attrs, IPP_TAG_JOB, IPP_TAG_KEYWORD, "halftone-type", nullptr, halftone.c_str());
  const AppProof proof = appProofDocument(p.printer, p.image, attrs, p.dir + "/pages");
  ippDelete(attrs);
  std::vector<unsigned char> png;
  std::string error;
  PageRecord page;
  return !proof.records.empty() && decodePageRecord(proof.records[0].bytes, &page, &error) &&
         appRecordPng(page, &png, &error, shrink);
}

void proof(benchmark::State& state) {
  const Proofs& p = *setUp();
  for (auto _ : state) {
    if (!proofPicture(p, "tattoo", 1))
      state.SkipWithError("no proof");
  }
}

void sheet(benchmark::State& state) {
  const Proofs& p = *setUp();
  for (auto _ : state) {
    for (const std::string& halftone : appVendorOptions()[0].values) {
      if (!proofPicture(p, halftone, 6))
        state.SkipWithError("no proof");
    }
  }
}

BENCHMARK(proof)->Name("proof/A4-300dpi-tattoo")->Unit(benchmark::kMillisecond);
BENCHMARK(sheet)->Name("sheet/A4-300dpi-ten")->Unit(benchmark::kMillisecond);

}  // namespace

int main(int argc, char** argv) {
  benchmark::Initialize(&argc, argv);
  benchmark::RunSpecifiedBenchmarks();
  benchmark::Shutdown();
  // Its files are gone with it; the system is left to the exit.
  std::filesystem::remove_all(setUp()->dir);
  return 0;
}
