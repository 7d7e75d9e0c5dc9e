// Reading packed vendor records out of a copied message, within its size.
#ifndef KELQUOTE_MARKET_RECORD_READER_H_
#define KELQUOTE_MARKET_RECORD_READER_H_

#include <cstddef>
#include <cstdint>
#include <cstring>

namespace tavr {

// A reply of a head followed by count elements of type Item. Elements
// beyond the bytes actually copied are never read.
template <typename Head, typename Item>
class ReplyReader {
 public:
  ReplyReader(const void* data, size_t size) : bytes_(static_cast<const uint8_t*>(data)), size_(size) {
    ok_ = data != nullptr && size >= sizeof(Head);
    if (ok_) std::memcpy(&head_, bytes_, sizeof(Head));
  }
  bool ok() const { return ok_; }
  const Head& head() const { return head_; }
  // Elements present in the copy, at most claimed.
  size_t available(int64_t claimed) const {
    if (!ok_ || claimed <= 0) return 0;
    size_t fit = (size_ - sizeof(Head)) / sizeof(Item);
    return static_cast<uint64_t>(claimed) < fit ? static_cast<size_t>(claimed) : fit;
  }
  Item item(size_t i) const {
    Item item;
    std::memcpy(&item, bytes_ + sizeof(Head) + i * sizeof(Item), sizeof(Item));
    return item;
  }

 private:
  const uint8_t* bytes_;
  size_t size_;
  bool ok_ = false;
  Head head_{};
};

}  // namespace tavr

#endif  // KELQUOTE_MARKET_RECORD_READER_H_
