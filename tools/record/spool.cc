#include "tools/record/spool.h"

#include <algorithm>
#include <cstring>
#include <fstream>
#include <sstream>
#include <vector>

namespace record {
namespace {

namespace fs = std::filesystem;
const char kMagic[8] = {'K', 'Q', 'S', 'P', 'O', 'O', 'L', '2'};

template <typename T>
void Put(std::string* out, const T& v) {
  out->append(reinterpret_cast<const char*>(&v), sizeof v);
}
void PutText(std::string* out, const std::string& s) {
  Put(out, static_cast<uint32_t>(s.size()));
  out->append(s);
}

class Reader {
 public:
  explicit Reader(const std::string& data) : data_(data) {}
  template <typename T>
  bool get(T* v) {
    if (data_.size() - pos_ < sizeof *v) return false;
    std::memcpy(v, data_.data() + pos_, sizeof *v);
    pos_ += sizeof *v;
    return true;
  }
  bool text(std::string* s) {
    uint32_t n = 0;
    if (!get(&n) || data_.size() - pos_ < n) return false;
    s->assign(data_, pos_, n);
    pos_ += n;
    return true;
  }
  bool done() const { return pos_ == data_.size(); }

 private:
  const std::string& data_;
  size_t pos_ = 0;
};

}  // namespace

bool Spool::ReadFile(const fs::path& path, kqstore::Batch* batch) {
  std::ifstream in(path, std::ios::binary);
  std::stringstream data;
  data << in.rdbuf();
  return in && Decode(data.str(), batch);
}

bool Spool::Encode(const kqstore::Batch& batch, std::string* out) {
  out->append(kMagic, sizeof kMagic);
  Put(out, static_cast<uint64_t>(batch.ticks.size()));
  Put(out, static_cast<uint64_t>(batch.bars.size()));
  Put(out, static_cast<uint64_t>(batch.trades.size()));
  for (const kqstore::Tick& t : batch.ticks) {
    PutText(out, t.symbol);
    PutText(out, t.market);
    Put(out, t.time);
    Put(out, t.seq);
    Put(out, t.last);
    Put(out, t.volume);
    Put(out, t.amount);
    Put(out, t.bid);
    Put(out, t.ask);
    Put(out, t.bid_vol);
    Put(out, t.ask_vol);
    Put(out, t.phase);
  }
  for (const kqstore::Bar& b : batch.bars) {
    PutText(out, b.symbol);
    PutText(out, b.market);
    PutText(out, b.interval);
    Put(out, b.time);
    Put(out, b.open);
    Put(out, b.high);
    Put(out, b.low);
    Put(out, b.close);
    Put(out, b.volume);
    Put(out, b.amount);
    Put(out, b.open_interest);
  }
  for (const kqstore::Trade& t : batch.trades) {
    PutText(out, t.symbol);
    PutText(out, t.market);
    Put(out, t.time);
    Put(out, t.seq);
    Put(out, t.price);
    Put(out, t.volume);
    Put(out, t.amount);
    PutText(out, t.side);
    Put(out, t.number);
  }
  return true;
}

bool Spool::Decode(const std::string& data, kqstore::Batch* batch) {
  Reader r(data);
  char magic[sizeof kMagic];
  uint64_t ticks = 0, bars = 0, trades = 0;
  if (!r.get(&magic) || std::memcmp(magic, kMagic, sizeof kMagic) != 0 || !r.get(&ticks) || !r.get(&bars) ||
      !r.get(&trades)) {
    return false;
  }
  // Each row takes far more than one byte: a count beyond the data is damage.
  if (ticks > data.size() || bars > data.size() || trades > data.size()) return false;
  batch->ticks.resize(ticks);
  batch->bars.resize(bars);
  batch->trades.resize(trades);
  for (kqstore::Tick& t : batch->ticks) {
    if (!r.text(&t.symbol) || !r.text(&t.market) || !r.get(&t.time) || !r.get(&t.seq) || !r.get(&t.last) ||
        !r.get(&t.volume) || !r.get(&t.amount) || !r.get(&t.bid) || !r.get(&t.ask) || !r.get(&t.bid_vol) ||
        !r.get(&t.ask_vol) || !r.get(&t.phase)) {
      return false;
    }
  }
  for (kqstore::Bar& b : batch->bars) {
    if (!r.text(&b.symbol) || !r.text(&b.market) || !r.text(&b.interval) || !r.get(&b.time) || !r.get(&b.open) ||
        !r.get(&b.high) || !r.get(&b.low) || !r.get(&b.close) || !r.get(&b.volume) || !r.get(&b.amount) ||
        !r.get(&b.open_interest)) {
      return false;
    }
  }
  for (kqstore::Trade& t : batch->trades) {
    if (!r.text(&t.symbol) || !r.text(&t.market) || !r.get(&t.time) || !r.get(&t.seq) || !r.get(&t.price) ||
        !r.get(&t.volume) || !r.get(&t.amount) || !r.text(&t.side) || !r.get(&t.number)) {
      return false;
    }
  }
  return r.done();
}

bool Spool::Open(std::string* error) {
  std::error_code ec;
  fs::create_directories(folder_, ec);
  if (ec) {
    *error = "cannot make the spool folder " + folder_.string() + ": " + ec.message();
    return false;
  }
  std::vector<fs::path> found;
  for (const auto& e : fs::directory_iterator(folder_, ec)) {
    if (e.path().extension() == ".batch") found.push_back(e.path());
  }
  std::sort(found.begin(), found.end());
  for (const fs::path& p : found) {
    Entry entry{p, fs::file_size(p, ec), 0};
    bytes_ += entry.bytes;
    files_.push_back(entry);
    next_ = std::max<uint64_t>(next_, std::strtoull(p.stem().c_str(), nullptr, 10) + 1);
  }
  return true;
}

bool Spool::Write(const fs::path& path, const kqstore::Batch& batch, Entry* entry, std::string* error) {
  std::string data;
  Encode(batch, &data);
  fs::path part = path;
  part += ".part";
  {
    std::ofstream out(part, std::ios::binary | std::ios::trunc);
    out.write(data.data(), static_cast<std::streamsize>(data.size()));
    if (!out) {
      *error = "cannot write the spool file " + part.string();
      return false;
    }
  }
  // A crash leaves a .part file, never half a batch under a batch's name.
  std::error_code ec;
  fs::rename(part, path, ec);
  if (ec) {
    *error = "cannot write the spool file " + path.string() + ": " + ec.message();
    return false;
  }
  *entry = Entry{path, data.size(), batch.size()};
  return true;
}

bool Spool::Push(const kqstore::Batch& batch, std::string* error) {
  if (batch.empty()) return true;
  char name[32];
  std::snprintf(name, sizeof name, "%012llu.batch", static_cast<unsigned long long>(next_++));
  Entry entry;
  if (!Write(folder_ / name, batch, &entry, error)) return false;
  files_.push_back(entry);
  bytes_ += entry.bytes;
  rows_ += entry.rows;
  Trim();
  return true;
}

void Spool::Trim() {
  for (size_t i = 0; bytes_ > max_bytes_ && i < files_.size(); ++i) {
    Entry& e = files_[i];
    kqstore::Batch batch;
    std::string error;
    // Level-2 trades count as ticks here: only bars are never dropped.
    if (!ReadFile(e.path, &batch) || (batch.ticks.empty() && batch.trades.empty())) continue;
    dropped_ticks_ += batch.ticks.size() + batch.trades.size();
    batch.ticks.clear();
    batch.trades.clear();
    bytes_ -= e.bytes;
    rows_ -= e.rows;
    std::error_code ec;
    if (batch.bars.empty()) {
      fs::remove(e.path, ec);
      e.bytes = e.rows = 0;
      continue;
    }
    Entry rewritten;
    if (Write(e.path, batch, &rewritten, &error)) e = rewritten;
    bytes_ += e.bytes;
    rows_ += e.rows;
  }
  // Entries emptied above are gone from disk.
  files_.erase(std::remove_if(files_.begin(), files_.end(), [](const Entry& e) { return e.bytes == 0; }),
               files_.end());
}

bool Spool::Front(kqstore::Batch* batch, std::string* error) {
  while (!files_.empty()) {
    *batch = kqstore::Batch{};
    if (ReadFile(files_.front().path, batch)) {
      if (files_.front().rows == 0) files_.front().rows = batch->size(), rows_ += batch->size();
      return true;
    }
    std::error_code ec;
    fs::path bad = files_.front().path;
    bad += ".bad";
    fs::rename(files_.front().path, bad, ec);
    *error = "spool file " + files_.front().path.string() + " is damaged: set aside as " + bad.string();
    PopFront();
  }
  return false;
}

void Spool::PopFront() {
  if (files_.empty()) return;
  std::error_code ec;
  fs::remove(files_.front().path, ec);
  bytes_ -= std::min(bytes_, files_.front().bytes);
  rows_ -= std::min(rows_, files_.front().rows);
  files_.pop_front();
}

}  // namespace record
