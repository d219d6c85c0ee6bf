// The printer application running in this process, on a private domain
// socket with a file device and its own page directory: what it answers over
// IPP, and the page records its jobs leave.
#include <cups/cups.h>
#include <cups/raster.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <pappl/pappl.h>
#include <png.h>
#include <poll.h>
#include <signal.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>
#include <nlohmann/json.hpp>

#include <chrono>
#include <cstdlib>
#include <fstream>
#include <random>
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

// Headless Chromium driven as a user drives it, over its DevTools pipe (it
// reads commands on descriptor 3 and answers on 4, each JSON message ended by
// a NUL): open a page, choose a file, press buttons, read the page back.
class Browser {
 public:
  explicit Browser(const std::string& profile) {
    int commands[2], answers[2];
    if (pipe(commands) != 0 || pipe(answers) != 0)
      return;
    pid_ = fork();
    if (pid_ == 0) {
      dup2(commands[0], 3);
      dup2(answers[1], 4);
      const int quiet = ::open("/dev/null", O_WRONLY);
      dup2(quiet, 1);
      dup2(quiet, 2);
      const std::string data = "--user-data-dir=" + profile;
      execlp("chromium", "chromium", "--headless", "--no-sandbox", "--disable-gpu",
             "--disable-crash-reporter", "--remote-debugging-pipe", "--window-size=1000,1100",
             data.c_str(), "about:blank", static_cast<char*>(nullptr));
      _exit(127);
    }
    close(commands[0]);
    close(answers[1]);
    to_ = commands[1];
    from_ = answers[0];
  }
  Browser(const Browser&) = delete;
  Browser& operator=(const Browser&) = delete;
  ~Browser() {
    call("Browser.close");
    close(to_);
    close(from_);
    if (pid_ > 0 && waitpid(pid_, nullptr, WNOHANG) == 0) {
      std::this_thread::sleep_for(std::chrono::milliseconds(500));
      kill(pid_, SIGKILL);
      waitpid(pid_, nullptr, 0);
    }
  }

  // Sends a command (to the page's session when opened) and returns its answer.
  nlohmann::json call(const std::string& method, nlohmann::json params = nlohmann::json::object()) {
    nlohmann::json command = {{"id", ++last_}, {"method", method}, {"params", params}};
    if (!session_.empty() && method.rfind("Target.", 0) != 0 && method != "Browser.close")
      command["sessionId"] = session_;
    const std::string text = command.dump() + '\0';
    if (write(to_, text.data(), text.size()) != static_cast<ssize_t>(text.size()))
      return nullptr;
    for (std::string message; readMessage(&message);) {
      nlohmann::json answer = nlohmann::json::parse(message, nullptr, false);
      if (answer.is_object() && answer.value("id", 0) == last_)
        return answer;
    }
    return nullptr;
  }
  void open(const std::string& url) {
    const auto target = call("Target.createTarget", {{"url", url}})["result"]["targetId"];
    session_ =
        call("Target.attachToTarget", {{"targetId", target}, {"flatten", true}})["result"].value(
            "sessionId", "");
  }
  nlohmann::json evaluate(const std::string& script) {
    const nlohmann::json answer =
        call("Runtime.evaluate", {{"expression", script}, {"returnByValue", true}});
    return answer.is_object() && answer.contains("result") && answer["result"].contains("result")
               ? answer["result"]["result"].value("value", nlohmann::json())
               : nlohmann::json();
  }
  std::string text(const std::string& script) {
    const nlohmann::json value = evaluate(script);
    return value.is_string() ? value.get<std::string>() : std::string();
  }
  // Waits (up to 30 s) until `script` is true in the page, across loads.
  bool waitFor(const std::string& script) {
    for (int i = 0; i < 300; ++i) {
      if (evaluate(script) == true)
        return true;
      std::this_thread::sleep_for(std::chrono::milliseconds(100));
    }
    return false;
  }
  // Sets the page's file input, as choosing a file in its dialog does.
  bool choose(const std::string& selector, const std::string& file) {
    const auto root = call("DOM.getDocument")["result"]["root"]["nodeId"];
    const auto input =
        call("DOM.querySelector", {{"nodeId", root}, {"selector", selector}})["result"]["nodeId"];
    return call("DOM.setFileInputFiles", {{"files", {file}}, {"nodeId", input}}).contains("result");
  }

 private:
  bool readMessage(std::string* message) {
    message->clear();
    for (char c;;) {
      pollfd ready{from_, POLLIN, 0};
      if (poll(&ready, 1, 30000) != 1 || ::read(from_, &c, 1) != 1)
        return false;
      if (c == '\0')
        return true;
      *message += c;
    }
  }
  pid_t pid_ = -1;
  int to_ = -1, from_ = -1, last_ = 0;
  std::string session_;
};

