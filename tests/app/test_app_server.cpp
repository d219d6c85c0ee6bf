// The printer application running in this process, on a private domain
// socket with a file device and its own page directory: what it answers over
// IPP, and the page records its jobs leave.
#include <cups/cups.h>
#include <cups/raster.h>
#include <gtest/gtest.h>
#include <pappl/pappl.h>
#include <png.h>
#include <sys/stat.h>
#include <unistd.h>

#include <chrono>
#include <cstdlib>
#include <fstream>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "app/app_access.h"
#include "app/app_proof.h"
#include "app/ostra_app.h"
#include "tests/support/filter_runner.h"
#include "tests/support/raster_writer.h"
#include "tools/page_record.h"

namespace {

constexpr char kPrinterUri[] = "ipp://localhost/ipp/print/ostra";
constexpr char kResource[] = "/ipp/print/ostra";
constexpr char kMedia[] = "oe_2x1-label_2x1in";

// A page of ink (0 none) the size of kMedia at 203 dpi, written as a PWG
// raster in black (ink as is) or sGray (0 black).
TestPage writePwg(const std::string& path, bool gray) {
  cups_page_header2_t h;
  cupsRasterInitPWGHeader(&h, pwgMediaForPWG(kMedia), gray ? "sgray_8" : "black_8", 203, 203,
                          "one-sided", nullptr);
  TestPage ink = makePhotoPage(h.cupsWidth, h.cupsHeight), page = ink;
  ink.header = page.header = h;
  for (unsigned char& b : page.pixels)
    b = gray ? static_cast<unsigned char>(255 - b) : b;
  std::string error;
  EXPECT_TRUE(writeRasterFile(path, {page}, &error, CUPS_RASTER_WRITE_PWG)) << error;
  return ink;
}

// The page as black_1 (a bit set for ink of 128 or more); the 8-bit page of
// the same dots.
TestPage writePwg1(const std::string& path, const TestPage& ink) {
  cups_page_header2_t h;
  cupsRasterInitPWGHeader(&h, pwgMediaForPWG(kMedia), "black_1", 203, 203, "one-sided", nullptr);
  TestPage bits{h, std::vector<unsigned char>(size_t{h.cupsBytesPerLine} * h.cupsHeight)},
      same = ink;
  for (unsigned y = 0; y < h.cupsHeight; ++y) {
    for (unsigned x = 0; x < h.cupsWidth; ++x) {
      unsigned char& b = same.pixels[size_t{y} * ink.header.cupsBytesPerLine + x];
      b = b >= 128 ? 255 : 0;
      if (b != 0)
        bits.pixels[size_t{y} * h.cupsBytesPerLine + x / 8] |= 0x80 >> (x % 8);
    }
  }
  std::string error;
  EXPECT_TRUE(writeRasterFile(path, {bits}, &error, CUPS_RASTER_WRITE_PWG)) << error;
  return same;
}

class Client {
 public:
  // A domain socket's path (port 0) or a host and port.
  explicit Client(const std::string& host, int port = 0)
      : http_(httpConnect2(host.c_str(), port, nullptr, AF_UNSPEC, HTTP_ENCRYPTION_NEVER, 1, 1000,
                           nullptr)) {}
  Client(const Client&) = delete;
  Client& operator=(const Client&) = delete;
  ~Client() { httpClose(http_); }
  bool connected() const { return http_ != nullptr; }
  std::string media = kMedia;  // of the jobs sent

  ipp_t* request(ipp_op_t op) {
    ipp_t* r = ippNewRequest(op);
    ippAddString(r, IPP_TAG_OPERATION, IPP_TAG_URI, "printer-uri", nullptr, kPrinterUri);
    ippAddString(r, IPP_TAG_OPERATION, IPP_TAG_NAME, "requesting-user-name", nullptr, "test");
    return r;
  }
  ipp_t* send(ipp_t* r, const std::string& file = "") {
    return file.empty() ? cupsDoRequest(http_, r, kResource)
                        : cupsDoFileRequest(http_, r, kResource, file.c_str());
  }

