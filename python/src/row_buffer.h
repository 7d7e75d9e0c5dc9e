// A bounded buffer of fixed-size rows, filled by the library's threads and
// drained by Python in batches.
//
// When it holds its capacity of rows, a new row of a symbol replaces that
// symbol's oldest row still held (or, when it holds none of that symbol, the
// oldest row of all), so that a slow reader still gets every symbol's latest
// state; each row given up counts as dropped. Rows given up are marked dead
// and squeezed out once the spare room (an eighth of the capacity) is used.
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
      : row_(row_size),
        cap_(std::max<size_t>(capacity, 1)),
        phys_(cap_ + cap_ / 8 + 1),
        data_(std::min<size_t>(phys_, 1024) * row_size),
        sym_(std::min<size_t>(phys_, 1024), -1) {}

  // Room for the next row of symbol sym (0 or more), to be filled by the caller.
  char* slot(int32_t sym) {
    if (live_ == cap_) drop_for(sym);
    if (end_ == phys_) compact();
    if (end_ == sym_.size()) grow();
    if (static_cast<size_t>(sym) >= counts_.size()) {
      counts_.resize(sym + 1, 0);
      cursor_.resize(sym + 1, 0);
    }
    ++counts_[sym];
    sym_[end_] = sym;
    ++live_;
    return &data_[end_++ * row_];
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
      for (size_t i = r; i < run; ++i) {
        --counts_[sym_[i]];
        sym_[i] = -1;
      }
      live_ -= count;
      n -= count;
      r = run;
    }
    begin_ = r;
    if (live_ == 0) reset();
  }

  // Gives up every row and the memory they took.
  void clear() {
    data_.clear();
    data_.shrink_to_fit();
    sym_.assign(0, -1);
    sym_.shrink_to_fit();
    std::fill(counts_.begin(), counts_.end(), 0);
    live_ = 0;
    reset();
  }

  size_t size() const { return live_; }
  size_t capacity() const { return cap_; }
  uint64_t dropped() const { return dropped_; }

 private:
  void drop_for(int32_t sym) {
    size_t p;
    if (static_cast<size_t>(sym) < counts_.size() && counts_[sym] > 0) {
      // Every live row of sym lies at or after its cursor.
      p = std::max(cursor_[sym], begin_);
      while (sym_[p] != sym) ++p;
      cursor_[sym] = p + 1;
    } else {
      p = begin_;
      while (sym_[p] < 0) ++p;
    }
    --counts_[sym_[p]];
    sym_[p] = -1;
    --live_;
    ++dropped_;
    while (begin_ < end_ && sym_[begin_] < 0) ++begin_;
  }

  // Memory grows with use, up to the capacity and its spare room.
  void grow() {
    size_t rows = std::min(phys_, std::max<size_t>(1024, sym_.size() * 2));
    data_.resize(rows * row_);
    sym_.resize(rows, -1);
  }

  void compact() {
    size_t w = 0;
    for (size_t r = begin_; r < end_; ++r) {
      if (sym_[r] < 0) continue;
      if (w != r) {
        std::memcpy(&data_[w * row_], &data_[r * row_], row_);
        sym_[w] = sym_[r];
        sym_[r] = -1;
      }
      ++w;
    }
    begin_ = 0;
    end_ = w;
    std::fill(cursor_.begin(), cursor_.end(), 0);
  }

  void reset() {
    begin_ = end_ = 0;
    std::fill(cursor_.begin(), cursor_.end(), 0);
  }

  size_t row_, cap_, phys_;
  std::vector<char> data_;
  std::vector<int32_t> sym_;      // symbol of each physical row, -1 when dead
  std::vector<uint32_t> counts_;  // live rows per symbol
  std::vector<size_t> cursor_;    // per symbol: no live row of it lies before
  size_t begin_ = 0, end_ = 0, live_ = 0;
  uint64_t dropped_ = 0;
};

}  // namespace kqpy

#endif  // KELQUOTE_PYTHON_ROW_BUFFER_H_
