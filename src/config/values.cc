#include "config/values.h"

#include <strings.h>

#include <cstddef>

namespace orv {
namespace {

template <typename Value>
struct Word {
  std::string_view text;
  Value value;
};

template <typename Value, std::size_t kCount>
bool find_word(const Word<Value> (&words)[kCount], std::string_view text, Value& out) {
  for (const Word<Value>& word : words) {
    if (text != word.text) continue;
    out = word.value;
    return true;
  }
  return false;
}

constexpr Word<Notify> kNotifyWords[] = {
    {"never", Notify::Never}, {"failed", Notify::Failed}, {"always", Notify::Always}};

constexpr Word<TlsMode> kTlsWords[] = {
    {"none", TlsMode::None}, {"starttls", TlsMode::StartTls}, {"smtps", TlsMode::Smtps}};

template <typename Value, std::size_t kCount>
const char* word_of(const Word<Value> (&words)[kCount], Value value, const char* otherwise) {
  for (const Word<Value>& word : words) {
    if (word.value == value) return word.text.data();
  }
  return otherwise;
}

}  // namespace

// The digits have no case, so one comparison serves words and digits.
bool parse_yes_no(std::string_view text, bool& out) {
  constexpr Word<bool> kWords[] = {{"yes", true}, {"true", true},   {"1", true},
                                   {"no", false}, {"false", false}, {"0", false}};
  for (const Word<bool>& word : kWords) {
    if (text.size() != word.text.size() ||
        ::strncasecmp(text.data(), word.text.data(), text.size()) != 0) {
      continue;
    }
    out = word.value;
    return true;
  }
  return false;
}

bool parse_notify(std::string_view text, Notify& out) { return find_word(kNotifyWords, text, out); }

const char* notify_name(Notify notify) { return word_of(kNotifyWords, notify, "inherit"); }

bool parse_tls_mode(std::string_view text, TlsMode& out) { return find_word(kTlsWords, text, out); }

const char* tls_mode_name(TlsMode mode) { return word_of(kTlsWords, mode, "?"); }

}  // namespace orv
