// Where a job's page records and page counter go: files in the page
// directory, as the printer-side program reads them, or memory.
#ifndef OSTRA_PRINTER_RECORD_SINK_H
#define OSTRA_PRINTER_RECORD_SINK_H

#include <cstddef>
#include <cstdint>
#include <functional>
#include <string>
#include <vector>

// The page counter goes back to 1 when a job ends at this value or above.
constexpr uint16_t kPageNumWrap = 9000;

// What could not be written: the kind of file, its path and the error.
struct RecordFailure {
  const char* what = "";
  std::string path;
  int error = 0;
};

class RecordSink {
 public:
  virtual ~RecordSink() = default;
  // Sets `pageNum` from the stored counter; a store shorter than two bytes
  // replaces only the bytes it has (low byte first), a missing one none.
  virtual void loadCounter(uint16_t* pageNum) = 0;
  // Stores the counter after a job; false, with why, when it could not be.
  virtual bool storeCounter(uint16_t pageNum, RecordFailure* failure) = 0;
  enum class Kept { Yes, Abandoned, Failed };
  // Keeps one page record; `abandon` is asked once the record is whole and
  // before it is kept, and true drops it. `where` is where it went, or why not.
  virtual Kept keepPage(uint16_t pageNum, int jobId, const unsigned char* data, size_t size,
                        const std::function<bool()>& abandon, RecordFailure* where) = 0;
};

// The page directory: "page_NNNN_jobid_NNNNNN_NNNN.dat" records, each moved
// into place whole under the first free name, and "<printer>.pgc", the
// counter, two bytes low first. A printer name that cannot name a file in the
// directory keeps no counter. With `journal`, the value the counter will take
// goes to "<printer>.pgc.journal" before each record (after the first, which
// makes the directory), for a server that may die inside a job; storing the
// counter removes it.
class FileRecordSink : public RecordSink {
 public:
  // No counter without a printer name.
  FileRecordSink(std::string dir, const char* printerName, bool journal = false);
  void loadCounter(uint16_t* pageNum) override;
  bool storeCounter(uint16_t pageNum, RecordFailure* failure) override;
  Kept keepPage(uint16_t pageNum, int jobId, const unsigned char* data, size_t size,
                const std::function<bool()>& abandon, RecordFailure* where) override;
  const std::string& counterPath() const { return counter_; }

 private:
  std::string dir_;
  std::string counter_;  // empty: no counter
  bool journal_;

  bool writeJournal(uint16_t next, RecordFailure* failure);
};

// Records kept in memory: nothing touches the disk or the stored counter.
class MemoryRecordSink : public RecordSink {
 public:
  struct Record {
    uint16_t pageNum;
    int jobId;
    std::vector<unsigned char> bytes;
  };
  explicit MemoryRecordSink(uint16_t counter = 1) : counter_(counter) {}
  void loadCounter(uint16_t* pageNum) override { *pageNum = counter_; }
  bool storeCounter(uint16_t pageNum, RecordFailure*) override;
  Kept keepPage(uint16_t pageNum, int jobId, const unsigned char* data, size_t size,
                const std::function<bool()>& abandon, RecordFailure* where) override;
  const std::vector<Record>& records() const { return records_; }
  uint16_t counter() const { return counter_; }

 private:
  uint16_t counter_;
  std::vector<Record> records_;
};

// Writes `size` bytes as the whole of `path`, in one step and on disk (a
// sibling ".new" file, synced, then renamed over it); false, errno set, if not.
bool ostraReplaceFile(const std::string& path, const void* data, size_t size);

#endif  // OSTRA_PRINTER_RECORD_SINK_H
