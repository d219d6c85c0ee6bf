#include "app/app_proof.h"

#include <png.h>
#include <pthread.h>
#include <sys/random.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <deque>
#include <fstream>
#include <functional>
#include <iterator>
#include <map>
#include <memory>
#include <mutex>
#include <set>
#include <thread>
#include <utility>

#include "app/app_image.h"
#include "app/ostra_app.h"

// PAPPL 1.3.1's job object, field for field (job-private.h): a proof is a job
// that no printer lists, so that PAPPL's own image layout and the driver's
// callbacks run on it as on a print. appProofDocument checks the layout
// through PAPPL's accessors before each use.
struct AppProofJob {
  pthread_rwlock_t rwlock;
  pappl_system_t* system;
  pappl_printer_t* printer;
  int job_id;
  const char *name, *username, *format;
  ipp_jstate_t state;
  pappl_jreason_t state_reasons;
  bool is_canceled;
  char* message;
  pappl_loglevel_t msglevel;
  time_t created, processing, completed, hold_until;
  int impressions, impcompleted;
  ipp_t* attrs;
  char* filename;
  int fd;
  bool streaming;
  void* data;
};

struct AppProofRun {
  AppProofJob job{};
  PrinterState state;
  MemoryRecordSink records;
  explicit AppProofRun(uint16_t counter) : records(counter) {}
};

namespace {

// Proofs at work by their job, and the proof threads holding each printer:
// deleting a printer cancels its proofs and waits for its holders to let go.
std::mutex gRunsLock;
std::condition_variable gHoldsEnded;
std::map<const void*, AppProofRun*> gRuns;
std::map<const pappl_printer_t*, int> gHolds;
std::set<const pappl_printer_t*> gEnding;

}  // namespace

const char* appProofFormat(const std::string& file) {
  unsigned char magic[8] = {0};
  FILE* in = fopen(file.c_str(), "rb");
  const size_t n = in != nullptr ? fread(magic, 1, sizeof magic, in) : 0;
  if (in != nullptr)
    fclose(in);
  static const unsigned char kPng[8] = {0x89, 'P', 'N', 'G', '\r', '\n', 0x1A, '\n'};
  if (n == sizeof magic && memcmp(magic, kPng, sizeof kPng) == 0)
    return "image/png";
  if (n >= 3 && magic[0] == 0xFF && magic[1] == 0xD8 && magic[2] == 0xFF)
    return "image/jpeg";
  return nullptr;
}

namespace {

// Why the image filter refused the document, as the job's reasons say.
std::string refusal(const AppProofJob& job) {
  if (job.state_reasons & PAPPL_JREASON_DOCUMENT_UNPRINTABLE_ERROR)
    return "the image is larger than the printer can print, or its pixels are not square";
  if (job.state_reasons & PAPPL_JREASON_DOCUMENT_FORMAT_ERROR)
    return "the image is damaged or not a PNG or JPEG image";
  return "the printer could not make the page; the server's log says why";
}

}  // namespace

AppProofRun* appProofRun(pappl_job_t* job) {
  std::lock_guard<std::mutex> hold(gRunsLock);
  const auto found = gRuns.find(job);
  return found != gRuns.end() ? found->second : nullptr;
}

PrinterState& appProofState(AppProofRun* run) {
  return run->state;
}

RecordSink& appProofRecords(AppProofRun* run) {
  return run->records;
}

AppProof appProofDocument(pappl_printer_t* printer, const std::string& file, ipp_t* attrs,
                          const std::string& pageDirectory) {
  AppProof proof;
  const char* format = appProofFormat(file);
  if (format == nullptr) {
    proof.error = "only PNG and JPEG images can be proofed";
    return proof;
  }
  // The records carry the numbers the next print would take.
  uint16_t counter = 1;
  FileRecordSink(pageDirectory, papplPrinterGetName(printer)).loadCounter(&counter);

  AppProofRun run(counter);
  AppProofJob& job = run.job;
  pthread_rwlock_init(&job.rwlock, nullptr);
  job.system = papplPrinterGetSystem(printer);
  job.printer = printer;
  job.name = "proof";
  job.username = "proof";
  job.format = format;
  job.state = IPP_JSTATE_PROCESSING;
  job.created = job.processing = time(nullptr);
  job.attrs = attrs;
  job.filename = const_cast<char*>(file.c_str());
  job.fd = -1;
  auto* handle = reinterpret_cast<pappl_job_t*>(&job);
  // The layout is PAPPL 1.3.1's as long as its accessors read back what was set.
  if (papplJobGetPrinter(handle) != printer || papplJobGetFormat(handle) != format ||
      papplJobGetFilename(handle) != file.c_str() ||
      papplJobGetState(handle) != IPP_JSTATE_PROCESSING || papplJobGetData(handle) != nullptr) {
    pthread_rwlock_destroy(&job.rwlock);
    proof.error = "proofs need PAPPL 1.3.1, which this server is not running with";
    return proof;
  }
  {
    std::lock_guard<std::mutex> hold(gRunsLock);
    if (gEnding.count(printer) != 0) {
      pthread_rwlock_destroy(&job.rwlock);
      proof.error = "the printer is being deleted";
      return proof;
    }
    gRuns[handle] = &run;
  }
  const bool made = strcmp(format, "image/png") == 0 ? appFilterPng(handle, nullptr, nullptr)
                                                     : appFilterJpeg(handle, nullptr, nullptr);
  {
    std::lock_guard<std::mutex> hold(gRunsLock);
    gRuns.erase(handle);
  }
  pthread_rwlock_destroy(&job.rwlock);
  if (made)
    proof.records = run.records.records();
  else
    proof.error = refusal(job);
  return proof;
}

