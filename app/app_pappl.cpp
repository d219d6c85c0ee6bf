#include <grp.h>
#include <pappl/pappl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <memory>
#include <mutex>
#include <set>
#include <string>
#include <vector>

#include "app/app_access.h"
#include "app/app_image.h"
#include "app/app_pappl_fixes.h"
#include "app/app_proof.h"
#include "app/ostra_app.h"

namespace {

constexpr char kVersion[] = "1.0.0";
constexpr char kFooter[] =
    "Ostra label and tattoo stencil printer application. Pages print through the same "
    "page pipeline as the CUPS filter rastertoostra.";
constexpr int kHundredthsMmPerInch = 2540;
constexpr char kNativeFormat[] = "application/vnd.kiwa-ostra";
constexpr int kMaxQueueSavedPerPage = 10;

pappl_pr_driver_t kDrivers[] = {
    {"ostra_203", "Kiwa Ostra 203 dpi", "MFG:Kiwa;MDL:Ostra;CMD:OSTRA;", nullptr},
    {"ostra_300", "Kiwa Ostra 300 dpi", "MFG:Kiwa;MDL:Ostra 300;CMD:OSTRA;", nullptr},
};

// Seconds a proof may take; an A4 page at 300 dpi takes well under one.
constexpr int kProofSeconds = 10;

// One printer's own state: jobs of different printers run on different
// threads, each with its own counter.
struct AppPrinter {
  PrinterState state;
  PrinterPaths paths;
  int jobTimeLimit = 0;
  const AppConfig* config = nullptr;
};

bool saveStateTo(pappl_system_t* system, const AppConfig& config);
void settleNewPrinters(pappl_system_t* system, const AppConfig& config);

// The state file holds the jobs too: saved as a job's pages go (see
// startPage), a job cut off by a crash is still there afterwards, with the
// pages it printed.
void saveJobState(pappl_job_t* job, AppPrinter* own) {
  pappl_printer_t* printer = papplJobGetPrinter(job);
  // A save writes every waiting job too: behind a long queue, the jobs are
  // saved only as each starts (PAPPL's own save), so a page costs no more.
  if (papplPrinterGetNumberOfActiveJobs(printer) > kMaxQueueSavedPerPage)
    return;
  if (!saveStateTo(papplPrinterGetSystem(printer), *own->config))
    papplLogJob(job, PAPPL_LOGLEVEL_ERROR, "Unable to save the state file %s: %s",
                own->config->stateFile.c_str(), strerror(errno));
}

// One job in progress; its log lines go to the job's log.
struct AppJobData {
  std::unique_ptr<FILE, int (*)(FILE*)> device{nullptr, fclose};
  std::unique_ptr<AppJob> job;
  time_t deadline = 0;  // 0: none
  int limit = 0;
  AppPrinter* own = nullptr;
  bool streamed = false;  // PWG raster, printed as it arrives
  bool proof = false;     // nothing printed, nothing kept on disk
  bool oneBit = false;    // this page's rows arrive 1 bit a pixel, as the client sent them
  std::vector<unsigned char> row;
};

// The client's page when its pixels have fewer than 8 bits, which PAPPL
// passes on unchanged under the driver's own 8-bit header. A 1-bit page of
// one colour becomes the same page at 8 bits (each pixel 0 or 255, whose
// meaning the colour space keeps), so it prints exactly; any other is
// refused.
const char* widenClientPage(AppJobData* jd, pappl_pr_options_t* options) {
  const cups_page_header2_t* client = appClientPageHeader();
  jd->oneBit = false;
  if (client == nullptr || client->cupsBitsPerPixel >= 8)
    return nullptr;
  if (client->cupsBitsPerPixel != 1 || client->cupsBitsPerColor != 1 ||
      (client->cupsColorSpace != CUPS_CSPACE_K && client->cupsColorSpace != CUPS_CSPACE_W &&
       client->cupsColorSpace != CUPS_CSPACE_SW))
    return "only 8-bit pages and 1-bit black or gray pages are accepted";
  options->header = *client;
  options->header.cupsBitsPerColor = 8;
  options->header.cupsBitsPerPixel = 8;
  options->header.cupsBytesPerLine = client->cupsWidth;
  jd->oneBit = true;
  jd->row.assign(client->cupsWidth, 0);
  return nullptr;
}

// A job still at work after the time limit stops at once and is aborted: the
// longest page takes seconds, and the printer's other jobs wait behind it.
// Times are whole seconds, so the limit is passed only a second after it.
bool pastDeadline(pappl_job_t* job, AppJobData* jd) {
  if (jd->deadline == 0 || time(nullptr) <= jd->deadline || papplJobIsCanceled(job))
    return false;
  papplLogJob(job, PAPPL_LOGLEVEL_ERROR, "Stopped: not done within %d s (job-time-limit).",
              jd->limit);
  papplJobSetReasons(job, PAPPL_JREASON_ABORTED_BY_SYSTEM, PAPPL_JREASON_NONE);
  jd->deadline = 0;  // said once
  return true;
}

// Written through at once: papplDeviceFlush in PAPPL 1.3.1 drops write errors
// (still so in 1.4.11), so what reached the device is read from its byte
// count.
ssize_t deviceWrite(void* cookie, const char* data, size_t size) {
  auto* device = static_cast<pappl_device_t*>(cookie);
  pappl_devmetrics_t before, after;
  papplDeviceFlush(device);
  papplDeviceGetMetrics(device, &before);
  papplDeviceWrite(device, data, size);
  papplDeviceFlush(device);
  papplDeviceGetMetrics(device, &after);
  if (after.write_bytes - before.write_bytes == size)
    return static_cast<ssize_t>(size);
  errno = EIO;
  return -1;
}

// The printer's device as a stream, so the setting block goes out through the
// same streams the filter writes to.
FILE* openDevice(pappl_device_t* device) {
  cookie_io_functions_t io{};
  io.write = deviceWrite;
  return fopencookie(device, "w", io);
}

void jobLog(void* context, int level, const char* line) {
  const pappl_loglevel_t papplLevel = level <= KIWA_LOG_DEBUG  ? PAPPL_LOGLEVEL_DEBUG
                                      : level == KIWA_LOG_WARN ? PAPPL_LOGLEVEL_WARN
                                                               : PAPPL_LOGLEVEL_ERROR;
  papplLogJob(static_cast<pappl_job_t*>(context), papplLevel, "%s", line);
}

AppJobData* jobData(pappl_job_t* job) {
  return static_cast<AppJobData*>(papplJobGetData(job));
}

// The job's values: its own, else the printer's defaults (PAPPL fills the
// standard ones; vendor defaults are looked up here), else the PPD defaults.
AppJobValues jobValues(pappl_job_t* job, const pappl_pr_options_t* options) {
  AppJobValues v;
  if (options->media.size_name[0] != '\0')
    v.media = options->media.size_name;
  if (options->media.tracking & PAPPL_MEDIA_TRACKING_MARK)
    v.tracking = "mark";
  else if (options->media.tracking & PAPPL_MEDIA_TRACKING_CONTINUOUS)
    v.tracking = "continuous";
  v.darknessConfigured = options->darkness_configured;
  v.printDarkness = options->print_darkness;
  if (options->print_speed > 0)
    v.printSpeed = options->print_speed;
  if (options->printer_resolution[0] > 0)
    v.resolution = options->printer_resolution[0];
  for (int i = 0; i < options->num_vendor; ++i)
    v.vendor[options->vendor[i].name] = options->vendor[i].value;
  ipp_t* defaults = papplPrinterGetDriverAttributes(papplJobGetPrinter(job));
  for (const AppVendorOption& o : appVendorOptions()) {
    if (v.vendor.count(o.ipp) != 0)
      continue;
    const std::string name = std::string(o.ipp) + "-default";
    ipp_attribute_t* attr = ippFindAttribute(defaults, name.c_str(), IPP_TAG_ZERO);
    char text[256];
    if (attr != nullptr && ippAttributeString(attr, text, sizeof(text)) > 0)
      v.vendor[o.ipp] = text;
  }
  ippDelete(defaults);
  return v;
}

// The page directory is shared with the CUPS filter, which runs in group lp:
// when it is missing (cupsd empties its temporary directory when it starts),
// it is made for both.
void makePageDirectory(const std::string& dir) {
  if (mkdir(dir.c_str(), 0770) != 0)
    return;
  struct group entry, *lp = nullptr;
  char buffer[4096];
  if (getgrnam_r("lp", &entry, buffer, sizeof(buffer), &lp) == 0 && lp != nullptr &&
      chown(dir.c_str(), static_cast<uid_t>(-1), lp->gr_gid) != 0)
    return;
  chmod(dir.c_str(), 0770);
}

bool startJob(pappl_job_t* job, pappl_pr_options_t* options, pappl_device_t* device) {
  pappl_printer_t* printer = papplJobGetPrinter(job);
  pappl_pr_driver_data_t data;
  papplPrinterGetDriverData(printer, &data);
  auto* own = static_cast<AppPrinter*>(data.extension);
  auto jd = std::make_unique<AppJobData>();
  // A proof has no device, and its counter and records are its own.
  AppProofRun* proof = appProofRun(job);
  if (proof == nullptr)
    jd->device.reset(openDevice(device));
  if (own == nullptr || (proof == nullptr && !jd->device)) {
    papplLogJob(job, PAPPL_LOGLEVEL_ERROR, "Unable to start the job: %s", strerror(errno));
    return false;
  }
  kiwaLogSetHandler(jobLog, job);
  if (proof == nullptr)
    makePageDirectory(own->paths.spoolDir);
  const Settings settings = appJobSettings(jobValues(job, options), papplPrinterGetName(printer));
  jd->job = std::make_unique<AppJob>(proof != nullptr ? appProofState(proof) : own->state,
                                     own->paths, settings, papplJobGetID(job), jd->device.get(),
                                     proof != nullptr ? &appProofRecords(proof) : nullptr);
  jd->proof = proof != nullptr;
  // A proof answers a web page: it gets seconds, not the job time limit.
  const int limit = proof != nullptr ? kProofSeconds : own->jobTimeLimit;
  if (limit > 0) {
    jd->limit = limit;
    jd->deadline = papplJobGetTimeProcessed(job) + limit;
  }
  const time_t deadline = jd->deadline;
  jd->job->printer().setCancelCheck([job, deadline] {
    return papplJobIsCanceled(job) || (deadline != 0 && time(nullptr) > deadline);
  });
  jd->own = own;
  jd->streamed = !jd->proof && appClientPageHeader() != nullptr;
  const bool streamed = jd->streamed;
  papplJobSetData(job, jd.release());
  if (streamed)
    saveJobState(job, own);
  return true;
}

bool startPage(pappl_job_t* job, pappl_pr_options_t* options, pappl_device_t* device,
               unsigned /*page*/) {
  AppJobData* jd = jobData(job);
  if (jd == nullptr || pastDeadline(job, jd))
    return false;
  const AppMedia* media = appMediaByPwg(options->media.size_name);
  const char* problem = widenClientPage(jd, options);
  if (problem == nullptr)
    problem = jd->job->startPage(options->header, media != nullptr ? media->ppd : "");
  const bool offline = jd->job->printer().deviceFailed();
  if (!jd->proof)
    papplPrinterSetReasons(papplJobGetPrinter(job),
                           offline ? PAPPL_PREASON_OFFLINE : PAPPL_PREASON_NONE,
                           offline ? PAPPL_PREASON_NONE : PAPPL_PREASON_OFFLINE);
  if (problem != nullptr) {
    papplLogJob(job, PAPPL_LOGLEVEL_ERROR, "Page not printed: %s.", problem);
    papplJobSetReasons(
        job, offline ? PAPPL_JREASON_ERRORS_DETECTED : PAPPL_JREASON_DOCUMENT_UNPRINTABLE_ERROR,
        PAPPL_JREASON_NONE);
    return false;
  }
  papplDeviceFlush(device);
  // PAPPL counts an image's page (a copy) done only after it ends, and a
  // streamed page as it starts: an image job is saved as each page starts,
  // a streamed one as it starts and after each page.
  if (!jd->streamed && !jd->proof)
    saveJobState(job, jd->own);
  return true;
}

bool writeLine(pappl_job_t* job, pappl_pr_options_t* /*options*/, pappl_device_t* /*device*/,
               unsigned y, const unsigned char* line) {
  AppJobData* jd = jobData(job);
  if (jd == nullptr)
    return false;
  if (jd->oneBit) {
    for (size_t x = 0; x < jd->row.size(); ++x)
      jd->row[x] = (line[x / 8] & (0x80 >> (x % 8))) != 0 ? 255 : 0;
    line = jd->row.data();
  }
  jd->job->writeRow(y, line);
  return true;
}

// PAPPL pads a cancelled page with white and still ends it: such a page
// leaves no record.
bool endPage(pappl_job_t* job, pappl_pr_options_t* /*options*/, pappl_device_t* device,
             unsigned /*page*/) {
  AppJobData* jd = jobData(job);
  if (jd == nullptr)
    return false;
  bool late = pastDeadline(job, jd);
  bool kept = jd->job->endPage(papplJobIsCanceled(job) || late);
  // The limit may pass while the page is processed, which then stops short.
  late = late || pastDeadline(job, jd);
  kept = kept && !late;
  papplDeviceFlush(device);
  if (!kept && !late)
    papplJobSetReasons(job,
                       jd->job->pageIncomplete() ? PAPPL_JREASON_DOCUMENT_FORMAT_ERROR
                                                 : PAPPL_JREASON_ERRORS_DETECTED,
                       PAPPL_JREASON_NONE);
  if (kept && jd->streamed)
    saveJobState(job, jd->own);
  for (const std::string& record : jd->job->takeKeptRecords()) {
    if (!appNotePrinted(papplPrinterGetID(papplJobGetPrinter(job)), papplJobGetID(job), record))
      papplLogJob(job, PAPPL_LOGLEVEL_WARN, "The list of last prints was not saved: %s",
                  strerror(errno));
  }
  return kept;
}

bool endJob(pappl_job_t* job, pappl_pr_options_t* /*options*/, pappl_device_t* device) {
  std::unique_ptr<AppJobData> jd(jobData(job));
  papplJobSetData(job, nullptr);
  const bool stored = jd && jd->job->end();
  jd.reset();
  papplDeviceFlush(device);
  kiwaLogSetHandler(nullptr, nullptr);
  return stored;
}

// With no native format, PAPPL 1.3.1 hands a document it cannot read (a PDF
// from a raw CUPS queue, say) to a raw-file callback that is not there, and
// crashes. With one named, it aborts such jobs itself; a job claiming the
// printer's own stream is refused here, since pages must come as rows.
bool refuseFile(pappl_job_t* job, pappl_pr_options_t* /*options*/, pappl_device_t* /*device*/) {
  papplLogJob(job, PAPPL_LOGLEVEL_ERROR,
              "Unable to print %s: send PWG raster, PNG or JPEG, or print through a CUPS queue "
              "made with -m everywhere.",
              papplJobGetFormat(job));
  return false;
}

void deletePrinter(pappl_printer_t* printer, pappl_pr_driver_data_t* data) {
  appEndProofs(printer);
  delete static_cast<AppPrinter*>(data->extension);
  data->extension = nullptr;
}

void addVendorAttributes(ipp_t* attrs) {
  for (const AppVendorOption& o : appVendorOptions()) {
    const std::string supported = std::string(o.ipp) + "-supported";
    const std::string byDefault = std::string(o.ipp) + "-default";
    if (o.isBoolean) {
      ippAddBoolean(attrs, IPP_TAG_PRINTER, supported.c_str(), 1);
      ippAddBoolean(attrs, IPP_TAG_PRINTER, byDefault.c_str(), o.defaultValue == "true" ? 1 : 0);
    } else if (o.isInteger) {
      ipp_attribute_t* attr =
          ippAddIntegers(attrs, IPP_TAG_PRINTER, IPP_TAG_INTEGER, supported.c_str(),
                         static_cast<int>(o.values.size()), nullptr);
      for (size_t i = 0; i < o.values.size(); ++i)
        ippSetInteger(attrs, &attr, static_cast<int>(i), atoi(o.values[i].c_str()));
      ippAddInteger(attrs, IPP_TAG_PRINTER, IPP_TAG_INTEGER, byDefault.c_str(),
                    atoi(o.defaultValue.c_str()));
    } else {
      std::vector<const char*> values;
      for (const std::string& value : o.values)
        values.push_back(value.c_str());
      ippAddStrings(attrs, IPP_TAG_PRINTER, IPP_TAG_KEYWORD, supported.c_str(),
                    static_cast<int>(values.size()), nullptr, values.data());
      ippAddString(attrs, IPP_TAG_PRINTER, IPP_TAG_KEYWORD, byDefault.c_str(), nullptr,
                   o.defaultValue.c_str());
    }
  }
}

void setMedia(pappl_media_col_t& col, const char* name) {
  memset(&col, 0, sizeof(col));
  snprintf(col.size_name, sizeof(col.size_name), "%s", name);
  if (pwg_media_t* pwg = pwgMediaForPWG(name)) {
    col.size_width = pwg->width;
    col.size_length = pwg->length;
  }
  snprintf(col.source, sizeof(col.source), "main-roll");
  snprintf(col.type, sizeof(col.type), "labels");
  col.tracking = PAPPL_MEDIA_TRACKING_GAP;
}

void identifyPrinter(pappl_printer_t* printer, pappl_identify_actions_t, const char* message) {
  papplLogPrinter(printer, PAPPL_LOGLEVEL_INFO, "Identify-Printer: %s",
                  message != nullptr ? message : "");
}

bool driverCallback(pappl_system_t* system, const char* driverName, const char* uri,
                    const char* /*deviceId*/, pappl_pr_driver_data_t* data, ipp_t** attrs,
                    void* context) {
  const int dpi = strcmp(driverName, "ostra_203") == 0   ? 203
                  : strcmp(driverName, "ostra_300") == 0 ? 300
                                                         : 0;
  if (dpi == 0)
    return false;
  const AppConfig* config = static_cast<const AppConfig*>(context);
  // Every printer is made here, from a client or from the state file: a file
  // device is where the server writes, so no client may choose it.
  std::string why;
  if (uri != nullptr && !appDeviceAllowed(uri, config->access, &why)) {
    papplLog(system, PAPPL_LOGLEVEL_ERROR, "Printer device %s refused: %s.", uri, why.c_str());
    return false;
  }
  auto* own = new AppPrinter;
  own->paths.spoolDir = config->pageDirectory;
  own->paths.imageDir = config->imageDirectory;
  own->paths.debugImages = config->debugImages;
  own->jobTimeLimit = config->jobTimeLimit;
  own->config = config;
  data->extension = own;
  data->delete_cb = deletePrinter;
  data->rstartjob_cb = startJob;
  data->rstartpage_cb = startPage;
  data->rwriteline_cb = writeLine;
  data->rendpage_cb = endPage;
  data->rendjob_cb = endJob;
  // See refuseFile: a named native format keeps other documents from crashing
  // the application.
  data->printfile_cb = refuseFile;
  data->format = kNativeFormat;
  // The printer has no panel, light or bell: "display" shows the message in
  // the printer's log, where the admin looks.
  data->identify_cb = identifyPrinter;
  data->identify_supported = data->identify_default = PAPPL_IDENTIFY_ACTIONS_DISPLAY;
  // Attributes IPP Everywhere asks for that PAPPL 1.3.1 leaves to the driver.
  if (*attrs == nullptr)
    *attrs = ippNew();
  ippAddBoolean(*attrs, IPP_TAG_PRINTER, "preferred-attributes-supported", 0);
  ippAddString(*attrs, IPP_TAG_PRINTER, IPP_TAG_KEYWORD, "print-rendering-intent-default", nullptr,
               "auto");
  ippAddString(*attrs, IPP_TAG_PRINTER, IPP_TAG_KEYWORD, "print-rendering-intent-supported",
               nullptr, "auto");
  ippAddString(*attrs, IPP_TAG_PRINTER, IPP_TAG_KEYWORD, "pwg-raster-document-sheet-back", nullptr,
               "normal");
  // Its one supply is the roll of labels, whose level it cannot sense (-2).
  constexpr char kSupply[] =
      "index=1;class=supplyThatIsConsumed;type=other;unit=other;maxcapacity=-2;level=-2;";
  ippAddOctetString(*attrs, IPP_TAG_PRINTER, "printer-supply", kSupply, sizeof(kSupply) - 1);
  ippAddString(*attrs, IPP_TAG_PRINTER, IPP_TAG_TEXT, "printer-supply-description", nullptr,
               "Direct thermal labels");

  snprintf(data->make_and_model, sizeof(data->make_and_model), "Kiwa Ostra %d dpi", dpi);
  data->ppm = 10;
  data->kind = PAPPL_KIND_LABEL;
  data->color_supported = PAPPL_COLOR_MODE_MONOCHROME;
  data->color_default = PAPPL_COLOR_MODE_MONOCHROME;
  // A 1-bit page is widened to 8 bits on its way in (widenClientPage).
  data->raster_types =
      PAPPL_PWG_RASTER_TYPE_BLACK_1 | PAPPL_PWG_RASTER_TYPE_BLACK_8 | PAPPL_PWG_RASTER_TYPE_SGRAY_8;
  data->num_resolution = 1;
  data->x_resolution[0] = data->y_resolution[0] = dpi;
  data->x_default = data->y_default = dpi;
  data->left_right = data->bottom_top = 0;

  data->num_media = 0;
  for (size_t i = 0; i < kAppMediaCount; ++i)
    data->media[data->num_media++] = kAppMedia[i].pwg;
  data->media[data->num_media++] = kAppRollMin;
  data->media[data->num_media++] = kAppRollMax;
  setMedia(data->media_default, kAppMedia[0].pwg);
  data->num_source = 1;
  data->source[0] = "main-roll";
  data->media_ready[0] = data->media_default;
  data->tracking_supported =
      PAPPL_MEDIA_TRACKING_GAP | PAPPL_MEDIA_TRACKING_MARK | PAPPL_MEDIA_TRACKING_CONTINUOUS;
  data->num_type = 2;
  data->type[0] = "labels";
  data->type[1] = "continuous";

  // Three darkness levels, Middle by default; speeds 2 to 6 in/s, 4 by default.
  data->darkness_supported = 3;
  data->darkness_configured = 50;
  data->darkness_default = 0;
  data->speed_supported[0] = 2 * kHundredthsMmPerInch;
  data->speed_supported[1] = 6 * kHundredthsMmPerInch;
  data->speed_default = 4 * kHundredthsMmPerInch;

  data->num_vendor = 0;
  for (const AppVendorOption& o : appVendorOptions())
    data->vendor[data->num_vendor++] = o.ipp;
  if (*attrs == nullptr)
    *attrs = ippNew();
  addVendorAttributes(*attrs);
  return true;
}

pappl_loglevel_t logLevel(const char* value) {
  if (value == nullptr)
    return PAPPL_LOGLEVEL_WARN;
  static const struct {
    const char* name;
    pappl_loglevel_t level;
  } kLevels[] = {{"fatal", PAPPL_LOGLEVEL_FATAL},
                 {"error", PAPPL_LOGLEVEL_ERROR},
                 {"warn", PAPPL_LOGLEVEL_WARN},
                 {"info", PAPPL_LOGLEVEL_INFO},
                 {"debug", PAPPL_LOGLEVEL_DEBUG}};
  for (const auto& l : kLevels) {
    if (strcmp(value, l.name) == 0)
      return l.level;
  }
  return PAPPL_LOGLEVEL_WARN;
}

std::string defaultSpoolDirectory() {
  if (getuid() == 0)
    return "/var/spool/ostra-printer-app";
  const char* tmp = getenv("TMPDIR");
  return std::string(tmp != nullptr ? tmp : "/tmp") + "/ostra-printer-app" +
         std::to_string(getuid()) + ".d";
}

bool avahiRunning() {
  return access("/run/avahi-daemon/socket", F_OK) == 0;
}

}  // namespace

