// A bounded buffer of fixed-size rows, filled by the library's threads and
// drained by Python in batches.
//
// When it holds its capacity of rows, a new row of a symbol replaces that
// symbol's oldest row still held (or, when it holds none of that symbol, the
// oldest row of all), so that a slow reader still gets every symbol's latest
// state; each row given up counts as dropped. Each symbol's rows are linked
// oldest to newest, so that giving one up costs the same however many
// symbols share the buffer. Rows given up are marked dead and squeezed out
// once the spare room (an eighth of the capacity) is used.
#ifndef KELQUOTE_PYTHON_ROW_BUFFER_H_
#define KELQUOTE_PYTHON_ROW_BUFFER_H_

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <vector>

namespace kqpy {

class RowBuffer {
 public:
  RowBuffer(size_t row_size, size_t capacity)
      : row_(row_size), cap_(std::max<size_t>(capacity, 1)), phys_(cap_ + cap_ / 8 + 1) {
    grow();
  }

  // Room for the next row of symbol sym (0 or more), to be filled by the caller.
  char* slot(int32_t sym) {
    if (static_cast<size_t>(sym) >= head_.size()) {
      head_.resize(sym + 1, kNone);
      tail_.resize(sym + 1, kNone);
    }
    if (live_ == cap_) drop(head_[sym] != kNone ? head_[sym] : oldest());
    if (end_ == phys_) compact();
    if (end_ == sym_.size()) grow();
    size_t p = end_++;
    sym_[p] = sym;
    next_[p] = kNone;
    if (tail_[sym] != kNone) {
      next_[tail_[sym]] = p;
    } else {
      head_[sym] = p;
    }
    tail_[sym] = p;
    ++live_;
    return &data_[p * row_];
  }

  // Copies the n oldest rows (n <= size()) to out and gives them up.
  void take(char* out, size_t n) {
    size_t r = begin_;
    while (n > 0) {
      while (sym_[r] < 0) ++r;
      size_t run = r;
      while (run < end_ && sym_[run] >= 0 && run - r < n) ++run;
      size_t count = run - r;
      std::memcpy(out, &data_[r * row_], count * row_);
      out += count * row_;
      // In position order, each row taken is its symbol's oldest.
      for (size_t i = r; i < run; ++i) unlink_oldest(i);
      n -= count;
      r = run;
    }
    begin_ = r;
    if (live_ == 0) begin_ = end_ = 0;
  }

  // Gives up every row and the memory they took.
  void clear() {
    data_.clear();
    data_.shrink_to_fit();
    sym_.assign(0, -1);
    sym_.shrink_to_fit();
    next_.assign(0, kNone);
    next_.shrink_to_fit();
    std::fill(head_.begin(), head_.end(), kNone);
    std::fill(tail_.begin(), tail_.end(), kNone);
    live_ = begin_ = end_ = 0;
  }

  size_t size() const { return live_; }
  size_t capacity() const { return cap_; }
  uint64_t dropped() const { return dropped_; }

 private:
  static constexpr size_t kNone = static_cast<size_t>(-1);

  size_t oldest() const {
    size_t p = begin_;
    while (sym_[p] < 0) ++p;
    return p;
  }

  // p is its symbol's oldest row.
  void unlink_oldest(size_t p) {
    int32_t s = sym_[p];
    head_[s] = next_[p];
    if (head_[s] == kNone) tail_[s] = kNone;
    sym_[p] = -1;
    --live_;
  }

  void drop(size_t p) {
    unlink_oldest(p);
    ++dropped_;
    while (begin_ < end_ && sym_[begin_] < 0) ++begin_;
  }

  // Memory grows with use, up to the capacity and its spare room.
  void grow() {
    size_t rows = std::min(phys_, std::max<size_t>(1024, sym_.size() * 2));
    data_.resize(rows * row_);
    sym_.resize(rows, -1);
    next_.resize(rows, kNone);
  }

  // Moves the live rows to the front, in order, and links them again.
  void compact() {
    std::fill(head_.begin(), head_.end(), kNone);
    std::fill(tail_.begin(), tail_.end(), kNone);
    size_t w = 0;
    for (size_t r = begin_; r < end_; ++r) {
      int32_t s = sym_[r];
      if (s < 0) continue;
      if (w != r) {
        std::memcpy(&data_[w * row_], &data_[r * row_], row_);
        sym_[w] = s;
        sym_[r] = -1;
      }
      next_[w] = kNone;
      if (tail_[s] != kNone) {
        next_[tail_[s]] = w;
      } else {
        head_[s] = w;
      }
      tail_[s] = w;
      ++w;
    }
    begin_ = 0;
    end_ = w;
  }

  size_t row_, cap_, phys_;
  std::vector<char> data_;
  std::vector<int32_t> sym_;   // symbol of each physical row, -1 when dead
  std::vector<size_t> next_;   // the next row of the same symbol
  std::vector<size_t> head_;   // per symbol: its oldest row
  std::vector<size_t> tail_;   // per symbol: its newest row
  size_t begin_ = 0, end_ = 0, live_ = 0;
  uint64_t dropped_ = 0;
};

}  // namespace kqpy

#endif  // KELQUOTE_PYTHON_ROW_BUFFER_H_