bool appRecordPng(const PageRecord& page, std::vector<unsigned char>* png, std::string* error,
                  int shrink) {
  if (page.width == 0 || shrink < 1) {
    *error = "the record holds no pixels";
    return false;
  }
  const size_t width = (page.width + shrink - 1) / shrink;
  const size_t rows = (page.rows + shrink - 1) / shrink;
  std::vector<unsigned> black(width * rows, 0);
  for (size_t y = 0; y < page.rows; ++y) {
    for (size_t x = 0; x < page.width; ++x)
      black[y / shrink * width + x / shrink] += page.dots[y * page.width + x];
  }
  std::vector<uint8_t> gray(black.size());
  const unsigned cell = static_cast<unsigned>(shrink * shrink);
  for (size_t i = 0; i < gray.size(); ++i)
    gray[i] = static_cast<uint8_t>(255 - 255 * black[i] / cell);
  png_image image;
  memset(&image, 0, sizeof image);
  image.version = PNG_IMAGE_VERSION;
  image.width = static_cast<png_uint_32>(width);
  image.height = static_cast<png_uint_32>(rows);
  image.format = PNG_FORMAT_GRAY;
  // A page of dots compresses well enough fast; the best would double a proof's time.
  image.flags = PNG_IMAGE_FLAG_FAST;
  png_alloc_size_t size = 0;
  bool ok = png_image_write_to_memory(&image, nullptr, &size, 0, gray.data(),
                                      static_cast<png_int_32>(width), nullptr) != 0;
  if (ok) {
    png->resize(size);
    ok = png_image_write_to_memory(&image, png->data(), &size, 0, gray.data(),
                                   static_cast<png_int_32>(width), nullptr) != 0;
    png->resize(size);
  }
  if (!ok)
    *error = image.message;
  png_image_free(&image);
  return ok;
}

// PAPPL's own reading of name=value options into typed job attributes, and
// the two steps of papplJobCreateWithFile, exported though not declared.
extern "C" void _papplMainloopAddOptions(ipp_t* request, int numOptions, cups_option_t* options,
                                         ipp_t* supported);
extern "C" pappl_job_t* _papplJobCreate(pappl_printer_t* printer, int jobId, const char* username,
                                        const char* format, const char* jobName, ipp_t* attrs);
extern "C" void _papplJobSubmitFile(pappl_job_t* job, const char* filename);