// PAPPL 1.3.1's own add-printer page, exported though not declared.
extern "C" bool _papplSystemWebAddPrinter(pappl_client_t* client, pappl_system_t* system);

namespace {

// PAPPL 1.3.1's add-printer page looks for network printers through Avahi
// and aborts the whole application when avahi-daemon is not running (fixed
// upstream in PAPPL 1.4.5). Without the daemon this page takes its place and
// says how to add a printer; the daemon is looked for at every request.
bool addPrinterPage(pappl_client_t* client, void* system) {
  if (avahiRunning())
    return _papplSystemWebAddPrinter(client, static_cast<pappl_system_t*>(system));
  if (!papplClientHTMLAuthorize(client))
    return true;
  papplClientRespond(client, HTTP_STATUS_OK, nullptr, "text/html", 0, 0);
  papplClientHTMLHeader(client, "Add Printer", 0);
  papplClientHTMLPuts(client,
                      "<div class=\"content\"><div class=\"row\"><div class=\"col-12\">"
                      "<h1 class=\"title\">Add Printer</h1>"
                      "<p>Finding printers on the network needs avahi-daemon, which is not "
                      "running. Add a printer from a shell instead, for example:</p>"
                      "<pre>ostra-printer-app add -d stencils -m ostra_203 -v usb://Kiwa/Ostra"
                      "</pre></div></div></div>\n");
  papplClientHTMLFooter(client);
  return true;
}

// PAPPL 1.3.1 reads a printer's print-speed-default back from the state file
// but never writes it: the line goes into each printer's block after PAPPL has
// saved, and the file is replaced whole.
bool addPrintSpeeds(pappl_system_t* system, const std::string& from, const std::string& to) {
  std::ifstream in(from);
  std::string text, line;
  while (std::getline(in, line)) {
    text += line + "\n";
    const size_t id = line.find(" id=\"");
    pappl_printer_t* printer =
        line.rfind("<Printer ", 0) == 0 && id != std::string::npos
            ? papplSystemFindPrinter(system, nullptr, atoi(line.c_str() + id + 5), nullptr)
            : nullptr;
    if (printer == nullptr)
      continue;
    pappl_pr_driver_data_t data;
    papplPrinterGetDriverData(printer, &data);
    text += "print-speed-default " + std::to_string(data.speed_default) + "\n";
  }
  return ostraReplaceFile(to, text.data(), text.size());
}

// Saves go through one lock (the main loop and job threads both save), to a
// draft first: the state file is always whole, the old one or the new.
std::mutex gSaveLock;

bool saveStateTo(pappl_system_t* system, const AppConfig& config) {
  std::lock_guard<std::mutex> hold(gSaveLock);
  settleNewPrinters(system, config);
  const std::string& path = config.stateFile;
  const std::string draft = path + ".draft";
  const bool ok =
      papplSystemSaveState(system, draft.c_str()) && addPrintSpeeds(system, draft, path);
  unlink(draft.c_str());
  return ok;
}

bool saveState(pappl_system_t* system, void* config) {
  return saveStateTo(system, *static_cast<const AppConfig*>(config));
}

// Mends the state file before PAPPL reads it:
//   - a job it shows processing was cut off (a crash, a power cut, a kill):
//     it is aborted, keeping its pages printed, and not printed again;
//   - PAPPL 1.3.1 (no upstream fix as of 1.4.11) saves a job that never got a
//     document without its format, then stops reading the printer's jobs at
//     that line: such a job gets one.
void mendStateFile(const std::string& path) {
  std::ifstream in(path);
  if (!in)
    return;
  std::string text, line;
  bool changed = false;
  while (std::getline(in, line)) {
    if (line.rfind("Job ", 0) == 0) {
      const size_t state = line.find(" state=\"5\"");
      if (state != std::string::npos) {
        line.replace(state, 10, " state=\"8\"");
        const size_t reasons = line.find(" state_reasons=\"");
        const std::string aborted = std::to_string(PAPPL_JREASON_ABORTED_BY_SYSTEM);
        if (reasons == std::string::npos)
          line += " state_reasons=\"" + aborted + "\"";
        else
          line.replace(
              reasons + 16, line.find('"', reasons + 16) - reasons - 16,
              std::to_string(atoi(line.c_str() + reasons + 16) | PAPPL_JREASON_ABORTED_BY_SYSTEM));
        if (line.find(" completed=\"") == std::string::npos)
          line += " completed=\"" + std::to_string(time(nullptr)) + "\"";
        changed = true;
      }
      if (line.find(" format=\"") == std::string::npos) {
        line += " format=\"application/octet-stream\"";
        changed = true;
      }
    }
    text += line + "\n";
  }
  if (changed)
    ostraReplaceFile(path, text.data(), text.size());
}

// The largest job id in the page records of `dir` (0 if none): a printer's
// job ids start above it, so no record name is used twice, even after the
// state file lost its count.
int lastRecordedJobId(const std::string& dir) {
  int last = 0;
  std::error_code error;
  for (const auto& entry : std::filesystem::directory_iterator(dir, error)) {
    int page = 0, id = 0, n = 0;
    if (sscanf(entry.path().filename().c_str(), "page_%d_jobid_%d_%d.dat", &page, &id, &n) == 3)
      last = std::max(last, id);
  }
  return last;
}

void startJobIdsAbove(pappl_printer_t* printer, int last) {
  if (papplPrinterGetNextJobID(printer) <= last)
    papplPrinterSetNextJobID(printer, last + 1);
}

// A page counter a crash left in its journal is the counter.
void recoverPageCounters(const std::string& dir) {
  std::error_code error;
  for (const auto& entry : std::filesystem::directory_iterator(dir, error)) {
    const std::filesystem::path& journal = entry.path();
    if (journal.extension() == ".journal")
      std::filesystem::rename(journal, std::filesystem::path(journal).replace_extension(), error);
  }
}

// Printers made (or loaded) since the last save, whose job ids and queue
// bound have yet to be set: PAPPL announces a new printer while it holds the
// printer's lock.
std::mutex gNewPrintersLock;
std::set<pappl_printer_t*> gNewPrinters;

void onEvent(pappl_system_t*, pappl_printer_t* printer, pappl_job_t*, pappl_event_t event, void*) {
  if ((event & PAPPL_EVENT_PRINTER_CREATED) != 0 && printer != nullptr) {
    std::lock_guard<std::mutex> hold(gNewPrintersLock);
    gNewPrinters.insert(printer);
  }
  if ((event & PAPPL_EVENT_PRINTER_DELETED) != 0 && printer != nullptr)
    appForgetPrinted(papplPrinterGetID(printer));
}

// Raises the job ids of the printers made since the last call, bounds their
// queues (a save writes every job, so its cost grows with the queue) and
// adds their proof pages; the main loop saves (and so calls this) as soon as
// a printer is added.
void settleNewPrinters(pappl_system_t* system, const AppConfig& config) {
  {
    std::lock_guard<std::mutex> hold(gNewPrintersLock);
    if (gNewPrinters.empty())
      return;
  }
  struct Settle {
    int lastJobId;
    int maxActiveJobs;
    std::vector<pappl_printer_t*> settled;
  } settle{lastRecordedJobId(config.pageDirectory), config.maxActiveJobs, {}};
  papplSystemIteratePrinters(
      system,
      [](pappl_printer_t* printer, void* data) {
        bool isNew;
        {
          std::lock_guard<std::mutex> hold(gNewPrintersLock);
          isNew = gNewPrinters.erase(printer) != 0;
        }
        Settle& settle = *static_cast<Settle*>(data);
        if (isNew) {
          settle.settled.push_back(printer);
          startJobIdsAbove(printer, settle.lastJobId);
          papplPrinterSetMaxActiveJobs(printer, settle.maxActiveJobs);
          // PAPPL 1.3.1 (no upstream fix as of 1.4.11) forgets no finished
          // job while jobs keep finishing: its clean-up looks at the newest
          // first and stops at one under a minute old, unless jobs are
          // preserved. One is (its document kept until the next job ends).
          papplPrinterSetMaxPreservedJobs(printer, 1);
        }
      },
      &settle);
  // Outside the iteration, which holds the system's lock that adding takes.
  for (pappl_printer_t* printer : settle.settled)
    appAddProofPage(system, printer, config.pageDirectory);
}

// Where PAPPL's own main loop would keep the state.
std::string defaultStateFile() {
  if (getuid() == 0)
    return "/var/lib/ostra-printer-app.state";
  const char* config = getenv("XDG_CONFIG_HOME");
  const char* home = getenv("HOME");
  if (config != nullptr)
    return std::string(config) + "/ostra-printer-app.state";
  if (home != nullptr &&
      (mkdir((std::string(home) + "/.config").c_str(), 0700) == 0 || errno == EEXIST))
    return std::string(home) + "/.config/ostra-printer-app.state";
  const char* tmp = getenv("TMPDIR");
  return std::string(tmp != nullptr ? tmp : "/tmp") + "/ostra-printer-app" +
         std::to_string(getuid()) + ".state";
}

pappl_system_t* systemCallback(int numOptions, cups_option_t* options, void* data) {
  return appCreateSystem(numOptions, options, static_cast<AppConfig*>(data));
}

}  // namespace

