#include "tools/record/writer.h"

#include <algorithm>

namespace record {

Writer::Writer(kqstore::Store* store, Spool* spool, std::chrono::milliseconds flush_interval,
               std::function<void(const std::string&)> note)
    : store_(store), spool_(spool), flush_interval_(flush_interval), note_(std::move(note)) {}

Writer::~Writer() { Stop(); }

void Writer::Start() {
  std::lock_guard<std::mutex> lock(mu_);
  if (intake_.joinable()) return;
  if (!spool_->empty()) spool_since_ = Clock::now();
  intake_ = std::thread([this] { Intake(); });
  database_ = std::thread([this] { Database(); });
}

uint64_t Writer::Stop() {
  {
    std::lock_guard<std::mutex> lock(mu_);
    if (!intake_.joinable()) return spool_->rows();
    stopping_ = true;
  }
  intake_cv_.notify_all();
  intake_.join();
  db_cv_.notify_all();
  database_.join();
  std::lock_guard<std::mutex> lock(mu_);
  return spool_->rows();
}

void Writer::Add(kqstore::Batch&& rows) {
  if (rows.empty()) return;
  std::lock_guard<std::mutex> lock(mu_);
  if (!pending_since_) pending_since_ = Clock::now();
  if (pending_.empty()) {
    pending_ = std::move(rows);
    return;
  }
  std::move(rows.ticks.begin(), rows.ticks.end(), std::back_inserter(pending_.ticks));
  std::move(rows.bars.begin(), rows.bars.end(), std::back_inserter(pending_.bars));
  std::move(rows.trades.begin(), rows.trades.end(), std::back_inserter(pending_.trades));
}

WriterStatus Writer::status() {
  std::lock_guard<std::mutex> lock(mu_);
  WriterStatus s = counts_;
  s.pending = pending_.size() + (handed_ ? handed_->size() : 0);
  s.spool_files = spool_->files();
  s.spool_rows = spool_->rows();
  s.spool_bytes = spool_->bytes();
  s.dropped_ticks = spool_->dropped_ticks();
  s.database_down = down_;
  std::optional<Clock::time_point> oldest;
  for (const auto& t : {spool_since_, handed_since_, pending_since_}) {
    if (t && (!oldest || *t < *oldest)) oldest = t;
  }
  if (oldest) s.behind_seconds = std::chrono::duration<double>(Clock::now() - *oldest).count();
  return s;
}

void Writer::SpoolLocked(kqstore::Batch&& batch) {
  uint64_t dropped = spool_->dropped_ticks();
  std::string error;
  if (!spool_->Push(batch, &error)) {
    // Nowhere to keep them: say so once per batch rather than stop recording.
    note_(error + ": " + std::to_string(batch.size()) + " rows lost");
    return;
  }
  if (!spool_since_) spool_since_ = pending_since_ ? pending_since_ : Clock::now();
  if (spool_->dropped_ticks() != dropped) {
    note_("spool full: dropped the " + std::to_string(spool_->dropped_ticks() - dropped) +
          " oldest ticks (bars are kept)");
  }
}

void Writer::Intake() {
  std::unique_lock<std::mutex> lock(mu_);
  for (;;) {
    intake_cv_.wait_for(lock, flush_interval_, [this] { return stopping_; });
    bool last = stopping_;
    if (!pending_.empty()) {
      kqstore::Batch batch = std::move(pending_);
      pending_ = kqstore::Batch{};
      if (!handed_ && spool_->empty() && !down_) {
        handed_ = std::move(batch);
        handed_since_ = pending_since_;
        db_cv_.notify_all();
      } else {
        SpoolLocked(std::move(batch));
        db_cv_.notify_all();
      }
      pending_since_.reset();
    }
    if (last) break;
  }
  intake_done_ = true;
  db_cv_.notify_all();
}

void Writer::Database() {
  std::unique_lock<std::mutex> lock(mu_);
  auto retry = Clock::now();
  for (;;) {
    // Down: try again once a second (or at once when stopping).
    db_cv_.wait_until(lock, down_ ? retry : Clock::now() + flush_interval_, [&] {
      return handed_.has_value() || (!spool_->empty() && (!down_ || Clock::now() >= retry || intake_done_)) ||
             intake_done_;
    });
    kqstore::Batch batch;
    bool from_spool = false;
    if (handed_) {
      batch = std::move(*handed_);
      handed_.reset();
    } else if (!spool_->empty() && (!down_ || Clock::now() >= retry || intake_done_)) {
      std::string error;
      if (!spool_->Front(&batch, &error)) {
        if (!error.empty()) note_(error);
        continue;
      }
      from_spool = true;
    } else if (intake_done_) {
      break;
    } else {
      continue;
    }
    lock.unlock();
    std::string error;
    bool ok = store_->Write(batch, &error);
    lock.lock();
    if (ok) {
      counts_.written += batch.size();
      if (from_spool) {
        spool_->PopFront();
        if (spool_->empty()) spool_since_.reset();
      } else {
        handed_since_.reset();
      }
      if (down_) note_("database back: writing what waited in the spool");
      down_ = false;
      continue;
    }
    counts_.last_error = error;
    if (!down_) note_("database unavailable (" + error + "): rows wait in the spool");
    down_ = true;
    retry = Clock::now() + std::chrono::seconds(1);
    if (!from_spool) {
      SpoolLocked(std::move(batch));
      handed_since_.reset();
    }
    // Stopping with the database away: what is spooled stays for the next run.
    if (intake_done_ && !handed_) break;
  }
}

}  // namespace record