namespace {

// The job attributes of name=value options, as PAPPL reads them for a print.
// papplJobCreateWithFile (PAPPL 1.3.1, no upstream fix as of 1.4.11) reads
// them into a list without an operation, so they become printer defaults and
// its job ignores them: here the list is a Print-Job's.
ipp_t* jobAttributes(pappl_printer_t* printer, int numOptions, cups_option_t* options) {
  ipp_t* attrs = ippNew();
  ippSetOperation(attrs, IPP_OP_PRINT_JOB);
  ipp_t* supported = papplPrinterGetDriverAttributes(printer);
  _papplMainloopAddOptions(attrs, numOptions, options, supported);
  ippDelete(supported);
  return attrs;
}

// Uploads kept for the page's later buttons (another proof, the ten
// halftones, Print): at most kKeptUploads and kKeptBytes in all (the newest is
// always kept), each for kKeepSeconds, in the system's spool directory, oldest
// dropped first.
constexpr size_t kKeptUploads = 16;
constexpr off_t kKeptBytes = off_t{256} << 20;
constexpr time_t kKeepSeconds = time_t{30} * 60;

struct KeptUpload {
  std::string token, path;
  int printerId;
  time_t at;
  off_t size;
};
std::mutex gUploadsLock;
std::deque<KeptUpload>& uploads() {
  static std::deque<KeptUpload> kept;
  return kept;
}

void dropOldUploads(time_t now) {
  off_t bytes = 0;
  for (const KeptUpload& u : uploads())
    bytes += u.size;
  while (!uploads().empty() &&
         (uploads().size() > kKeptUploads || uploads().front().at + kKeepSeconds < now ||
          (bytes > kKeptBytes && uploads().size() > 1))) {
    bytes -= uploads().front().size;
    unlink(uploads().front().path.c_str());
    uploads().pop_front();
  }
}

std::string randomToken() {
  unsigned char bytes[16];
  if (getrandom(bytes, sizeof bytes, 0) != static_cast<ssize_t>(sizeof bytes))
    return std::string();
  std::string token;
  for (unsigned char b : bytes) {
    static const char kHex[] = "0123456789abcdef";
    token += kHex[b >> 4];
    token += kHex[b & 15];
  }
  return token;
}

// Keeps PAPPL's temporary file of an upload under a token; empty if it could not.
std::string keepUpload(const std::string& temp, int printerId) {
  std::string token = randomToken();
  const std::string path = temp + "-" + token;
  if (token.empty() || rename(temp.c_str(), path.c_str()) != 0) {
    unlink(temp.c_str());
    return std::string();
  }
  struct stat info;
  const off_t size = stat(path.c_str(), &info) == 0 ? info.st_size : 0;
  std::lock_guard<std::mutex> hold(gUploadsLock);
  uploads().push_back({token, path, printerId, time(nullptr), size});
  dropOldUploads(time(nullptr));
  return token;
}

std::string keptUpload(const std::string& token, int printerId) {
  std::lock_guard<std::mutex> hold(gUploadsLock);
  dropOldUploads(time(nullptr));
  for (const KeptUpload& u : uploads()) {
    if (!token.empty() && u.token == token && u.printerId == printerId)
      return u.path;
  }
  return std::string();
}

// A copy of a kept upload that a job may take (PAPPL removes its job's file).
std::string jobCopy(const std::string& path) {
  std::string copy = path + "-XXXXXX";
  const int out = mkstemp(&copy[0]);
  FILE* in = fopen(path.c_str(), "rb");
  bool ok = out >= 0 && in != nullptr;
  char buffer[65536];
  for (size_t n; ok && (n = fread(buffer, 1, sizeof buffer, in)) > 0;)
    ok = write(out, buffer, n) == static_cast<ssize_t>(n);
  if (in != nullptr)
    fclose(in);
  if (out >= 0 && close(out) != 0)
    ok = false;
  if (!ok && out >= 0)
    unlink(copy.c_str());
  return ok ? copy : std::string();
}

struct ProofPage {
  int printerId;
  std::string pageDirectory;
};

// The options a job of this form carries, as name=value, each checked against
// what the printer offers; `halftone`, when given, in place of the form's.
int formOptions(int numForm, cups_option_t* form, const char* halftone, cups_option_t** options) {
  int n = 0;
  const char* media = cupsGetOption("media", numForm, form);
  if (media != nullptr && appMediaByPwg(media) != nullptr) {
    n = cupsAddOption("media", media, n, options);
  } else if (media != nullptr && strcmp(media, "custom") == 0) {
    const char* width = cupsGetOption("roll-width", numForm, form);
    const char* length = cupsGetOption("roll-length", numForm, form);
    const std::string name =
        appCustomRoll(width != nullptr ? atoi(width) : 0, length != nullptr ? atoi(length) : 0);
    if (!name.empty())
      n = cupsAddOption("media", name.c_str(), n, options);
  }
  const char* darkness = cupsGetOption("print-darkness", numForm, form);
  if (darkness != nullptr) {
    const int level = std::max(-100, std::min(100, atoi(darkness)));
    n = cupsAddOption("print-darkness", std::to_string(level).c_str(), n, options);
  }
  for (const AppVendorOption& o : appVendorOptions()) {
    const char* value = cupsGetOption(o.ipp, numForm, form);
    if (halftone != nullptr && strcmp(o.ipp, "halftone-type") == 0)
      value = halftone;
    if (o.isBoolean)
      value = value != nullptr && strcmp(value, "true") == 0 ? "true" : "false";
    if (value != nullptr && std::find(o.values.begin(), o.values.end(), value) != o.values.end())
      n = cupsAddOption(o.ipp, value, n, options);
  }
  return n;
}

// The first page's record of a proof with these options, or why there is none.
bool proofRecord(pappl_printer_t* printer, const ProofPage& page, const std::string& file,
                 int numOptions, cups_option_t* options, std::vector<unsigned char>* record,
                 std::string* why) {
  ipp_t* attrs = jobAttributes(printer, numOptions, options);
  const AppProof proof = appProofDocument(printer, file, attrs, page.pageDirectory);
  ippDelete(attrs);
  if (proof.records.empty()) {
    *why = proof.error.empty() ? "the page is empty" : proof.error;
    return false;
  }
  *record = proof.records[0].bytes;
  return true;
}

std::string base64(const std::vector<unsigned char>& data) {
  std::vector<char> text(4 * (data.size() + 2) / 3 + 4);
  httpEncode64_2(text.data(), static_cast<int>(text.size()),
                 reinterpret_cast<const char*>(data.data()), static_cast<int>(data.size()));
  return text.data();
}

std::string escaped(const std::string& text) {
  std::string out;
  for (char c : text) {
    if (c == '<')
      out += "&lt;";
    else if (c == '>')
      out += "&gt;";
    else if (c == '&')
      out += "&amp;";
    else if (c == '"')
      out += "&quot;";
    else
      out += c;
  }
  return out;
}

// The form: the image (or the one kept), the options as chosen, the buttons.
std::string formHtml(int numForm, cups_option_t* form, const std::string& token) {
  const auto chosen = [&](const char* name, const std::string& fallback) {
    const char* value = cupsGetOption(name, numForm, form);
    return value != nullptr ? std::string(value) : fallback;
  };
  std::string html =
      "<table class=\"form\"><tr><th>Image:</th><td><input type=\"file\" "
      "name=\"document\" accept=\"image/png,image/jpeg\"";
  html += token.empty() ? " required>" : "> (or the one proofed below)";
  html += " <span id=\"upload-note\"></span><input type=\"hidden\" name=\"upload\" value=\"" +
          escaped(token) + "\"></td></tr>\n<tr><th>Media:</th><td><select name=\"media\">";
  const std::string media = chosen("media", kAppMedia[0].pwg);
  for (size_t i = 0; i < kAppMediaCount; ++i) {
    // The size from the self-describing name ("2x1in"), then the PPD's.
    const std::string pwg = kAppMedia[i].pwg;
    html += "<option value=\"" + pwg + "\"" + (media == pwg ? " selected" : "") + ">" +
            pwg.substr(pwg.rfind('_') + 1) + " (" + kAppMedia[i].ppd + ")</option>";
  }
  html += std::string("<option value=\"custom\"") + (media == "custom" ? " selected" : "") +
          ">Custom roll, in mm:</option></select> <input type=\"number\" name=\"roll-width\" "
          "min=\"" +
          std::to_string(kRollMinMm) + "\" max=\"" + std::to_string(kRollWidthMaxMm) +
          "\" value=\"" + escaped(chosen("roll-width", "50")) +
          "\" style=\"width:5em\"> x <input type=\"number\" name=\"roll-length\" min=\"" +
          std::to_string(kRollMinMm) + "\" max=\"" + std::to_string(kRollLengthMaxMm) +
          "\" value=\"" + escaped(chosen("roll-length", "30")) +
          "\" style=\"width:5em\"></td></tr>\n";
  for (const AppVendorOption& o : appVendorOptions()) {
    const std::string value = chosen(o.ipp, numForm > 0 && o.isBoolean ? "false" : o.defaultValue);
    html += "<tr><th>" + appLabel(o.ipp) + ":</th><td>";
    if (o.isBoolean) {
      html += std::string("<input type=\"checkbox\" name=\"") + o.ipp + "\" value=\"true\"" +
              (value == "true" ? " checked" : "") + ">";
    } else {
      html += std::string("<select name=\"") + o.ipp + "\">";
      for (const std::string& v : o.values) {
        html += "<option value=\"" + v + "\"" + (v == value ? " selected" : "") + ">" +
                escaped(o.isInteger ? v : appLabel(std::string(o.ipp) + "." + v)) + "</option>";
      }
      html += "</select>";
    }
    html += "</td></tr>\n";
  }
  html +=
      "<tr><th>Darkness:</th><td><input type=\"number\" name=\"print-darkness\" "
      "min=\"-100\" max=\"100\" value=\"" +
      escaped(chosen("print-darkness", "0")) +
      "\"></td></tr>\n<tr><th></th><td>"
      "<button type=\"submit\" name=\"action\" value=\"proof\">Proof</button> "
      "<button type=\"submit\" name=\"action\" value=\"sheet\">All ten halftones</button> "
      "<button type=\"submit\" name=\"action\" value=\"print\">Print</button> "
      "<button type=\"submit\" name=\"action\" value=\"defaults\">Save as default</button>"
      "</td></tr></table></form>\n";
  return html;
}

// Makes the form's options the printer's defaults, as its Printing Defaults
// page would.
bool saveDefaults(pappl_printer_t* printer, int numOptions, cups_option_t* options) {
  pappl_pr_driver_data_t data;
  papplPrinterGetDriverData(printer, &data);
  if (const char* media = cupsGetOption("media", numOptions, options)) {
    if (pwg_media_t* pwg = pwgMediaForPWG(media)) {
      papplCopyString(data.media_default.size_name, pwg->pwg, sizeof(data.media_default.size_name));
      data.media_default.size_width = pwg->width;
      data.media_default.size_length = pwg->length;
    }
  }
  if (const char* darkness = cupsGetOption("print-darkness", numOptions, options))
    data.darkness_default = atoi(darkness);
  cups_option_t* vendor = nullptr;
  int numVendor = 0;
  for (int i = 0; i < numOptions; ++i) {
    if (strcmp(options[i].name, "media") != 0 && strcmp(options[i].name, "print-darkness") != 0)
      numVendor = cupsAddOption(options[i].name, options[i].value, numVendor, &vendor);
  }
  const bool saved = papplPrinterSetDriverDefaults(printer, &data, numVendor, vendor);
  cupsFreeOptions(numVendor, vendor);
  return saved;
}

// Proofs run on threads of their own, at most kProofsAtOnce at a time, so a
// client's thread only waits, and at most kProofWaitSeconds: each proof stops
// at its own time limit, and its thread is counted until then; a sheet stops
// once it has taken that long.
constexpr int kProofsAtOnce = 2;
constexpr int kProofWaitSeconds = 30;

// The proof (or, for the sheet, the ten proofs) of a kept upload with the
// form's fields, as the page shows them.
std::string proofsHtml(pappl_printer_t* printer, const ProofPage& page, const std::string& file,
                       const std::vector<std::pair<std::string, std::string>>& fields, bool sheet,
                       const std::string& halftone) {
  cups_option_t* form = nullptr;
  int numForm = 0;
  for (const auto& f : fields)
    numForm = cupsAddOption(f.first.c_str(), f.second.c_str(), numForm, &form);
  std::string result;
  const std::vector<std::string>& names = appVendorOptions()[0].values;
  const auto begin = std::chrono::steady_clock::now();
  for (const std::string& name : names) {
    if (!sheet && name != halftone && !(halftone.empty() && name == names[0]))
      continue;
    if (std::chrono::steady_clock::now() - begin > std::chrono::seconds(kProofWaitSeconds))
      break;
    cups_option_t* options = nullptr;
    const int numOptions = formOptions(numForm, form, sheet ? name.c_str() : nullptr, &options);
    std::vector<unsigned char> record, png;
    std::string why;
    PageRecord shown;
    // The sheet shows each proof a sixth of its size; the proof, every dot.
    const bool made = proofRecord(printer, page, file, numOptions, options, &record, &why) &&
                      decodePageRecord(record, &shown, &why) &&
                      appRecordPng(shown, &png, &why, sheet ? 6 : 1);
    cupsFreeOptions(numOptions, options);
    if (!made) {
      result += "<p class=\"proof-message\">No proof: " + escaped(why) + ".</p>\n";
      break;
    }
    if (sheet) {
      result += "<button type=\"submit\" form=\"form\" name=\"pick\" value=\"";
      result += name;
      result += "\" style=\"width:19%;vertical-align:top\"><img alt=\"";
      result += name;
      result += "\" style=\"width:100%\" src=\"data:image/png;base64,";
      result += base64(png);
      result += "\"><br>";
      result += escaped(appLabel("halftone-type." + name));
      result += "</button>\n";
      continue;
    }
    // Each row record ends with the label's whole bytes, after the margin that
    // centres it under the head: there the label's outline goes.
    const size_t labelDots = (size_t{shown.labelWidth} + 7) / 8 * 8;
    const double left = labelDots < shown.width
                            ? 100.0 * static_cast<double>(shown.width - labelDots) /
                                  static_cast<double>(shown.width)
                            : 0.0;
    char box[160];
    snprintf(box, sizeof box,
             "<div style=\"position:absolute;top:0;bottom:0;left:%.3f%%;right:0;"
             "outline:2px dashed #06c\"></div>",
             left);
    result += "<p>" + std::to_string(shown.labelWidth) + " x " + std::to_string(shown.labelHeight) +
              " dots on the label (dashed), " + std::to_string(shown.blackDots) +
              " of them black, under the head's width (red). <label><input "
              "type=\"checkbox\" onchange=\"var p = document.getElementById('proof'); "
              "p.parentNode.style.width = this.checked ? p.naturalWidth + 'px' : '100%'\"> "
              "1:1 dots</label></p>\n<div style=\"position:relative;width:100%\"><img "
              "id=\"proof\" alt=\"proof\" style=\"display:block;width:100%;"
              "image-rendering:pixelated;outline:1px solid #c00\" "
              "src=\"data:image/png;base64," +
              base64(png) + "\">" + box + "</div>\n";
  }
  cupsFreeOptions(numForm, form);
  return result;
}

std::mutex gProofsLock;
int gProofsRunning = 0;

// The printer `printerId` of `system`, held until releasePrinter: found under
// the system's lock, which deleting a printer takes to remove it, so a printer
// found here is deleted only once it is let go (appEndProofs waits).
pappl_printer_t* holdPrinter(pappl_system_t* system, int printerId) {
  struct Find {
    int id;
    pappl_printer_t* printer;
  } find{printerId, nullptr};
  papplSystemIteratePrinters(
      system,
      [](pappl_printer_t* printer, void* data) {
        Find& f = *static_cast<Find*>(data);
        if (f.printer == nullptr && papplPrinterGetID(printer) == f.id) {
          std::lock_guard<std::mutex> hold(gRunsLock);
          ++gHolds[printer];
          f.printer = printer;
        }
      },
      &find);
  return find.printer;
}

void releasePrinter(pappl_printer_t* printer) {
  std::lock_guard<std::mutex> hold(gRunsLock);
  if (--gHolds[printer] == 0)
    gHolds.erase(printer);
  gHoldsEnded.notify_all();
}

// The page's result of `work` on the printer `printerId`, run on a proof thread.
std::string boundedProofs(pappl_system_t* system, int printerId,
                          std::function<std::string(pappl_printer_t*)> work) {
  {
    std::lock_guard<std::mutex> hold(gProofsLock);
    if (gProofsRunning >= kProofsAtOnce)
      return "<p class=\"proof-message\">The printer is busy with other proofs; try again "
             "in a moment.</p>";
    ++gProofsRunning;
  }
  pappl_printer_t* printer = holdPrinter(system, printerId);
  if (printer == nullptr) {
    std::lock_guard<std::mutex> hold(gProofsLock);
    --gProofsRunning;
    return "<p class=\"proof-message\">The printer is gone.</p>";
  }
  struct Outcome {
    std::mutex lock;
    std::condition_variable done;
    bool ready = false;
    std::string html;
  };
  auto outcome = std::make_shared<Outcome>();
  std::thread([outcome, printer, work = std::move(work)] {
    std::string html = work(printer);
    releasePrinter(printer);
    {
      std::lock_guard<std::mutex> hold(outcome->lock);
      outcome->html = std::move(html);
      outcome->ready = true;
    }
    outcome->done.notify_all();
    std::lock_guard<std::mutex> hold(gProofsLock);
    --gProofsRunning;
  }).detach();
  std::unique_lock<std::mutex> wait(outcome->lock);
  if (!outcome->done.wait_for(wait, std::chrono::seconds(kProofWaitSeconds),
                              [&outcome] { return outcome->ready; }))
    return "<p class=\"proof-message\">The proof took too long and was stopped.</p>";
  return outcome->html;
}

// The printer of a page; null, with the client answered, when it is gone.
pappl_printer_t* pagePrinter(pappl_client_t* client, const ProofPage& page) {
  pappl_printer_t* printer =
      papplSystemFindPrinter(papplClientGetSystem(client), nullptr, page.printerId, nullptr);
  if (printer == nullptr)
    papplClientRespond(client, HTTP_STATUS_NOT_FOUND, nullptr, nullptr, 0, 0);
  return printer;
}

// PAPPL reads at most 2 MB of a form, and a camera's photo is often more: the
// page's script sends a chosen image alone to /<printer>/proof-upload first,
// then the form with the token the image is kept under. Without the script
// the form still carries smaller images itself. Set before the form, so that
// it is there whichever button is pressed first.
constexpr char kUploadScript[] =
    "<script>\n"
    "document.addEventListener('submit', function (event) {\n"
    "  var form = event.target, file = form.elements.document;\n"
    "  if (!file || !file.files.length) return;\n"
    "  event.preventDefault();\n"
    "  if (form.dataset.sending) return;\n"
    "  form.dataset.sending = 'yes';\n"
    "  var button = event.submitter, note = document.getElementById('upload-note');\n"
    "  note.textContent = 'Sending the image...';\n"
    "  fetch('%s?session=' + encodeURIComponent(form.elements.session.value),\n"
    "        {method: 'POST', body: file.files[0]})\n"
    "    .then(function (r) { return r.text().then(function (t) {\n"
    "      if (!r.ok) throw new Error(t); return t; }); })\n"
    "    .then(function (token) {\n"
    "      form.elements.upload.value = token;\n"
    "      file.disabled = true;\n"
    "      if (button && button.name) {\n"
    "        var pressed = document.createElement('input');\n"
    "        pressed.type = 'hidden'; pressed.name = button.name; pressed.value = button.value;\n"
    "        form.appendChild(pressed);\n"
    "      }\n"
    "      form.submit();\n"
    "    })\n"
    "    .catch(function (e) {\n"
    "      delete form.dataset.sending; note.textContent = 'Not sent: ' + e.message; });\n"
    "});\n"
    "// A page come back to from the next keeps its form usable.\n"
    "window.addEventListener('pageshow', function () {\n"
    "  var form = document.getElementById('form');\n"
    "  if (form) { delete form.dataset.sending; form.elements.document.disabled = false; }\n"
    "});\n"
    "</script>\n";

// Uploads read at once, and the bytes and time one may take, and how long it
// may send nothing (its pixels are bounded as a job's when it is proofed).
constexpr int kUploadsAtOnce = 4;
constexpr off_t kUploadMaxBytes = off_t{64} << 20;
constexpr int kUploadSeconds = 120;
constexpr double kUploadQuietSeconds = 10.0;
constexpr char kUploadTooLarge[] = "The image is larger than 64 MB.";
constexpr char kUploadNotKept[] = "The server could not keep the image.";
std::mutex gUploadingLock;
int gUploading = 0;

// Answers an upload with `text`; whether the connection may go on.
bool uploadAnswer(pappl_client_t* client, http_status_t status, const std::string& text,
                  bool bodyRead) {
  const bool sent = papplClientRespond(client, status, nullptr, "text/plain", 0, text.size()) &&
                    httpWrite2(papplClientGetHTTP(client), text.data(), text.size()) ==
                        static_cast<ssize_t>(text.size());
  return sent && bodyRead;
}

// The upload's body into a new file of PAPPL's temporary directory; its path,
// or empty with `status` and `why` set.
std::string readUpload(http_t* http, http_status_t* status, std::string* why) {
  char path[1024];
  const int fd = papplCreateTempFile(path, sizeof(path), "proof-upload", nullptr);
  if (fd < 0) {
    *status = HTTP_STATUS_SERVER_ERROR;
    *why = kUploadNotKept;
    return std::string();
  }
  const time_t end = time(nullptr) + kUploadSeconds;
  // PAPPL reads its clients with no time limit: a client gone quiet would
  // hold its upload's place for good.
  httpSetTimeout(http, kUploadQuietSeconds, nullptr, nullptr);
  off_t total = 0;
  ssize_t n;
  char buffer[65536];
  *status = HTTP_STATUS_OK;
  while (*status == HTTP_STATUS_OK && (n = httpRead2(http, buffer, sizeof(buffer))) != 0) {
    if (n < 0) {
      *status = HTTP_STATUS_BAD_REQUEST;
      *why = "The image did not arrive whole.";
    } else if ((total += n) > kUploadMaxBytes) {
      *status = HTTP_STATUS_REQUEST_TOO_LARGE;
      *why = kUploadTooLarge;
    } else if (time(nullptr) > end) {
      *status = HTTP_STATUS_REQUEST_TIMEOUT;
      *why = "The image took longer than two minutes to arrive.";
    } else if (write(fd, buffer, static_cast<size_t>(n)) != n) {
      *status = HTTP_STATUS_SERVER_ERROR;
      *why = kUploadNotKept;
    }
  }
  httpSetTimeout(http, 0.0, nullptr, nullptr);
  // A client gone quiet ends the reading early: the body is then not all read.
  if (*status == HTTP_STATUS_OK && httpGetState(http) == HTTP_STATE_POST_RECV) {
    *status = HTTP_STATUS_BAD_REQUEST;
    *why = "The image did not arrive whole.";
  }
  if (close(fd) != 0 && *status == HTTP_STATUS_OK) {
    *status = HTTP_STATUS_SERVER_ERROR;
    *why = kUploadNotKept;
  }
  if (*status != HTTP_STATUS_OK) {
    unlink(path);
    return std::string();
  }
  return path;
}

// /<printer>/proof-upload?session=...: an image sent alone by the proof
// page's script; the answer is the token it is kept under. Who may proof may
// send one.
bool uploadPage(pappl_client_t* client, void* data) {
  const ProofPage& page = *static_cast<const ProofPage*>(data);
  if (pagePrinter(client, page) == nullptr)
    return false;  // the body is left unread
  if (papplClientGetMethod(client) != HTTP_STATE_POST)
    return uploadAnswer(client, HTTP_STATUS_METHOD_NOT_ALLOWED, "Send the image with POST.", true);
  const char* query = papplClientGetOptions(client);
  std::string session = query != nullptr && strncmp(query, "session=", 8) == 0 ? query + 8 : "";
  session.erase(std::min(session.size(), session.find('&')));
  cups_option_t* check = nullptr;
  const int numCheck = cupsAddOption("session", session.c_str(), 0, &check);
  const bool valid = papplClientIsValidForm(client, numCheck, check);
  cupsFreeOptions(numCheck, check);
  http_t* http = papplClientGetHTTP(client);
  if (!valid)
    return uploadAnswer(client, HTTP_STATUS_BAD_REQUEST, "The page is out of date; load it again.",
                        false);
  if (httpGetLength2(http) > kUploadMaxBytes)
    return uploadAnswer(client, HTTP_STATUS_REQUEST_TOO_LARGE, kUploadTooLarge, false);
  {
    std::lock_guard<std::mutex> hold(gUploadingLock);
    if (gUploading >= kUploadsAtOnce)
      return uploadAnswer(client, HTTP_STATUS_SERVICE_UNAVAILABLE,
                          "The printer is busy with other uploads; try again in a moment.", false);
    ++gUploading;
  }
  http_status_t status;
  std::string why;
  const std::string path = readUpload(http, &status, &why);
  {
    std::lock_guard<std::mutex> hold(gUploadingLock);
    --gUploading;
  }
  if (path.empty())
    return uploadAnswer(client, status, why, false);
  if (appProofFormat(path) == nullptr) {
    unlink(path.c_str());
    return uploadAnswer(client, HTTP_STATUS_UNSUPPORTED_MEDIATYPE,
                        "Only PNG and JPEG images can be proofed.", true);
  }
  const std::string token = keepUpload(path, page.printerId);
  return token.empty() ? uploadAnswer(client, HTTP_STATUS_SERVER_ERROR, kUploadNotKept, true)
                       : uploadAnswer(client, HTTP_STATUS_OK, token, true);
}

bool proofPage(pappl_client_t* client, void* data) {
  const ProofPage& page = *static_cast<const ProofPage*>(data);
  pappl_printer_t* printer = pagePrinter(client, page);
  if (printer == nullptr)
    return true;
  cups_option_t* form = nullptr;
  int numForm = 0;
  std::string token, action, result;
  if (papplClientGetMethod(client) == HTTP_STATE_POST) {
    numForm = papplClientGetForm(client, &form);
    // A file input left empty arrives as an empty value, not a file.
    const char* upload = cupsGetOption("document", numForm, form);
    if (upload != nullptr && *upload == '\0')
      upload = nullptr;
    const char* pick = cupsGetOption("pick", numForm, form);
    action = pick != nullptr ? "proof"
             : cupsGetOption("action", numForm, form) != nullptr
                 ? cupsGetOption("action", numForm, form)
                 : "proof";
    if (!papplClientIsValidForm(client, numForm, form)) {
      if (upload != nullptr)
        unlink(upload);
      result = "<p class=\"proof-message\">The form was not valid; load the page again.</p>";
      action.clear();
    } else if (action == "defaults" && !papplClientHTMLAuthorize(client)) {
      if (upload != nullptr)
        unlink(upload);
      cupsFreeOptions(numForm, form);
      return true;  // PAPPL has answered: a login is needed
    } else {
      const char* kept = cupsGetOption("upload", numForm, form);
      token = upload != nullptr ? keepUpload(upload, page.printerId) : kept != nullptr ? kept : "";
    }
    if (pick != nullptr)
      numForm = cupsAddOption("halftone-type", pick, numForm, &form);
  }
  const std::string file = keptUpload(token, page.printerId);
  if (!action.empty() && action != "defaults" && file.empty()) {
    result = "<p class=\"proof-message\">Choose a PNG or JPEG image.</p>";
    token.clear();
  } else if (action == "proof" || action == "sheet") {
    const char* halftone = cupsGetOption("halftone-type", numForm, form);
    std::vector<std::pair<std::string, std::string>> fields;
    fields.reserve(static_cast<size_t>(numForm));
    for (int i = 0; i < numForm; ++i)
      fields.emplace_back(form[i].name, form[i].value);
    result = boundedProofs(
        papplClientGetSystem(client), page.printerId,
        [page, file, fields, sheet = action == "sheet",
         halftone = std::string(halftone != nullptr ? halftone : "")](pappl_printer_t* held) {
          return proofsHtml(held, page, file, fields, sheet, halftone);
        });
    // The printer may have been deleted while its proof ran.
    printer = pagePrinter(client, page);
    if (printer == nullptr) {
      cupsFreeOptions(numForm, form);
      return true;
    }
  } else if (action == "print") {
    cups_option_t* options = nullptr;
    const int numOptions = formOptions(numForm, form, nullptr, &options);
    const std::string copy = jobCopy(file);
    const char* user = papplClientGetUsername(client);
    ipp_t* attrs = jobAttributes(printer, numOptions, options);
    pappl_job_t* job = copy.empty() ? nullptr
                                    : _papplJobCreate(printer, 0, user && *user ? user : "guest",
                                                      appProofFormat(file), "Proof", attrs);
    ippDelete(attrs);
    cupsFreeOptions(numOptions, options);
    if (job != nullptr)
      _papplJobSubmitFile(job, copy.c_str());
    else if (!copy.empty())
      unlink(copy.c_str());
    result = job != nullptr ? "<p class=\"proof-message\">Printing as job " +
                                  std::to_string(papplJobGetID(job)) + ".</p>"
                            : "<p class=\"proof-message\">The printer did not take the job; "
                              "it may be busy.</p>";
  } else if (action == "defaults") {
    cups_option_t* options = nullptr;
    const int numOptions = formOptions(numForm, form, nullptr, &options);
    result = saveDefaults(printer, numOptions, options)
                 ? "<p class=\"proof-message\">These options are now the printer's defaults.</p>"
                 : "<p class=\"proof-message\">The defaults could not be saved.</p>";
    cupsFreeOptions(numOptions, options);
  }

  char path[256], upload[256];
  papplPrinterGetPath(printer, "proof", path, sizeof(path));
  // The printer's page header sends the response's own header.
  papplClientHTMLPrinterHeader(client, printer, "Proof", 0, nullptr, nullptr);
  papplClientHTMLPuts(client,
                      "<div class=\"row\"><div class=\"col-12\">\n<p>The dots the printer would "
                      "print, before paper burns: choose an image and the options, then Proof."
                      "</p>\n");
  papplPrinterGetPath(printer, "proof-upload", upload, sizeof(upload));
  papplClientHTMLPrintf(client, kUploadScript, upload);
  papplClientHTMLStartForm(client, path, true);
  const std::string html = formHtml(numForm, form, token) + result + "</div></div>\n";
  papplClientHTMLPuts(client, html.c_str());
  papplClientHTMLPrinterFooter(client);
  cupsFreeOptions(numForm, form);
  return true;
}

// The last page records each printer kept, newest last.
constexpr size_t kLastPrints = 12;
struct Printed {
  int jobId;
  std::string record;
  time_t at;
};
std::mutex gPrintedLock;
std::map<int, std::deque<Printed>> gPrinted;
std::string gPrintedFile;  // where the lists outlive the server; empty: nowhere

// Every printer's list into its file, a line a record: printer id, job id,
// time, path. Called with gPrintedLock held.
bool savePrinted() {
  if (gPrintedFile.empty())
    return true;
  std::string text;
  for (const auto& printer : gPrinted) {
    for (const Printed& p : printer.second)
      text += std::to_string(printer.first) + " " + std::to_string(p.jobId) + " " +
              std::to_string(static_cast<long long>(p.at)) + " " + p.record + "\n";
  }
  return ostraReplaceFile(gPrintedFile, text.data(), text.size());
}

// /<printer>/prints: the printer's last page records as the printer will
// print them. What a customer had printed is the shop's business: admins only.
bool printsPage(pappl_client_t* client, void* data) {
  const ProofPage& page = *static_cast<const ProofPage*>(data);
  pappl_printer_t* printer = pagePrinter(client, page);
  if (printer == nullptr || !papplClientHTMLAuthorize(client))
    return true;
  std::deque<Printed> printed;
  {
    std::lock_guard<std::mutex> hold(gPrintedLock);
    printed = gPrinted[page.printerId];
  }
  std::string html =
      "<div class=\"row\"><div class=\"col-12\">\n<p>The last page records "
      "this printer kept, newest first, as the printer prints them (a record the "
      "printer has taken from the page directory is no longer shown).</p>\n";
  int shown = 0;
  for (auto p = printed.rbegin(); p != printed.rend(); ++p) {
    std::ifstream in(p->record, std::ios::binary);
    const std::vector<unsigned char> bytes((std::istreambuf_iterator<char>(in)),
                                           std::istreambuf_iterator<char>());
    PageRecord record;
    std::vector<unsigned char> png;
    std::string why;
    if (bytes.empty() || !decodePageRecord(bytes, &record, &why) ||
        !appRecordPng(record, &png, &why, 4))
      continue;
    char when[64];
    struct tm local;
    strftime(when, sizeof when, "%Y-%m-%d %H:%M:%S", localtime_r(&p->at, &local));
    html += "<figure style=\"display:inline-block;width:30%;vertical-align:top\"><img alt=\"" +
            escaped(p->record.substr(p->record.rfind('/') + 1)) +
            "\" style=\"width:100%;outline:1px solid #c00\" src=\"data:image/png;base64," +
            base64(png) + "\"><figcaption>Job " + std::to_string(p->jobId) + ", " + when + ": " +
            std::to_string(record.labelWidth) + " x " + std::to_string(record.labelHeight) +
            " dots, " + std::to_string(record.blackDots) + " black</figcaption></figure>\n";
    ++shown;
  }
  if (shown == 0)
    html += "<p>No page records of this printer are in the page directory.</p>\n";
  html += "</div></div>\n";
  papplClientHTMLPrinterHeader(client, printer, "Last Prints", 0, nullptr, nullptr);
  papplClientHTMLPuts(client, html.c_str());
  papplClientHTMLPrinterFooter(client);
  return true;
}

}  // namespace