pappl_system_t* appCreateSystem(int numOptions, cups_option_t* options, AppConfig* config) {
  auto option = [&](const char* name) { return cupsGetOption(name, numOptions, options); };
  auto yes = [](const char* on) {
    return on != nullptr &&
           (strcmp(on, "true") == 0 || strcmp(on, "yes") == 0 || strcmp(on, "1") == 0);
  };
  if (const char* dir = option("page-directory"))
    config->pageDirectory = dir;
  if (const char* dir = option("image-directory"))
    config->imageDirectory = dir;
  config->debugImages = yes(option("debug-images"));
  AppAccess& access = config->access;
  if (const char* service = option("auth-service"))
    access.authService = service;
  if (const char* group = option("admin-group"))
    access.adminGroup = group;
  if (const char* dir = option("file-device-directory"))
    access.fileDeviceDirectory = dir;
  access.openAdmin = yes(option("allow-unauthenticated-admin"));
  if (const char* limit = option("job-time-limit"))
    config->jobTimeLimit = atoi(limit);
  if (const char* limit = option("max-active-jobs"))
    config->maxActiveJobs = std::max(0, atoi(limit));

  const char* spool = option("spool-directory");
  const std::string spoolDir = spool != nullptr ? spool : defaultSpoolDirectory();
  const char* port = option("server-port");
  // The login is checked by appAuthorize (with PAM), not by PAPPL, which would
  // ask every client for one, printing included.
  pappl_system_t* system = papplSystemCreate(
      PAPPL_SOPTIONS_MULTI_QUEUE | PAPPL_SOPTIONS_WEB_INTERFACE, "ostra-printer-app",
      port != nullptr ? atoi(port) : 0, "_print,_universal", spoolDir.c_str(), option("log-file"),
      logLevel(option("log-level")), nullptr, false);
  if (system == nullptr)
    return nullptr;
  if (!appFixPappl(system, onEvent, config)) {
    papplSystemDelete(system);
    return nullptr;
  }
  // Images are read here, within the printer's limits; PAPPL looks for a
  // filter to the printer's own format before its own readers.
  papplSystemSetMaxImageSize(system, kAppImageMaxPixels * 3, kAppImageMaxSide, kAppImageMaxSide);
  papplSystemAddMIMEFilter(system, "image/png", kNativeFormat, appFilterPng, nullptr);
  papplSystemAddMIMEFilter(system, "image/jpeg", kNativeFormat, appFilterJpeg, nullptr);
  papplSystemSetAdminGroup(system, access.adminGroup.c_str());
  papplSystemSetAuthCallback(system, "Basic", appAuthorize, &access);
  if (const char* host = option("server-hostname"))
    papplSystemSetHostName(system, host);
  if (option("private-server") == nullptr)
    papplSystemAddListeners(system, option("listen-hostname"));
  // Without a footer PAPPL's web pages fail.
  papplSystemSetFooterHTML(system, kFooter);
  papplSystemAddStringsData(system, "/en.strings", "en", kAppStrings);
  papplSystemAddResourceCallback(system, "/addprinter", "text/html", addPrinterPage, system);
  papplSystemSetPrinterDrivers(system, static_cast<int>(sizeof(kDrivers) / sizeof(kDrivers[0])),
                               kDrivers, nullptr, nullptr, driverCallback, config);
  // Loaded once the drivers are known: each saved printer is made again.
  const char* state = option("state-file");
  config->stateFile = state != nullptr ? state : defaultStateFile();
  recoverPageCounters(config->pageDirectory);
  mendStateFile(config->stateFile);
  papplSystemLoadState(system, config->stateFile.c_str());
  appLoadPrinted(config->stateFile + ".prints");
  settleNewPrinters(system, *config);
  papplSystemSetSaveCallback(system, saveState, config);
  return system;
}

