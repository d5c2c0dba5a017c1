// A growable byte array for the network layer's receive and stream buffers. Its allocation grows in
// steps of 256 bytes and never shrinks when the size is lowered, so a buffer that is filled and
// drained block after block settles at one allocation.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <vector>

namespace ns_net {

class byteArray {
 public:
  static constexpr size_t kGrowStep = 256;

  size_t size() const { return size_; }
  bool empty() const { return size_ == 0; }
  size_t capacity() const { return storage_.size(); }
  uint8_t* data() { return storage_.data(); }
  const uint8_t* data() const { return storage_.data(); }
  uint8_t operator[](size_t i) const { return storage_[i]; }

  // Sets the size; new bytes are zero on first growth and unspecified after a shrink and regrow.
  void resize(size_t newSize) {
    reserve(newSize);
    size_ = newSize;
  }
  void reserve(size_t wanted) {
    if (wanted <= storage_.size()) return;
    storage_.resize((wanted + kGrowStep - 1) / kGrowStep * kGrowStep);
  }
  void clear() { size_ = 0; }
  void append(const void* bytes, size_t count) {
    if (count == 0) return;
    size_t old = size_;
    resize(size_ + count);
    memcpy(storage_.data() + old, bytes, count);
  }
  // Removes `count` bytes from the front, moving the rest down.
  void consumeFront(size_t count) {
    if (count >= size_) {
      size_ = 0;
      return;
    }
    memmove(storage_.data(), storage_.data() + count, size_ - count);
    size_ -= count;
  }
  // Copies up to `count` bytes from the front into `out` and removes them; the number copied.
  size_t takeFront(void* out, size_t count) {
    size_t n = count < size_ ? count : size_;
    if (n) memcpy(out, storage_.data(), n);
    consumeFront(n);
    return n;
  }

 private:
  std::vector<uint8_t> storage_;
  size_t size_ = 0;
};

}  // namespace ns_net