  // Sends `file` with the vendor option `name`=`value`; the job's id.
  int submit(const std::string& file, const char* format, const char* name, const char* value) {
    ipp_t* r = request(IPP_OP_PRINT_JOB);
    ippAddString(r, IPP_TAG_OPERATION, IPP_TAG_NAME, "job-name", nullptr,
                 file.substr(file.rfind('/') + 1).c_str());
    ippAddString(r, IPP_TAG_OPERATION, IPP_TAG_MIMETYPE, "document-format", nullptr, format);
    ippAddString(r, IPP_TAG_JOB, IPP_TAG_KEYWORD, "media", nullptr, media.c_str());
    if (name != nullptr && strcmp(value, "true") == 0)
      ippAddBoolean(r, IPP_TAG_JOB, name, 1);
    else if (name != nullptr)  // else the printer's defaults only
      ippAddString(r, IPP_TAG_JOB, IPP_TAG_KEYWORD, name, nullptr, value);
    ipp_t* response = send(r, file);
    const int id = ippGetInteger(ippFindAttribute(response, "job-id", IPP_TAG_INTEGER), 0);
    ippDelete(response);
    return id;
  }
  // Sends `op` for job `id`; then waits until the job reaches `state` or ends
  // and gives the state it is in.
  int job(int id, ipp_op_t op, int state = IPP_JSTATE_COMPLETED) {
    for (int i = 0, now = 0; id > 0 && i < 3000; ++i) {
      ipp_t* q = request(i == 0 ? op : IPP_OP_GET_JOB_ATTRIBUTES);
      ippAddInteger(q, IPP_TAG_OPERATION, IPP_TAG_INTEGER, "job-id", id);
      ipp_t* a = send(q);
      now = ippGetInteger(ippFindAttribute(a, "job-state", IPP_TAG_ENUM), 0);
      ippDelete(a);
      if (now >= state || now >= IPP_JSTATE_CANCELED)
        return now;
      std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    return 0;
  }
  // The job's id once it has printed, 0 if it did not complete.
  int print(const std::string& file, const char* format, const char* name, const char* value) {
    const int id = submit(file, format, name, value);
    return job(id, IPP_OP_GET_JOB_ATTRIBUTES) == IPP_JSTATE_COMPLETED ? id : 0;
  }

 private:
  http_t* http_ = nullptr;
};

// An attribute's values as IPP writes them, separated by commas.
std::string valuesOf(ipp_t* response, const char* name) {
  char text[4096] = "";
  ippAttributeString(ippFindAttribute(response, name, IPP_TAG_ZERO), text, sizeof text);
  return text;
}

int sh(const std::string& command) {
  return std::system(command.c_str());
}

// The record of page `page`, job `id`, in the page directory under `dir`.
PageRecord recordOf(const std::string& dir, int page, int id) {
  char name[64];
  snprintf(name, sizeof name, "/page_%04d_jobid_%06d_0000.dat", page, id);
  const std::string path = dir + name, file = readFile(path);
  PageRecord record;
  std::string error;
  EXPECT_TRUE(decodePageRecord({file.begin(), file.end()}, &record, &error)) << path << error;
  return record;
}

// What AppJob alone makes of the same rows with the same options.
PageRecord expectedRecord(const std::string& dir, const TestPage& ink, const char* halftone) {
  AppJobValues values;
  values.media = kMedia;
  values.vendor["halftone-type"] = halftone;
  PrinterState state;
  AppJob job(state, PrinterPaths{dir, dir, false}, appJobSettings(values, "ostra"), 1, nullptr);
  captureLog([&] {
    if (job.startPage(ink.header, "w144h72") != nullptr)
      return;
    for (unsigned y = 0; y < ink.header.cupsHeight; ++y)
      job.writeRow(y, ink.pixels.data() + static_cast<size_t>(y) * ink.header.cupsBytesPerLine);
    job.endPage(false);
  });
  return recordOf(dir, 1, 1);
}

// The application with one printer, "ostra" at 203 dpi, whose device is a
// folder; `listen` asks for a private domain socket or, for a browser, a TCP
// port.
class AppServer : public testing::Test {
 protected:
  void start(const std::string& listen, std::string device = "") {
    mkdir((dir + "/dev").c_str(), 0755);
    device = device.empty() ? dir + "/dev" : device;
    cups_option_t* options = nullptr;
    const int n = cupsParseOptions(
        ("spool-directory=" + dir + "/spool page-directory=" + dir + "/pages state-file=" + dir +
         "/state log-file=" + dir + "/log log-level=debug job-time-limit=1 " +
         "file-device-directory=" + device.substr(0, device.rfind('/')) + " " + listen)
            .c_str(),
        0, &options);
    app = appCreateSystem(n, options, &config);
    cupsFreeOptions(n, options);
    ASSERT_NE(app, nullptr);
    if (listen == "private-server=yes") {
      ASSERT_TRUE(papplSystemAddListeners(app, socket.c_str()));
    }
    ASSERT_NE(papplPrinterCreate(app, 0, "ostra", "ostra_203", "MFG:Kiwa;MDL:Ostra;",
                                 ("file://" + device).c_str()),
              nullptr);
    server = std::thread([this] { papplSystemRun(app); });
  }
  // The server sees the shutdown at its next wake-up; a connection is one.
  void TearDown() override {
    if (!server.joinable())
      return;
    papplSystemShutdown(app);
    {
      Client waker = port != 0 ? Client("localhost", port) : Client(socket);
      ippDelete(waker.send(waker.request(IPP_OP_GET_PRINTER_ATTRIBUTES)));
    }
    server.join();
    // No papplSystemDelete: PAPPL 1.3.1 frees the system under client threads
    // still ending, corrupting the heap of the next test in this process.
  }