namespace {

constexpr const char* kServerOptions[] = {"admin-group",     "allow-unauthenticated-admin",
                                          "auth-service",    "control-socket",
                                          "debug-images",    "file-device-directory",
                                          "image-directory", "job-time-limit",
                                          "listen-hostname", "log-file",
                                          "log-level",       "max-active-jobs",
                                          "page-directory",  "private-server",
                                          "server-hostname", "server-port",
                                          "spool-directory", "state-file"};

// Where the command line looks for a server of this user (PAPPL's place), and
// where the socket really is: in a directory of its own, the gate.
void controlSocketPaths(const char* option, std::string* path, std::string* link) {
  const std::string uid = std::to_string(getuid());
  *link = getuid() == 0 ? "/run/ostra-printer-app.sock"
                        : std::string(papplGetTempDir()) + "/ostra-printer-app" + uid + ".sock";
  *path = option != nullptr ? option
          : getuid() == 0   ? "/run/ostra-printer-app/ostra-printer-app.sock"
                            : std::string(papplGetTempDir()) + "/ostra-printer-app" + uid +
                                ".run/ostra-printer-app.sock";
}

// The server sub-command: PAPPL's main loop would leave its control socket,
// through which every local client is an admin, open to all users.
int runServer(int numOptions, cups_option_t* options) {
  for (int i = 0; i < numOptions; ++i) {
    if (std::none_of(std::begin(kServerOptions), std::end(kServerOptions),
                     [&](const char* name) { return strcmp(name, options[i].name) == 0; })) {
      fprintf(stderr, "ostra-printer-app: Unknown server option \"%s\".\n", options[i].name);
      return 1;
    }
  }
  // State, TLS keys, spooled documents and page records are the server's own.
  umask(077);
  static AppConfig config;
  pappl_system_t* system = appCreateSystem(numOptions, options, &config);
  if (system == nullptr) {
    fputs("ostra-printer-app: Failed to create a system.\n", stderr);
    return 1;
  }
  // As root, libcups keeps the TLS key in CUPS's own directory; one made
  // there before this server set its umask was readable by every user.
  char host[256];
  if (getuid() == 0 && papplSystemGetHostName(system, host, sizeof(host)) != nullptr)
    chmod(("/etc/cups/ssl/" + std::string(host) + ".key").c_str(), 0600);
  pappl_version_t version{};
  snprintf(version.name, sizeof(version.name), "ostra-printer-app");
  snprintf(version.sversion, sizeof(version.sversion), "%s", kVersion);
  version.version[0] = 1;
  papplSystemSetVersions(system, 1, &version);
  std::string path, link, error;
  controlSocketPaths(cupsGetOption("control-socket", numOptions, options), &path, &link);
  if (!appListenControlSocket(system, path, link, config.access, &error)) {
    papplLog(system, PAPPL_LOGLEVEL_FATAL, "Control socket: %s.", error.c_str());
    fprintf(stderr, "ostra-printer-app: Control socket: %s.\n", error.c_str());
    return 1;
  }
  papplSystemRun(system);
  return 0;
}

// A connection to the running server's control socket, or null.
http_t* connectToServer() {
  std::string path, link;
  controlSocketPaths(nullptr, &path, &link);
  for (const std::string& socket : {link, std::string("/run/ostra-printer-app.sock")}) {
    if (http_t* http = httpConnect2(socket.c_str(), 0, nullptr, AF_UNSPEC,
                                    HTTP_ENCRYPTION_IF_REQUESTED, 1, 5000, nullptr))
      return http;
  }
  return nullptr;
}

bool serverRuns() {
  http_t* http = connectToServer();
  httpClose(http);
  return http != nullptr;
}

// PAPPL 1.3.1 answers printer-id 0 for a printer made since the server
// started (fixed upstream in PAPPL 1.4.3), so its "delete" cannot find one:
// the id comes from the system's list of printers instead.
int deletePrinter(const char* name) {
  http_t* http = connectToServer();
  if (http == nullptr) {
    fputs("ostra-printer-app: No server is running.\n", stderr);
    return 1;
  }
  ipp_t* request = ippNewRequest(IPP_OP_GET_SYSTEM_ATTRIBUTES);
  ippAddString(request, IPP_TAG_OPERATION, IPP_TAG_URI, "system-uri", nullptr,
               "ipp://localhost/ipp/system");
  ippAddString(request, IPP_TAG_OPERATION, IPP_TAG_KEYWORD, "requested-attributes", nullptr,
               "system-configured-printers");
  ipp_t* response = cupsDoRequest(http, request, "/ipp/system");
  ipp_attribute_t* printers =
      ippFindAttribute(response, "system-configured-printers", IPP_TAG_BEGIN_COLLECTION);
  int id = 0;
  for (int i = 0; i < ippGetCount(printers); ++i) {
    ipp_t* printer = ippGetCollection(printers, i);
    const char* found =
        ippGetString(ippFindAttribute(printer, "printer-name", IPP_TAG_ZERO), 0, nullptr);
    if (found != nullptr && strcmp(found, name) == 0)
      id = ippGetInteger(ippFindAttribute(printer, "printer-id", IPP_TAG_INTEGER), 0);
  }
  ippDelete(response);
  if (id > 0) {
    request = ippNewRequest(IPP_OP_DELETE_PRINTER);
    ippAddString(request, IPP_TAG_OPERATION, IPP_TAG_URI, "system-uri", nullptr,
                 "ipp://localhost/ipp/system");
    ippAddInteger(request, IPP_TAG_OPERATION, IPP_TAG_INTEGER, "printer-id", id);
    ippAddString(request, IPP_TAG_OPERATION, IPP_TAG_NAME, "requesting-user-name", nullptr,
                 cupsUser());
    ippDelete(cupsDoRequest(http, request, "/ipp/system"));
  }
  httpClose(http);
  if (id == 0 || cupsLastError() > IPP_STATUS_OK_CONFLICTING) {
    fprintf(stderr, "ostra-printer-app: Unable to delete printer %s: %s\n", name,
            id == 0 ? "no such printer" : cupsLastErrorString());
    return 1;
  }
  return 0;
}

}  // namespace

