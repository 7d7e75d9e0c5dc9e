// The capture file: what the library records of its conversation with the
// quote service (every callback's copied bytes, every request and its
// result), and the reader that gives it back record by record.
//
// Layout, little-endian:
//   header, 32 bytes: magic "KQCAPTR\n", u16 version, u16 header bytes,
//     u32 part (0 for a session's first file, then 1, 2, ... as it rolls),
//     i64 session start (nanoseconds since the Unix epoch), 8 bytes zero
//   records, each: u32 length (of what follows), u8 kind, u8 code,
//     u16 zero, u64 nanoseconds since the session start, then by kind
//     1 callback: code = callback slot; the bytes the library copied
//     2 request:  code = operation (virtual-table position); u32 number; the request's bytes
//     3 result:   code = operation; u32 number of its request; i32 result; bytes the call filled in
#ifndef KELQUOTE_CAPTURE_CAPTURE_FILE_H_
#define KELQUOTE_CAPTURE_CAPTURE_FILE_H_

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <string>
#include <vector>

namespace capture {

inline constexpr char kMagic[8] = {'K', 'Q', 'C', 'A', 'P', 'T', 'R', '\n'};
inline constexpr uint16_t kVersion = 1;
inline constexpr size_t kHeaderBytes = 32;
// Length, kind, code, zero, time: the bytes before a record's payload.
inline constexpr size_t kRecordHeadBytes = 16;
// A length beyond this is damage, not data: the library copies at most
// 64 MiB of one record.
inline constexpr uint32_t kMaxRecordLength = (64u << 20) + 64;

enum class Kind : uint8_t { kCallback = 1, kRequest = 2, kResult = 3 };

struct FileHeader {
  uint16_t version = kVersion;
  uint32_t part = 0;
  int64_t start_unix_ns = 0;
};

void encode_header(const FileHeader& header, uint8_t out[kHeaderBytes]);

// Writes the record head (length included) for a payload of payload_bytes.
void encode_record_head(Kind kind, uint8_t code, uint64_t ns, size_t payload_bytes, uint8_t out[kRecordHeadBytes]);

struct Record {
  Kind kind = Kind::kCallback;
  uint8_t code = 0;
  uint64_t ns = 0;
  uint32_t number = 0;  // request and result records
  int32_t result = 0;   // result records
  std::vector<uint8_t> bytes;  // copied callback bytes, request bytes, or bytes a call filled in
};

// Reads one capture file front to back.
class Reader {
 public:
  Reader() = default;
  ~Reader();
  Reader(const Reader&) = delete;
  Reader& operator=(const Reader&) = delete;

  // Opens path and checks its header; false with error() saying why.
  bool open(const std::string& path);
  // The next whole record. False at the end of the file, after a record cut
  // short (truncated() then tells how many bytes were left over), or at a
  // damaged record (error() says where).
  bool next(Record& record);

  const FileHeader& header() const { return header_; }
  const std::string& error() const { return error_; }
  // Bytes of a last record that the file ends in the middle of; 0 when the
  // file ends on a record boundary.
  uint64_t truncated() const { return truncated_; }
  uint64_t records() const { return records_; }

 private:
  bool fail(const std::string& what);

  std::FILE* file_ = nullptr;
  std::string path_;
  FileHeader header_;
  std::string error_;
  uint64_t offset_ = 0;
  uint64_t truncated_ = 0;
  uint64_t records_ = 0;
};

}  // namespace capture

#endif  // KELQUOTE_CAPTURE_CAPTURE_FILE_H_
