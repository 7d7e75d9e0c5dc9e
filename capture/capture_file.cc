#include "capture/capture_file.h"

#include <cstring>

namespace capture {

namespace {

template <typename T>
void Put(uint8_t* out, T value) {
  // The format is little-endian, as every machine the library runs on.
  std::memcpy(out, &value, sizeof(value));
}

template <typename T>
T Get(const uint8_t* in) {
  T value;
  std::memcpy(&value, in, sizeof(value));
  return value;
}

}  // namespace

void encode_header(const FileHeader& header, uint8_t out[kHeaderBytes]) {
  std::memset(out, 0, kHeaderBytes);
  std::memcpy(out, kMagic, sizeof(kMagic));
  Put<uint16_t>(out + 8, header.version);
  Put<uint16_t>(out + 10, static_cast<uint16_t>(kHeaderBytes));
  Put<uint32_t>(out + 12, header.part);
  Put<int64_t>(out + 16, header.start_unix_ns);
}

void encode_record_head(Kind kind, uint8_t code, uint64_t ns, size_t payload_bytes, uint8_t out[kRecordHeadBytes]) {
  Put<uint32_t>(out, static_cast<uint32_t>(kRecordHeadBytes - 4 + payload_bytes));
  out[4] = static_cast<uint8_t>(kind);
  out[5] = code;
  Put<uint16_t>(out + 6, 0);
  Put<uint64_t>(out + 8, ns);
}

Reader::~Reader() {
  if (file_ != nullptr) std::fclose(file_);
}

bool Reader::fail(const std::string& what) {
  error_ = path_ + ": " + what;
  return false;
}

bool Reader::open(const std::string& path) {
  path_ = path;
  file_ = std::fopen(path.c_str(), "rb");
  if (file_ == nullptr) return fail("cannot open the file");
  uint8_t head[kHeaderBytes];
  size_t got = std::fread(head, 1, sizeof(head), file_);
  if (got < 12 || std::memcmp(head, kMagic, sizeof(kMagic)) != 0) return fail("not a capture file");
  header_.version = Get<uint16_t>(head + 8);
  if (header_.version != kVersion) {
    return fail("capture format version " + std::to_string(header_.version) + ", this build reads version " +
                std::to_string(kVersion));
  }
  if (got < kHeaderBytes || Get<uint16_t>(head + 10) != kHeaderBytes) return fail("header cut short or damaged");
  header_.part = Get<uint32_t>(head + 12);
  header_.start_unix_ns = Get<int64_t>(head + 16);
  offset_ = kHeaderBytes;
  return true;
}

bool Reader::next(Record& record) {
  if (file_ == nullptr || !error_.empty() || truncated_ != 0) return false;
  uint8_t head[kRecordHeadBytes];
  size_t got = std::fread(head, 1, sizeof(head), file_);
  if (got < sizeof(head)) {
    truncated_ = got;
    return false;
  }
  uint32_t length = Get<uint32_t>(head);
  auto kind = static_cast<Kind>(head[4]);
  size_t fixed = kind == Kind::kRequest ? 4 : kind == Kind::kResult ? 8 : 0;
  if (length < kRecordHeadBytes - 4 + fixed || length > kMaxRecordLength ||
      (kind != Kind::kCallback && kind != Kind::kRequest && kind != Kind::kResult)) {
    return fail("damaged record at byte " + std::to_string(offset_));
  }
  size_t payload = length - (kRecordHeadBytes - 4);
  record.kind = kind;
  record.code = head[5];
  record.ns = Get<uint64_t>(head + 8);
  record.number = 0;
  record.result = 0;
  uint8_t numbers[8];
  size_t have = std::fread(numbers, 1, fixed, file_);
  record.bytes.resize(payload - fixed);
  if (have == fixed) have += std::fread(record.bytes.data(), 1, record.bytes.size(), file_);
  if (have < payload) {
    truncated_ = sizeof(head) + have;
    return false;
  }
  if (fixed >= 4) record.number = Get<uint32_t>(numbers);
  if (fixed == 8) record.result = Get<int32_t>(numbers + 4);
  offset_ += sizeof(head) + payload;
  ++records_;
  return true;
}

}  // namespace capture