int appMain(int argc, char* argv[]) {
  // PAPPL 1.3.1's "status" starts a server when none runs, so it always says
  // one does; here it says none runs and fails instead.
  if (argc == 2 && strcmp(argv[1], "status") == 0 && !serverRuns()) {
    fputs("ostra-printer-app: No server is running.\n", stderr);
    return 1;
  }
  if (argc == 4 && strcmp(argv[1], "delete") == 0 && strcmp(argv[2], "-d") == 0)
    return deletePrinter(argv[3]);
  // "server" with -o options only runs here; anything else is PAPPL's.
  bool server = false;
  int numOptions = 0;
  cups_option_t* options = nullptr;
  int i = 1;
  for (; i < argc; ++i) {
    if (strcmp(argv[i], "server") == 0 && !server)
      server = true;
    else if (strcmp(argv[i], "-o") == 0 && i + 1 < argc)
      numOptions = cupsParseOptions(argv[++i], numOptions, &options);
    else
      break;
  }
  if (server && i == argc) {
    const int status = runServer(numOptions, options);
    cupsFreeOptions(numOptions, options);
    return status;
  }
  cupsFreeOptions(numOptions, options);
  static AppConfig config;
  return papplMainloop(argc, argv, kVersion, kFooter,
                       static_cast<int>(sizeof(kDrivers) / sizeof(kDrivers[0])), kDrivers, nullptr,
                       driverCallback, nullptr, nullptr, systemCallback, nullptr, &config);
}