// Bytes from base64 text (libcups's decoder).
std::string fromBase64(const std::string& text) {
  std::string bytes(text.size(), '\0');
  int size = static_cast<int>(bytes.size());
  httpDecode64_2(&bytes[0], &size, text.c_str());
  bytes.resize(static_cast<size_t>(size));
  return bytes;
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
  start("server-port=0 listen-hostname=localhost allow-unauthenticated-admin=true");
  port = papplSystemGetHostPort(app);
  Client client("localhost", port);
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

  // In a browser: choose the image and the options, Proof; the ten halftones;
  // pick one; Print. The proof's picture is ostra-preview's of that print.
  const std::string base = "http://localhost:" + std::to_string(port);
  for (int i = 0; i < 100 && sh("curl -sf " + base + "/ostra/proof >/dev/null") != 0; ++i)
    std::this_thread::sleep_for(std::chrono::milliseconds(50));  // added at the first save
  Browser browser(dir + "/chromium");
  browser.open(base + "/ostra/proof");
  ASSERT_TRUE(
      browser.waitFor("document.readyState == 'complete' && "
                      "!!document.querySelector('button[value=proof]')"));
  bool chosen = false;
  for (int i = 0; i < 20 && !(chosen = browser.choose("input[type=file]", image)); ++i)
    std::this_thread::sleep_for(std::chrono::milliseconds(100));
  ASSERT_TRUE(chosen);
  browser.evaluate(std::string("document.querySelector('select[name=media]').value = '") + kMedia +
                   "'; document.querySelector('button[value=sheet]').click()");
  ASSERT_TRUE(browser.waitFor("document.querySelectorAll('button[name=pick]').length == 10"));
  browser.evaluate("document.querySelector('button[name=pick][value=tattoo-q7]').click()");
  ASSERT_TRUE(browser.waitFor("!!document.getElementById('proof')"));
  const std::string source = browser.text("document.getElementById('proof').src");
  std::ofstream(dir + "/proof.png", std::ios::binary)
      << fromBase64(source.substr(source.find(',') + 1));
  const nlohmann::json shot = browser.call("Page.captureScreenshot");
  if (shot.is_object() && shot.contains("result"))
    std::ofstream(dir + "/proof-page.png", std::ios::binary)
        << fromBase64(shot["result"].value("data", ""));
  browser.evaluate("document.querySelector('button[value=print]').click()");
  ASSERT_TRUE(browser.waitFor("document.body.innerText.indexOf('Printing as job') >= 0"));
  const std::string said = browser.text("document.body.innerText");
  const int id = atoi(said.c_str() + said.find("Printing as job") + 16);
  ASSERT_EQ(client.job(id, IPP_OP_GET_JOB_ATTRIBUTES), IPP_JSTATE_COMPLETED);
  char name[64];
  snprintf(name, sizeof name, "/page_%04d_jobid_%06d_0000", page + 1, id);
  ASSERT_EQ(sh("'" OSTRA_PREVIEW_PATH "' -o '" + dir + "' '" + dir + "/pages" + name + ".dat'"), 0);
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
  EXPECT_TRUE(shown == pixels(dir + name + ".png"));
  EXPECT_GT(readFile(dir + "/proof-page.png").size(), 10000u);

  // Save as default: the proof's options become the printer's.
  browser.evaluate("document.querySelector('button[value=defaults]').click()");
  ASSERT_TRUE(browser.waitFor("document.body.innerText.indexOf('now the printer') >= 0"));
  ipp_t* defaults = client.send(client.request(IPP_OP_GET_PRINTER_ATTRIBUTES));
  EXPECT_EQ(valuesOf(defaults, "halftone-type-default"), "tattoo-q7");
  EXPECT_EQ(valuesOf(defaults, "media-default"), kMedia);
  ippDelete(defaults);

  // A photo of more than the 2 MB PAPPL reads of a form is proofed (the page
  // sends it alone first); a damaged image gets a reason on the page.
  std::vector<unsigned char> noise(1800 * 1400);
  std::mt19937 random(7);
  for (unsigned char& b : noise)
    b = static_cast<unsigned char>(random());
  png_image photo{};
  photo.version = PNG_IMAGE_VERSION;
  photo.width = 1800;
  photo.height = 1400;
  photo.format = PNG_FORMAT_GRAY;
  ASSERT_TRUE(
      png_image_write_to_file(&photo, (dir + "/photo.png").c_str(), 0, noise.data(), 0, nullptr));
  ASSERT_GT(readFile(dir + "/photo.png").size(), 2u << 20);
  std::ofstream(dir + "/damaged.png", std::ios::binary) << readFile(image).substr(0, 200);
  ASSERT_TRUE(browser.waitFor("!!document.querySelector('input[type=file]')"));
  ASSERT_TRUE(browser.choose("input[type=file]", dir + "/photo.png"));
  browser.evaluate("document.querySelector('button[value=proof]').click()");
  ASSERT_TRUE(browser.waitFor("!!document.getElementById('proof')"));
  ASSERT_TRUE(browser.choose("input[type=file]", dir + "/damaged.png"));
  browser.evaluate("document.querySelector('button[value=proof]').click()");
  EXPECT_TRUE(
      browser.waitFor("document.body.innerText.indexOf('No proof: the image is "
                      "damaged') >= 0"));

  // The last prints: the eleven records, newest first.
  browser.evaluate("location.href = '/ostra/prints'");
  ASSERT_TRUE(browser.waitFor("document.querySelectorAll('figure').length == 11"));
  EXPECT_EQ(browser.text("document.querySelector('figcaption').innerText")
                .find("Job " + std::to_string(id) + ","),
            0u);
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
