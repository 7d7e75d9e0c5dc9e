// Batches that wait on disk while the database is away or slow: one file
// per batch in a folder, oldest first, kept across runs. Bounded: past the
// limit the oldest batches lose their ticks (never their bars).
#ifndef KELQUOTE_TOOLS_RECORD_SPOOL_H_
#define KELQUOTE_TOOLS_RECORD_SPOOL_H_

#include <cstdint>
#include <deque>
#include <filesystem>
#include <string>

#include "store/store.h"

namespace record {

class Spool {
 public:
  Spool(std::filesystem::path folder, uint64_t max_bytes) : folder_(std::move(folder)), max_bytes_(max_bytes) {}

  // Creates the folder and takes in the batches a previous run left.
  bool Open(std::string* error);
  bool Push(const kqstore::Batch& batch, std::string* error);
  // Reads the oldest batch; false when there is none or it cannot be read
  // (an unreadable file is set aside as *.bad, with *error set).
  bool Front(kqstore::Batch* batch, std::string* error);
  void PopFront();

  bool empty() const { return files_.empty(); }
  size_t files() const { return files_.size(); }
  uint64_t bytes() const { return bytes_; }
  uint64_t rows() const { return rows_; }
  // Ticks dropped so far to keep within the limit.
  uint64_t dropped_ticks() const { return dropped_ticks_; }

  static bool Encode(const kqstore::Batch& batch, std::string* out);
  static bool Decode(const std::string& data, kqstore::Batch* batch);

 private:
  struct Entry {
    std::filesystem::path path;
    uint64_t bytes = 0;
    uint64_t rows = 0;
  };
  bool Write(const std::filesystem::path& path, const kqstore::Batch& batch, Entry* entry, std::string* error);
  void Trim();
  static bool ReadFile(const std::filesystem::path& path, kqstore::Batch* batch);

  std::filesystem::path folder_;
  uint64_t max_bytes_;
  std::deque<Entry> files_;
  uint64_t next_ = 0;
  uint64_t bytes_ = 0;
  uint64_t rows_ = 0;
  uint64_t dropped_ticks_ = 0;
};

}  // namespace record

#endif  // KELQUOTE_TOOLS_RECORD_SPOOL_H_
