#include "printer/record_sink.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstring>

#include "common/kiwa_common.h"

namespace {

constexpr int kMaxNameSuffix = 1000000;
constexpr int kMaxTemporaryTries = 1000;

std::string directoryOf(const std::string& path) {
  const size_t slash = path.rfind('/');
  return slash == std::string::npos ? std::string(".") : path.substr(0, slash + 1);
}

bool writeAll(int fd, const unsigned char* data, size_t size) {
  while (size > 0) {
    const ssize_t n = write(fd, data, size);
    if (n < 0 && errno == EINTR)
      continue;
    if (n <= 0)
      return false;
    data += n;
    size -= static_cast<size_t>(n);
  }
  return true;
}

// Writes the bytes to a new hidden file beside `path`, so that a reader of the
// directory never sees a file half-written under a name it looks for. Returns
// the file's name, or an empty string with errno set.
std::string writeTemporary(const std::string& path, const unsigned char* data, size_t size) {
  // Short whatever the final name, which may be near the longest allowed.
  const std::string hidden = directoryOf(path) + ".rastertoostra-" + std::to_string(getpid());
  for (int n = 0; n < kMaxTemporaryTries; ++n) {
    std::string temp = hidden + "-" + std::to_string(n);
    const int fd = open(temp.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0666);
    if (fd < 0 && errno == EEXIST)
      continue;
    if (fd < 0)
      return std::string();
    bool written = writeAll(fd, data, size);
    int error = errno;
    if (close(fd) != 0 && written) {
      written = false;
      error = errno;
    }
    if (written)
      return temp;
    unlink(temp.c_str());
    errno = error;
    return std::string();
  }
  errno = EEXIST;
  return std::string();
}

std::string pageFilePath(const std::string& dir, unsigned short pageNum, int jobId, int n) {
  char name[64];
  snprintf(name, sizeof(name), "/page_%04d_jobid_%06d_%04d.dat", pageNum, jobId, n);
  return dir + name;
}

bool canOpenForReading(const std::string& path) {
  FILE* f = fopen(path.c_str(), "r");
  if (f == nullptr)
    return false;
  fclose(f);
  return true;
}

// The counter's two bytes, low first.
std::array<unsigned char, 2> le16(uint16_t value) {
  return {static_cast<unsigned char>(value & 0xFF), static_cast<unsigned char>(value >> 8)};
}

RecordSink::Kept fail(RecordFailure* where, const char* what, std::string path, int error) {
  where->what = what;
  where->path = std::move(path);
  where->error = error;
  return RecordSink::Kept::Failed;
}

}  // namespace

FileRecordSink::FileRecordSink(std::string dir, const char* printerName, bool journal)
    : dir_(std::move(dir)), journal_(journal) {
  // A name that would lead out of the directory, or is too long, names no file.
  if (printerName != nullptr && strchr(printerName, '/') == nullptr &&
      strlen(printerName) + sizeof(".pgc") - 1 <= NAME_MAX)
    counter_ = dir_ + "/" + printerName + ".pgc";
}

void FileRecordSink::loadCounter(uint16_t* pageNum) {
  FILE* f = counter_.empty() ? nullptr : kiwaOpenForReading(counter_.c_str());
  if (f == nullptr)
    return;
  // A short file overwrites only the bytes it has.
  std::array<unsigned char, 2> bytes = le16(*pageNum);
  if (fread(bytes.data(), 1, bytes.size(), f) > 0)
    *pageNum = static_cast<uint16_t>(bytes[0] | (bytes[1] << 8));
  fclose(f);
}

