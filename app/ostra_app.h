// The printer application's side of the page core: IPP job values become the
// job's settings, and a job's ink rows become setting blocks and page records.
#ifndef OSTRA_APP_OSTRA_APP_H
#define OSTRA_APP_OSTRA_APP_H

#include <cups/raster.h>

#include <cstdio>
#include <functional>
#include <map>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "common/settings.h"
#include "printer/ostra_job.h"

// A media size of the printer: its PWG self-describing name, the page size
// name the PPD driver uses for it, and its size in points.
struct AppMedia {
  const char* pwg;
  const char* ppd;
  double widthPt, lengthPt;
};
// The sizes of the shipped PPD, in its order; the first is the default.
extern const AppMedia kAppMedia[];
extern const size_t kAppMediaCount;
// Custom roll sizes run from 0.25 x 0.25 in up to the head width (8.5 in) by
// 100 in.
extern const char* const kAppRollMin;
extern const char* const kAppRollMax;
const AppMedia* appMediaByPwg(const std::string& pwg);

// Custom rolls the printer takes, in whole millimetres: 0.25 in up to the
// head's 8.5 in wide, up to 100 in long.
constexpr int kRollMinMm = 7;
constexpr int kRollWidthMaxMm = 215;
constexpr int kRollLengthMaxMm = 2540;
// The PWG name of a custom roll ("custom_50x30mm_50x30mm"), or empty outside
// those.
std::string appCustomRoll(int widthMm, int lengthMm);

// A vendor option of the application: its IPP name, its values (IPP keyword
// or integer text) and the default of the PPD option behind it.
struct AppVendorOption {
  const char* ipp;
  std::vector<std::string> values;
  std::string defaultValue;
  bool isBoolean, isInteger;
};
const std::vector<AppVendorOption>& appVendorOptions();

// The labels the web pages show for the vendor options and their values, as
// a strings file ("key" = "label";); the halftone names run one place ahead of
// the methods, so each label says what really runs.
extern const char* const kAppStrings;
// The label of "option" or "option.value", or the key itself.
std::string appLabel(const std::string& key);

// What one job asks for, as the application reads it from IPP; each value is
// the job's own, else the printer's default, else the PPD default.
struct AppJobValues {
  std::string media = "oe_4x6-label_4x6in";   // PWG name; a custom size keeps its name
  std::string tracking = "gap";               // media-tracking: gap, mark or continuous
  int darknessConfigured = 50;                // printer-darkness-configured, 0..100
  int printDarkness = 0;                      // print-darkness, -100..100
  int printSpeed = 4 * 2540;                  // print-speed, hundredths of mm per second
  int resolution = 203;                       // dots per inch
  std::map<std::string, std::string> vendor;  // IPP name to value; missing ones default
};

// The three darkness levels of the printer from the configured darkness plus
// the job's adjustment: 0 Light, 1 Middle, 2 Dark.
int appDarknessLevel(int configured, int adjustment);
// The printer's speed, 2 to 6 inches per second, from print-speed.
int appSpeedInches(int printSpeed);

// The job's settings record, as the filter's PPD and options would make it.
// The printer name becomes part of the page counter's file name.
Settings appJobSettings(const AppJobValues& values, const std::string& printerName);

// The media width of the head, in millimetres, as the PPD states it.
float appMaxMediaWidthMm();

// One job on one printer, fed row by row: the core's job behind IPP's pages.
// The setting block of each page goes to `device` (none when null); the page
// records and the counter go to `records`, or when null to the printer's page
// directory, written as the filter writes them, with the counter's journal
// beside it.
class AppJob {
 public:
  AppJob(PrinterState& state, const PrinterPaths& paths, const Settings& settings, int jobId,
         FILE* device, RecordSink* records = nullptr);
  AppJob(const AppJob&) = delete;
  AppJob& operator=(const AppJob&) = delete;

  // Null when the page can be printed, else why not. The header is the
  // client's; its page size name is replaced by the PPD's for `ppdPageSize`.
  const char* startPage(const cups_page_header2_t& header, const char* ppdPageSize);
  // One row of the page as it arrived: 8-bit black (0 no ink) or 8-bit gray
  // (0 black), as the page header says.
  void writeRow(unsigned y, const unsigned char* row);
  // Prints the page, or on a cancel takes back what it moved; false when it
  // could not be kept (no memory, a full disk) or not every row arrived.
  bool endPage(bool canceled);
  // Whether the last page ended before all its rows arrived.
  bool pageIncomplete() const { return rows_ < height_; }
  // Stores the page counter after the last page.
  bool end();
  // The page directory's records this job has kept since the last call.
  std::vector<std::string> takeKeptRecords() { return std::move(records_.kept); }

  OstraPrinter& printer() { return job_.printer(); }

 private:
  // The page directory's files, noting where each kept record went.
  struct NotedRecords : FileRecordSink {
    using FileRecordSink::FileRecordSink;
    Kept keepPage(uint16_t pageNum, int jobId, const unsigned char* data, size_t size,
                  const std::function<bool()>& abandon, RecordFailure* where) override;
    std::vector<std::string> kept;
  };
  NotedRecords records_;
  OstraJob job_;
  unsigned height_ = 0;  // of the page in hand; 0 when none started
  unsigned rows_ = 0;    // of this page that arrived
  int pages_ = 0;
  std::string problem_;  // why the last page could not start
  bool gray_ = false;
};

// How administration is guarded; set from the server options.
struct AppAccess {
  std::string authService = "ostra-printer-app";  // PAM service that checks an admin's password
  std::string adminGroup = "lpadmin";             // an admin is a member of it
  bool openAdmin = false;                         // loopback clients administer without a login
  std::string fileDeviceDirectory;                // file:// devices only inside it; none if empty
};

// The PAPPL side. What the application is started with, beyond PAPPL's own
// options.
struct AppConfig {
  std::string pageDirectory = PrinterPaths().spoolDir;  // page records and counters
  std::string imageDirectory = PrinterPaths().imageDir;
  bool debugImages = false;
  std::string stateFile;  // printers and their defaults; where PAPPL keeps them if not given
  AppAccess access;
  int jobTimeLimit = 300;   // seconds a job may process; 0: no limit
  int maxActiveJobs = 100;  // jobs a printer holds waiting or printing; 0: no limit
};

typedef struct _pappl_system_s pappl_system_t;
// The drivers, one per resolution, and the system with them: options are
// papplMainloop's (log-level, log-file, spool-directory, server-port,
// server-hostname, listen-hostname, private-server, admin-group, auth-service)
// plus page-directory, image-directory, debug-images, state-file,
// file-device-directory, allow-unauthenticated-admin, job-time-limit and
// max-active-jobs.
pappl_system_t* appCreateSystem(int numOptions, cups_option_t* options, AppConfig* config);
// The printer application's main: the server runs here (its control socket
// needs care PAPPL's main loop does not take); every other sub-command is
// papplMainloop's, with the drivers above.
int appMain(int argc, char* argv[]);

#endif  // OSTRA_APP_OSTRA_APP_H
