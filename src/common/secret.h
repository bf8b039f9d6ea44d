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

}  // namespace orv

#endif  // ORV_COMMON_SECRET_H_