bool FileRecordSink::storeCounter(uint16_t pageNum, RecordFailure* failure) {
  // No page directory yet means no page was kept: nothing is stored.
  if (counter_.empty() || access(directoryOf(counter_).c_str(), F_OK) != 0)
    return true;
  const std::array<unsigned char, 2> bytes = le16(pageNum);
  // Moved over the old counter in one step: a job starting meanwhile reads
  // either the old value or the new one, never a torn file.
  const std::string temp = writeTemporary(counter_, bytes.data(), bytes.size());
  if (temp.empty() || rename(temp.c_str(), counter_.c_str()) != 0) {
    const int error = errno;
    if (!temp.empty())
      unlink(temp.c_str());
    fail(failure, "page counter", counter_, error);
    return false;
  }
  if (journal_)
    unlink((counter_ + ".journal").c_str());
  return true;
}

bool FileRecordSink::writeJournal(uint16_t next, RecordFailure* failure) {
  const std::array<unsigned char, 2> bytes = le16(next >= kPageNumWrap ? 1 : next);
  const std::string path = counter_ + ".journal";
  if (ostraReplaceFile(path, bytes.data(), bytes.size()))
    return true;
  fail(failure, "page counter journal", path, errno);
  return false;
}

RecordSink::Kept FileRecordSink::keepPage(uint16_t pageNum, int jobId, const unsigned char* data,
                                          size_t size, const std::function<bool()>& abandon,
                                          RecordFailure* where) {
  // The journal goes first, so that a number may be skipped but none used
  // twice; only the first record makes the directory, and its entry follows.
  const bool journal = journal_ && !counter_.empty();
  const bool journalFirst = journal && access(dir_.c_str(), F_OK) == 0;
  const uint16_t next = static_cast<uint16_t>(pageNum + 1);
  if (journalFirst && !writeJournal(next, where))
    return Kept::Failed;
  if (access(dir_.c_str(), F_OK) != 0)
    mkdir(dir_.c_str(), 0700);

  int n = 0;
  std::string path = pageFilePath(dir_, pageNum, jobId, n);
  const std::string temp = writeTemporary(path, data, size);
  if (temp.empty())
    return fail(where, "page file", path, errno);
  if (abandon && abandon()) {
    unlink(temp.c_str());
    return Kept::Abandoned;
  }
  // The first free name; one that appears between the look and the link is
  // never replaced, the search goes on past it.
  bool placed = false;
  int error = EEXIST;
  for (; n < kMaxNameSuffix && !placed && error == EEXIST; ++n) {
    path = pageFilePath(dir_, pageNum, jobId, n);
    if (canOpenForReading(path))
      continue;
    placed = link(temp.c_str(), path.c_str()) == 0;
    if (!placed)
      error = errno;
  }
  unlink(temp.c_str());
  if (!placed)
    return fail(where, "page file", path, error);
  if (journal && !journalFirst && !writeJournal(next, where))
    return Kept::Failed;
  where->path = path;
  return Kept::Yes;
}

bool MemoryRecordSink::storeCounter(uint16_t pageNum, RecordFailure*) {
  counter_ = pageNum;
  return true;
}

RecordSink::Kept MemoryRecordSink::keepPage(uint16_t pageNum, int jobId, const unsigned char* data,
                                            size_t size, const std::function<bool()>& abandon,
                                            RecordFailure* where) {
  if (abandon && abandon())
    return Kept::Abandoned;
  records_.push_back(Record{pageNum, jobId, std::vector<unsigned char>(data, data + size)});
  where->path = "memory";
  return Kept::Yes;
}

bool ostraReplaceFile(const std::string& path, const void* data, size_t size) {
  const std::string temp = path + ".new";
  FILE* out = fopen(temp.c_str(), "wb");
  bool ok = out != nullptr && fwrite(data, 1, size, out) == size && fflush(out) == 0 &&
            fsync(fileno(out)) == 0;
  int error = errno;
  if (out != nullptr && fclose(out) != 0 && ok) {
    ok = false;
    error = errno;
  }
  if (ok && rename(temp.c_str(), path.c_str()) == 0)
    return true;
  error = ok ? errno : error;
  unlink(temp.c_str());
  errno = error;
  return false;
}
