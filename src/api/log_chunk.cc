#include "api/log_chunk.h"

#include "common/utf8.h"

namespace orv {

std::size_t whole_utf8(std::string_view chunk) {
  // A sequence has at most four bytes: the last lead byte, if any counts, is among the last four.
  std::size_t lead = chunk.size();
  for (std::size_t back = 0; back < 4 && lead > 0; ++back) {
    --lead;
    if ((static_cast<unsigned char>(chunk[lead]) & 0xc0) == 0x80) continue;
    return lead > 0 && utf8_begins(chunk.substr(lead)) ? lead : chunk.size();
  }
  return chunk.size();
}

}  // namespace orv
