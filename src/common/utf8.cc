#include "common/utf8.h"

#include <algorithm>

namespace orv {
namespace {

// The bytes that may follow a lead byte directly; all later ones are 80..BF. Too long forms,
// surrogates and code points beyond the last are thereby left out.
struct Form {
  unsigned first_lead, last_lead;
  std::size_t length;
  unsigned lowest_second, highest_second;
};
constexpr Form kForms[] = {
    {0x00, 0x7f, 1, 0, 0},       {0xc2, 0xdf, 2, 0x80, 0xbf}, {0xe0, 0xe0, 3, 0xa0, 0xbf},
    {0xe1, 0xec, 3, 0x80, 0xbf}, {0xed, 0xed, 3, 0x80, 0x9f}, {0xee, 0xef, 3, 0x80, 0xbf},
    {0xf0, 0xf0, 4, 0x90, 0xbf}, {0xf1, 0xf3, 4, 0x80, 0xbf}, {0xf4, 0xf4, 4, 0x80, 0x8f},
};

unsigned byte_at(std::string_view text, std::size_t at) {
  return static_cast<unsigned char>(text[at]);
}

// The form of the sequence whose first bytes, as many as it can have, `text` begins with; null for
// none.
const Form* form_of(std::string_view text) {
  const unsigned lead = byte_at(text, 0);
  for (const Form& form : kForms) {
    if (lead < form.first_lead || lead > form.last_lead) continue;
    for (std::size_t i = 1; i < std::min(form.length, text.size()); ++i) {
      const unsigned lowest = i == 1 ? form.lowest_second : 0x80;
      const unsigned highest = i == 1 ? form.highest_second : 0xbf;
      if (byte_at(text, i) < lowest || byte_at(text, i) > highest) return nullptr;
    }
    return &form;
  }
  return nullptr;
}

}  // namespace

std::size_t utf8_sequence(std::string_view text) {
  const Form* const form = form_of(text);
  return form != nullptr && text.size() >= form->length ? form->length : 0;
}

bool utf8_begins(std::string_view text) {
  const Form* const form = form_of(text);
  return form != nullptr && text.size() < form->length;
}

std::size_t utf8_length(std::string_view text) {
  std::size_t characters = 0;
  while (!text.empty()) {
    text.remove_prefix(std::max<std::size_t>(utf8_sequence(text), 1));
    ++characters;
  }
  return characters;
}

std::size_t utf8_encode(std::uint32_t point, std::array<char, 4>& out) {
  const std::size_t length = point < 0x80 ? 1 : point < 0x800 ? 2 : point < 0x10000 ? 3 : 4;
  // The lead byte begins with as many ones as there are bytes, each later one with "10".
  constexpr std::array<unsigned, 5> kLeads = {0, 0, 0xc0, 0xe0, 0xf0};
  for (std::size_t i = length - 1; i > 0; --i, point >>= 6) {
    out[i] = static_cast<char>(0x80 | (point & 0x3f));
  }
  out[0] = static_cast<char>(kLeads[length] | point);
  return length;
}

}  // namespace orv
