// Text that is a secret: a password, a token, a private key, or a file that holds one.
#ifndef ORV_COMMON_SECRET_H_
#define ORV_COMMON_SECRET_H_

#include <string.h>

#include <cstddef>
#include <memory>
#include <string>
#include <string_view>
#include <utility>

namespace orv {

// Zeroes every block before it goes back to the heap. Any container with it forgets what it held,
// also what it leaves behind when it grows.
template <typename T>
struct WipingAllocator {
  using value_type = T;
  WipingAllocator() noexcept = default;
  template <typename U>
  explicit WipingAllocator(const WipingAllocator<U>&) noexcept {}
  T* allocate(std::size_t n) { return std::allocator<T>().allocate(n); }
  void deallocate(T* block, std::size_t n) noexcept {
    ::explicit_bzero(static_cast<void*>(block), n * sizeof(T));
    std::allocator<T>().deallocate(block, n);
  }
  friend bool operator==(const WipingAllocator&, const WipingAllocator&) { return true; }
};

// A std::string that leaves nothing behind: not when it grows, is moved from, cleared or destroyed.
// It converts to std::string_view; use append() and += rather than +, whose result is no longer of
// this type.
class SecretString : public std::basic_string<char, std::char_traits<char>, WipingAllocator<char>> {
 public:
  using Base = std::basic_string<char, std::char_traits<char>, WipingAllocator<char>>;
  using Base::Base;
  using Base::operator=;
  SecretString() noexcept = default;
  SecretString(const SecretString&) = default;
  SecretString& operator=(const SecretString&) = default;
  SecretString(SecretString&& other) noexcept : Base(std::move(static_cast<Base&>(other))) {
    other.wipe();
  }
  SecretString& operator=(SecretString&& other) noexcept {
    if (this == &other) return *this;
    Base::operator=(std::move(static_cast<Base&>(other)));
    other.wipe();
    return *this;
  }
  ~SecretString() { wipe(); }

  // Zeroes the text, its unused capacity included, and empties it. Short texts live inside the
  // object, where no allocator sees them go.
  void wipe() noexcept {
    resize(capacity());  // within the capacity: nothing is allocated or moved
    ::explicit_bzero(data(), size());
    clear();
  }
};

// Zeroes a stack or borrowed buffer when the scope ends.
class ScopedWipe {
 public:
  ScopedWipe(void* bytes, std::size_t size) noexcept : bytes_(bytes), size_(size) {}
  ScopedWipe(const ScopedWipe&) = delete;
  ScopedWipe& operator=(const ScopedWipe&) = delete;
  ~ScopedWipe() { ::explicit_bzero(bytes_, size_); }

 private:
  void* bytes_;
  std::size_t size_;
};

// Owns a buffer of fixed capacity that is zeroed before its memory goes back. Movable, not
// copyable.
class SecretBytes {
 public:
  SecretBytes() noexcept = default;
  explicit SecretBytes(std::size_t capacity)
      : bytes_(std::make_unique<char[]>(capacity)), capacity_(capacity) {}
  explicit SecretBytes(std::string_view text) : SecretBytes(text.size() + 1) {
    if (!text.empty()) ::memcpy(bytes_.get(), text.data(), text.size());
    size_ = text.size();
  }
  SecretBytes(SecretBytes&& other) noexcept { swap(other); }
  SecretBytes& operator=(SecretBytes&& other) noexcept {
    SecretBytes(std::move(other)).swap(*this);
    return *this;
  }
  ~SecretBytes() {
    if (bytes_) ::explicit_bzero(bytes_.get(), capacity_);
  }

  // Wipes and frees.
  void reset() noexcept { SecretBytes().swap(*this); }

  [[nodiscard]] char* data() noexcept { return bytes_.get(); }
  [[nodiscard]] std::size_t capacity() const noexcept { return capacity_; }
  // The bytes in use; set_size() needs size <= capacity().
  [[nodiscard]] std::size_t size() const noexcept { return size_; }
  void set_size(std::size_t size) noexcept { size_ = size; }
  [[nodiscard]] bool empty() const noexcept { return size_ == 0; }
  [[nodiscard]] std::string_view view() const noexcept { return {bytes_.get(), size_}; }

  void swap(SecretBytes& other) noexcept {
    std::swap(bytes_, other.bytes_);
    std::swap(capacity_, other.capacity_);
    std::swap(size_, other.size_);
  }

 private:
  std::unique_ptr<char[]> bytes_;
  std::size_t capacity_ = 0;
  std::size_t size_ = 0;
};

// Zeroes a heap text that held a secret, its unused capacity included, and empties it.
inline void wipe_text(std::string& text) noexcept {
  text.resize(text.capacity());  // within the capacity: nothing is allocated or moved
  ::explicit_bzero(text.data(), text.size());
  text.clear();
}

}  // namespace orv

#endif  // ORV_COMMON_SECRET_H_