  const std::string dir = testWorkDir();
  const std::string socket = dir + "/sock";
  int port = 0;
  AppConfig config;
  pappl_system_t* app = nullptr;
  std::thread server;
};

TEST_F(AppServer, AnswersAndPrints) {
  start("private-server=yes");
  {
    Client client(socket);
    ASSERT_TRUE(client.connected());
    ipp_t* attrs = client.send(client.request(IPP_OP_GET_PRINTER_ATTRIBUTES));
    EXPECT_EQ(valuesOf(attrs, "pwg-raster-document-type-supported"), "black_1,black_8,sgray_8");
    const std::string media = valuesOf(attrs, "media-supported");
    for (size_t i = 0; i < kAppMediaCount; ++i)
      EXPECT_NE(media.find(kAppMedia[i].pwg), std::string::npos) << kAppMedia[i].pwg;
    EXPECT_NE(media.find(kAppRollMax), std::string::npos);
    EXPECT_EQ(valuesOf(attrs, "halftone-type-supported").find("none,floyd-steinberg,"), 0u);
    EXPECT_EQ(valuesOf(attrs, "barcode-thinning-supported"), "off,rows,columns");
    EXPECT_EQ(valuesOf(attrs, "printer-make-and-model"), "Kiwa Ostra 203 dpi");
    ippDelete(attrs);

    // The same page in black and in gray prints the same dots, which are the
    // dots AppJob makes of it, and its 1-bit form those of its 8-bit form; a
    // PNG is laid out by PAPPL and just prints.
    const TestPage ink = writePwg(dir + "/black.pwg", false);
    writePwg(dir + "/gray.pwg", true);
    const PageRecord expected = expectedRecord(dir + "/expected", ink, "burkes");
    const PageRecord expected1 =
        expectedRecord(dir + "/expected1", writePwg1(dir + "/black1.pwg", ink), "burkes");
    int page = 0;
    for (const char* file : {"/black.pwg", "/gray.pwg", "/black1.pwg"}) {
      const int id = client.print(dir + file, "image/pwg-raster", "halftone-type", "burkes");
      ASSERT_GT(id, 0);
      const PageRecord got = recordOf(dir + "/pages", ++page, id);
      EXPECT_EQ(got.pageNumber, page);
      EXPECT_TRUE(got.dots == (page == 3 ? expected1 : expected).dots) << file;
    }
    ASSERT_EQ(sh("pdftoppm -r 40 -gray -png -f 1 -l 1 " OSTRA_SOURCE_DIR "/samples/sample.pdf '" +
                 dir + "/sample'"),
              0);
    // A PDF (as a raw CUPS queue sends it) is refused, and the printer goes on.
    EXPECT_EQ(client.print(OSTRA_SOURCE_DIR "/samples/sample.pdf", "application/pdf", 0, 0), 0);
    const int png = client.print(dir + "/sample-1.png", "image/png", "mirror-image", "true");
    EXPECT_GT(recordOf(dir + "/pages", 4, png).blackDots, 0u);
    // A job cancelled while its long page is on its way leaves no record. (A
    // PWG raster would print as it arrives, within its Print-Job request.)
    client.media = kAppRollMax;
    const int id = client.submit(dir + "/sample-1.png", "image/png", "halftone-type", "tattoo");
    ASSERT_EQ(client.job(id, IPP_OP_GET_JOB_ATTRIBUTES, IPP_JSTATE_PROCESSING),
              IPP_JSTATE_PROCESSING);
    EXPECT_EQ(client.job(id, IPP_OP_CANCEL_JOB), IPP_JSTATE_CANCELED);
    // A hundred copies of it are stopped at the time limit.
    ipp_t* copies = client.request(IPP_OP_PRINT_JOB);
    ippAddString(copies, IPP_TAG_OPERATION, IPP_TAG_MIMETYPE, "document-format", nullptr,
                 "image/png");
    ippAddString(copies, IPP_TAG_JOB, IPP_TAG_KEYWORD, "media", nullptr, kAppRollMax);
    ippAddInteger(copies, IPP_TAG_JOB, IPP_TAG_INTEGER, "copies", 100);
    ipp_t* sent = client.send(copies, dir + "/sample-1.png");
    const int late = ippGetInteger(ippFindAttribute(sent, "job-id", IPP_TAG_INTEGER), 0);
    ippDelete(sent);
    EXPECT_EQ(client.job(late, IPP_OP_GET_JOB_ATTRIBUTES), IPP_JSTATE_ABORTED);
    EXPECT_EQ(sh("grep -c 'not done within 1 s' '" + dir + "/log' | grep -qx 1"), 0);
    EXPECT_EQ(sh("ls '" + dir + "/pages' | grep -c page_0004 | grep -qx 1"), 0);
    // Each job sent its setting block to the device: speed 4, Middle.
    EXPECT_EQ(readFile(dir + "/dev/black.pwg.prn"), std::string("\x1bs\x01\x00\x00\x02\x01", 7));
  }
}

// A proof is what a print makes: for every halftone type the record a proof
// holds is the record the same image printed with the same options leaves,
// byte for byte, and proofs write nothing. Through the proof page: the
// picture is ostra-preview's of what its Print button printed, and the sheet
// holds the ten halftones.
TEST_F(AppServer, ProofIsWhatPrints) {
  start("private-server=yes");
  Client client(socket);
  ASSERT_TRUE(client.connected());
  const std::string image = dir + "/sample-1.png";
  ASSERT_EQ(sh("pdftoppm -r 40 -gray -png -f 1 -l 1 " OSTRA_SOURCE_DIR "/samples/sample.pdf '" +
               dir + "/sample'"),
            0);
  pappl_printer_t* printer = papplSystemFindPrinter(app, kResource, 0, nullptr);
  ASSERT_NE(printer, nullptr);
  int page = 0;
  for (const std::string& halftone : appVendorOptions()[0].values) {
    ipp_t* attrs = ippNew();
    ippAddString(attrs, IPP_TAG_JOB, IPP_TAG_KEYWORD, "media", nullptr, kMedia);
    ippAddString(attrs, IPP_TAG_JOB, IPP_TAG_KEYWORD, "halftone-type", nullptr, halftone.c_str());
    const AppProof proof = appProofDocument(printer, image, attrs, dir + "/pages");
    ippDelete(attrs);
    ASSERT_EQ(proof.records.size(), 1u) << halftone << proof.error;
    const int id = client.print(image, "image/png", "halftone-type", halftone.c_str());
    char name[64];
    snprintf(name, sizeof name, "/pages/page_%04d_jobid_%06d_0000.dat", ++page, id);
    EXPECT_EQ(std::string(proof.records[0].bytes.begin(), proof.records[0].bytes.end()),
              readFile(dir + name))
        << halftone;
  }
  EXPECT_EQ(sh("ls '" + dir + "/pages' | grep -c page_ | grep -qx 10"), 0);

  // The page, as a browser sends it: the form's session, the image, the
  // options. Print prints what the proof showed; the sheet has ten proofs.
  const std::string curl = "curl -s --unix-socket '" + socket + "' http://localhost/ostra/proof";
  // A field's value on a page, as the shell reads it for the next request.
  auto valueOf = [&](const std::string& name, const std::string& page) {
    return "\"$(" + page + " | sed -n 's/.*name=\"" + name +
           "\" value=\"\\([^\"]*\\)\".*/\\1/p')\"";
  };
  // Sent as a browser sends the form: the page's session, the options, and
  // the image or the kept upload, with the button pressed.
  auto post = [&](const std::string& fields, const std::string& out) {
    return sh(curl + " -F session=" + valueOf("session", curl) + " -F media=" + kMedia +
              " -F halftone-type=tattoo-q7 " + fields + " >'" + dir + "/" + out + "'") == 0;
  };
  for (int i = 0; i < 100 && sh(curl + " | grep -q 'name=\"session\"'") != 0; ++i)
    std::this_thread::sleep_for(std::chrono::milliseconds(50));  // added at the first save
  ASSERT_TRUE(post("-F 'document=@" + image + "'", "proof.html"));
  ASSERT_EQ(sh("sed -n 's/.*base64,\\([^\"]*\\)\".*/\\1/p' '" + dir +
               "/proof.html' | base64 -d >'" + dir + "/proof.png'"),
            0);
  const std::string upload = "-F upload=" + valueOf("upload", "cat '" + dir + "/proof.html'");
  ASSERT_TRUE(post(upload + " -F action=print", "print.html"));
  const std::string printed = readFile(dir + "/print.html");
  const size_t at = printed.find("Printing as job ");
  ASSERT_NE(at, std::string::npos);
  const int id = atoi(printed.c_str() + at + 16);
  ASSERT_EQ(client.job(id, IPP_OP_GET_JOB_ATTRIBUTES), IPP_JSTATE_COMPLETED);
  char name[64];
  snprintf(name, sizeof name, "/pages/page_%04d_jobid_%06d_0000.dat", page + 1, id);
  ASSERT_EQ(sh("'" OSTRA_PREVIEW_PATH "' -o '" + dir + "' '" + dir + name + "' >/dev/null"), 0);
  auto pixels = [](const std::string& path) {
    png_image png{};
    png.version = PNG_IMAGE_VERSION;
    std::vector<unsigned char> gray;
    if (png_image_begin_read_from_file(&png, path.c_str()) != 0) {
      png.format = PNG_FORMAT_GRAY;
      gray.resize(PNG_IMAGE_SIZE(png));
      png_image_finish_read(&png, nullptr, gray.data(), 0, nullptr);
    }
    return gray;
  };
  const std::vector<unsigned char> shown = pixels(dir + "/proof.png");
  EXPECT_GT(shown.size(), 1000u);
  EXPECT_TRUE(shown == pixels(dir + std::string(name + 6, strlen(name) - 10) + ".png"));
  ASSERT_TRUE(post(upload + " -F action=sheet", "sheet.html"));
  EXPECT_EQ(sh("grep -o 'name=\"pick\"' '" + dir + "/sheet.html' | grep -c . | grep -qx 10"), 0);
  // The last prints: the eleven records, newest first.
  EXPECT_EQ(sh("curl -s --unix-socket '" + socket + "' http://localhost/ostra/prints >'" + dir +
               "/prints.html' && grep -o '<figure' '" + dir +
               "/prints.html' | grep -c . | grep -qx 11 && grep -q 'Job " + std::to_string(id) +
               ",' '" + dir + "/prints.html'"),
            0);
  // The proof as a browser draws it, kept beside the test's files.
  sh("chromium --headless --no-sandbox --disable-gpu --disable-crash-reporter --user-data-dir='" +
     dir + "/chromium' --window-size=1000,700 --screenshot='" + dir + "/proof-page.png' 'file://" +
     dir + "/proof.html' >/dev/null 2>&1");
  EXPECT_GT(readFile(dir + "/proof-page.png").size(), 10000u);
}

// A document that cannot be printed as sent aborts its own job within 10 s,
// with a reason and one log line, and leaves no record; the printer goes on.
TEST_F(AppServer, BadDocumentsAbortOnlyTheirJob) {
  start("private-server=yes");
  Client client(socket);
  ASSERT_EQ(sh("cd '" + dir +
               "' && pdftoppm -r 40 -gray -f 1 -l 1 -png " OSTRA_SOURCE_DIR
               "/samples/sample.pdf ok && pdftoppm -r 40 -gray -f 1 -l 1 -jpeg " OSTRA_SOURCE_DIR
               "/samples/sample.pdf ok"),
            0);
  auto save = [&](const std::string& name, const std::string& bytes) {
    std::ofstream(dir + "/" + name, std::ios::binary) << bytes;
    return dir + "/" + name;
  };
  const std::string png = readFile(dir + "/ok-1.png"), jpeg = readFile(dir + "/ok-1.jpg");
  writePwg(dir + "/page.pwg", false);
  const std::string pwg = readFile(dir + "/page.pwg");
  // PWG pages wider than the head's limit (4096 dots) and 16 bits deep.
  auto pwgPage = [&](const std::string& name, int width, const char* type) {
    cups_page_header2_t h;
    cupsRasterInitPWGHeader(&h, pwgMediaForSize(width * 2540 / 203, 2540), type, 203, 203,
                            "one-sided", nullptr);
    TestPage page{h, std::vector<unsigned char>(size_t{h.cupsBytesPerLine} * h.cupsHeight)};
    std::string error;
    EXPECT_TRUE(writeRasterFile(dir + name, {page}, &error, CUPS_RASTER_WRITE_PWG)) << error;
    return dir + name;
  };
  // A PNG that says it is 100000 pixels square, and ends there.
  FILE* huge = fopen((dir + "/huge.png").c_str(), "wb");
  png_structp w = png_create_write_struct(PNG_LIBPNG_VER_STRING, nullptr, nullptr, nullptr);
  png_infop info = png_create_info_struct(w);
  png_init_io(w, huge);
  png_set_IHDR(w, info, 100000, 100000, 8, PNG_COLOR_TYPE_GRAY, PNG_INTERLACE_NONE,
               PNG_COMPRESSION_TYPE_DEFAULT, PNG_FILTER_TYPE_DEFAULT);
  png_set_compression_level(w, 0);  // the row goes out uncompressed, at once
  png_write_info(w, info);
  png_write_row(w, std::vector<png_byte>(100000).data());
  png_destroy_write_struct(&w, &info);
  fclose(huge);
  const struct {
    std::string file;
    const char *format, *reason;
  } cases[] = {
      {dir + "/huge.png", "image/png", "document-unprintable-error"},
      {save("cut.png", png.substr(0, png.size() / 2)), "image/png", "document-format-error"},
      {OSTRA_SOURCE_DIR "/samples/sample.pdf", "image/png", "document-format-error"},
      {save("cut.jpg", jpeg.substr(0, jpeg.size() / 2)), "image/jpeg", "document-format-error"},
      {save("junk.jpg", "\xff\xd8" + std::string(300, 'Z')), "image/jpeg", "document-format-error"},
      {save("cut.pwg", pwg.substr(0, pwg.size() * 3 / 5)), "image/pwg-raster",
       "document-format-error"},
      {pwgPage("/wide.pwg", 4100, "black_8"), "image/pwg-raster", "document-unprintable-error"},
      {pwgPage("/deep.pwg", 400, "sgray_16"), "image/pwg-raster", "document-format-error"},
  };
  for (const auto& c : cases) {
    const auto begin = std::chrono::steady_clock::now();
    const int id = client.submit(c.file, c.format, nullptr, nullptr);
    EXPECT_EQ(client.job(id, IPP_OP_GET_JOB_ATTRIBUTES), IPP_JSTATE_ABORTED) << c.file;
    EXPECT_LT(std::chrono::steady_clock::now() - begin, std::chrono::seconds(10)) << c.file;
    ipp_t* q = client.request(IPP_OP_GET_JOB_ATTRIBUTES);
    ippAddInteger(q, IPP_TAG_OPERATION, IPP_TAG_INTEGER, "job-id", id);
    ipp_t* a = client.send(q);
    EXPECT_NE(valuesOf(a, "job-state-reasons").find(c.reason), std::string::npos) << c.file;
    ippDelete(a);
  }
  // An empty document is refused at once.
  EXPECT_EQ(client.submit(save("empty.png", ""), "image/png", nullptr, nullptr), 0);
  EXPECT_EQ(sh("grep -c '^E.*\\(cannot be printed\\|ended after\\|not printed\\|Bad raster\\)' '" +
               dir + "/log' | grep -qx 8"),
            0);
  EXPECT_EQ(sh("ls '" + dir + "/pages' | grep -c page_ | grep -qx 0"), 0);
  EXPECT_GT(client.print(dir + "/ok-1.jpg", "image/jpeg", nullptr, nullptr), 0);
}

// A device that takes nothing: the job is aborted, the printer shows itself
// offline, and no page record is kept.
TEST_F(AppServer, DeviceFailureAbortsTheJob) {
  start("private-server=yes", "/dev/full");
  Client client(socket);
  writePwg(dir + "/black.pwg", false);
  const int id = client.submit(dir + "/black.pwg", "image/pwg-raster", nullptr, nullptr);
  EXPECT_EQ(client.job(id, IPP_OP_GET_JOB_ATTRIBUTES), IPP_JSTATE_ABORTED);
  ipp_t* attrs = client.send(client.request(IPP_OP_GET_PRINTER_ATTRIBUTES));
  EXPECT_NE(valuesOf(attrs, "printer-state-reasons").find("offline"), std::string::npos);
  ippDelete(attrs);
  EXPECT_EQ(sh("ls '" + dir + "/pages' 2>/dev/null | grep -c page_ | grep -qx 0"), 0);
}

// Every page of the web interface in headless Chromium, which cannot log in:
// admin without a login from this host, as an admin may allow on purpose.
// A screenshot of the printing defaults is kept beside the test's files.
TEST_F(AppServer, WebPagesInABrowser) {
  start("server-port=0 listen-hostname=localhost allow-unauthenticated-admin=true");
  port = papplSystemGetHostPort(app);
  Client client("localhost", port);
  ASSERT_TRUE(client.connected());

  const std::string base = "http://localhost:" + std::to_string(port);
  const std::string browser =
      "chromium --headless --no-sandbox --disable-gpu --disable-crash-reporter "
      "--user-data-dir='" +
      dir + "/chromium' ";
  auto dom = [&](const std::string& path) {
    const std::string out = dir + "/page.html";
    sh(browser + "--dump-dom '" + base + path + "' >'" + out + "' 2>/dev/null");
    return readFile(out);
  };
  std::set<std::string> pages = {"/", "/ostra/printing", "/ostra/media"};
  const std::string home = dom("/");
  for (size_t at = 0; (at = home.find("href=\"", at)) != std::string::npos;) {
    at += 6;
    std::string link = home.substr(at, home.find('"', at) - at);
    if (link.compare(0, base.size(), base) == 0)
      link.erase(0, base.size());
    if (link[0] == '/' && link.find('.') == std::string::npos)
      pages.insert(link);
  }
  for (const std::string& page : pages)
    EXPECT_NE(dom(page).find("Ostra label and tattoo stencil printer application"),
              std::string::npos)
        << page;
  const std::string shot = dir + "/printing-defaults.png";
  sh(browser + "--window-size=1000,1600 --screenshot='" + shot + "' '" + base +
     "/ostra/printing' >/dev/null 2>&1");
  EXPECT_GT(readFile(shot).size(), 10000u);
}

// A file device writes where its path leads once links and ".." are followed
// (a file not there yet by its directory), and only inside the directory
// named at start-up; the file device reads 255 characters of a path at most.
TEST(AppAccess, FileDevicesStayInTheirDirectory) {
  const std::string dir = testWorkDir(), in = "file://" + dir + "/dev";
  mkdir((dir + "/dev").c_str(), 0755);
  mkdir((dir + "/dev2").c_str(), 0755);
  symlink("/etc", (dir + "/dev/etc").c_str());
  const std::string longest(255 - (dir + "/dev/").size(), 'a');
  AppAccess access;
  access.fileDeviceDirectory = dir + "/dev";
  const struct {
    std::string uri;
    bool allowed;
  } cases[] = {{"usb://Kiwa/Ostra?serial=1", true},
               {"socket://printer.local", true},
               {in, true},
               {in + "/", true},
               {in + "/" + longest, true},
               {in + "/" + longest + "a", false},
               {in + "/new.prn?ext=x/y", true},
               {in + "2", false},
               {"file://" + dir, false},
               {in + "/../dev2/x", false},
               {in + "/etc/passwd", false},
               {in + "/missing/x", false},
               {in + "/..", false},
               {"not a uri", false}};
  std::string why;
  for (const auto& c : cases)
    EXPECT_EQ(appDeviceAllowed(c.uri, access, &why), c.allowed) << c.uri << ": " << why;
  access.fileDeviceDirectory.clear();
  EXPECT_FALSE(appDeviceAllowed(in, access, &why));
}

}  // namespace
