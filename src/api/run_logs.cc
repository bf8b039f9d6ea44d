#include "api/run_logs.h"

#include <fcntl.h>
#include <sys/stat.h>

#include <algorithm>
#include <ctime>
#include <functional>

#include "common/files.h"
#include "common/text.h"
#include "common/utf8.h"

namespace orv {
namespace {

constexpr std::string_view kIdForm = "ddddddddTddddddZ";
static_assert(kIdForm.size() == kRunIdLength);
constexpr std::string_view kLogSuffix = ".log";

int number_at(std::string_view digits, std::size_t at, std::size_t width) {
  int value = 0;
  for (const char c : digits.substr(at, width)) value = value * 10 + (c - '0');
  return value;
}

}  // namespace

bool is_run_id(std::string_view text) {
  return std::equal(text.begin(), text.end(), kIdForm.begin(), kIdForm.end(),
                    [](char c, char form) { return form == 'd' ? is_digit(c) : c == form; });
}

std::int64_t run_start(std::string_view run_id) {
  std::tm utc{};
  utc.tm_year = number_at(run_id, 0, 4) - 1900;
  utc.tm_mon = number_at(run_id, 4, 2) - 1;
  utc.tm_mday = number_at(run_id, 6, 2);
  utc.tm_hour = number_at(run_id, 9, 2);
  utc.tm_min = number_at(run_id, 11, 2);
  utc.tm_sec = number_at(run_id, 13, 2);
  return ::timegm(&utc);
}

bool open_run_log(const std::string& directory, std::string_view run_id, RunLog& out) {
  std::string path = directory;
  path.append("/").append(run_id).append(kLogSuffix);
  out.file = open_file(path.c_str(), O_RDONLY | O_NOFOLLOW | O_NONBLOCK);
  struct stat st {};
  if (!out.file.valid() || ::fstat(out.file.get(), &st) != 0) return false;
  out.size = st.st_size;
  return S_ISREG(st.st_mode);
}

std::vector<std::string> list_run_ids(const std::string& directory) {
  std::vector<std::string> ids;
  for (const std::string& entry : directory_names(directory)) {
    const std::string_view name = entry;
    if (name.size() != kRunIdLength + kLogSuffix.size() || !name.ends_with(kLogSuffix)) continue;
    if (is_run_id(name.substr(0, kRunIdLength))) ids.emplace_back(name.substr(0, kRunIdLength));
  }
  std::sort(ids.begin(), ids.end(), std::greater<>());
  return ids;
}

std::size_t whole_utf8(std::string_view chunk) {
  std::size_t lead = chunk.size();
  for (std::size_t back = 0; back < 4 && lead > 0; ++back) {
    --lead;
    if ((static_cast<unsigned char>(chunk[lead]) & 0xc0) == 0x80) continue;
    return lead > 0 && utf8_begins(chunk.substr(lead)) ? lead : chunk.size();
  }
  return chunk.size();
}

}  // namespace orv