void appEndProofs(pappl_printer_t* printer) {
  std::unique_lock<std::mutex> hold(gRunsLock);
  gEnding.insert(printer);
  for (const auto& run : gRuns) {
    AppProofJob& job = run.second->job;
    if (job.printer == printer) {
      pthread_rwlock_wrlock(&job.rwlock);
      job.is_canceled = true;
      pthread_rwlock_unlock(&job.rwlock);
    }
  }
  if (gHolds.count(printer) != 0)
    papplLogPrinter(printer, PAPPL_LOGLEVEL_INFO, "Proofs stopped: the printer is being deleted.");
  gHoldsEnded.wait(hold, [printer] { return gHolds.count(printer) == 0; });
  // Another printer may later be made at the same address.
  gEnding.erase(printer);
}

bool appNotePrinted(int printerId, int jobId, const std::string& record) {
  std::lock_guard<std::mutex> hold(gPrintedLock);
  std::deque<Printed>& printed = gPrinted[printerId];
  printed.push_back({jobId, record, time(nullptr)});
  if (printed.size() > kLastPrints)
    printed.pop_front();
  return savePrinted();
}

void appLoadPrinted(const std::string& file) {
  std::lock_guard<std::mutex> hold(gPrintedLock);
  gPrintedFile = file;
  gPrinted.clear();
  std::ifstream in(file);
  int printerId, jobId;
  long long at;
  for (std::string record; in >> printerId >> jobId >> at && std::getline(in >> std::ws, record);) {
    std::deque<Printed>& printed = gPrinted[printerId];
    printed.push_back({jobId, record, static_cast<time_t>(at)});
    if (printed.size() > kLastPrints)
      printed.pop_front();
  }
}

