// FixedText<kMax>: the text field of a record. It holds at most kMax bytes (the terminator is
// not counted), is always NUL-terminated and never allocates, so that a record's limits stand in
// its type. FixedSecret<kMax> is the same for a secret: it cannot be copied and is zeroed when it
// ends.
#ifndef ORV_COMMON_FIXED_TEXT_H_
#define ORV_COMMON_FIXED_TEXT_H_

#include <string.h>

#include <array>
#include <cstddef>
#include <cstdint>
#include <string_view>

namespace orv {

template <std::size_t kMax>
class FixedText {
 public:
  static constexpr std::size_t kMaxLength = kMax;  // bytes of the longest text

  FixedText() noexcept = default;

  // Takes `text`; false, leaving the field as it was, when it is longer than kMax bytes.
  [[nodiscard]] bool set(std::string_view text) noexcept {
    if (text.size() > kMax) return false;
    store(text);
    return true;
  }

  // Takes the first kMax bytes of `text`.
  void set_truncated(std::string_view text) noexcept { store(text.substr(0, kMax)); }

  void clear() noexcept {
    size_ = 0;
    bytes_[0] = '\0';
  }

  // Zeroes the whole field in a way that the compiler does not leave out.
  void wipe() noexcept {
    ::explicit_bzero(bytes_.data(), bytes_.size());
    size_ = 0;
  }

  [[nodiscard]] bool empty() const noexcept { return size_ == 0; }
  [[nodiscard]] std::size_t size() const noexcept { return size_; }
  [[nodiscard]] const char* c_str() const noexcept { return bytes_.data(); }
  [[nodiscard]] std::string_view view() const noexcept { return {bytes_.data(), size_}; }

  friend bool operator==(const FixedText& a, const FixedText& b) noexcept {
    return a.view() == b.view();
  }
  friend bool operator==(const FixedText& a, std::string_view b) noexcept { return a.view() == b; }

 private:
  void store(std::string_view text) noexcept {
    if (!text.empty()) ::memmove(bytes_.data(), text.data(), text.size());
    bytes_[text.size()] = '\0';
    size_ = static_cast<std::uint32_t>(text.size());
  }

  std::uint32_t size_ = 0;
  std::array<char, kMax + 1> bytes_{};
};

template <std::size_t kMax>
class FixedSecret {
 public:
  static constexpr std::size_t kMaxLength = kMax;

  FixedSecret() noexcept = default;
  FixedSecret(const FixedSecret&) = delete;
  FixedSecret& operator=(const FixedSecret&) = delete;
  ~FixedSecret() { text_.wipe(); }

  // Replaces the secret (the old one is wiped first). False, leaving it empty, when too long.
  [[nodiscard]] bool set(std::string_view text) noexcept {
    text_.wipe();
    return text_.set(text);
  }
  void wipe() noexcept { text_.wipe(); }

  [[nodiscard]] bool empty() const noexcept { return text_.empty(); }
  [[nodiscard]] std::size_t size() const noexcept { return text_.size(); }
  [[nodiscard]] const char* c_str() const noexcept { return text_.c_str(); }
  [[nodiscard]] std::string_view view() const noexcept { return text_.view(); }

 private:
  FixedText<kMax> text_;
};

}  // namespace orv

#endif  // ORV_COMMON_FIXED_TEXT_H_