void appForgetPrinted(int printerId) {
  std::lock_guard<std::mutex> hold(gPrintedLock);
  if (gPrinted.erase(printerId) != 0)
    savePrinted();
}

void appAddProofPage(pappl_system_t* system, pappl_printer_t* printer,
                     const std::string& pageDirectory) {
  char path[256];
  papplPrinterGetPath(printer, "proof", path, sizeof(path));
  // Lives as long as the server: a resource cannot be given a way to free it.
  auto* page = new ProofPage{papplPrinterGetID(printer), pageDirectory};
  papplSystemAddResourceCallback(system, path, "text/html", proofPage, page);
  papplPrinterGetPath(printer, "proof-upload", path, sizeof(path));
  papplSystemAddResourceCallback(system, path, "text/plain", uploadPage, page);
  papplPrinterGetPath(printer, "proof", path, sizeof(path));
  papplPrinterAddLink(printer, "Proof", path, PAPPL_LOPTIONS_NAVIGATION | PAPPL_LOPTIONS_STATUS);
  papplPrinterGetPath(printer, "prints", path, sizeof(path));
  papplSystemAddResourceCallback(system, path, "text/html", printsPage, page);
  papplPrinterAddLink(printer, "Last Prints", path,
                      PAPPL_LOPTIONS_NAVIGATION | PAPPL_LOPTIONS_STATUS);
}
