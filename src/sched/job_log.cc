#include "sched/job_log.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <functional>
#include <utility>

#include "common/files.h"
#include "common/text.h"
#include "common/times.h"

namespace orv {
namespace {

constexpr std::string_view kEndMarker = "\n--- end ---\n";
constexpr std::size_t kTrailerWindow = 512;  // bytes at the end of a log in which its trailer lies
constexpr std::string_view kLogSuffix = ".log";
constexpr std::string_view kRunIdForm = "ddddddddTddddddZ";
static_assert(kRunIdForm.size() == kRunIdLength);
constexpr std::size_t kMaxLogName = 63;  // bytes of a name that rotation keeps

// The number after the first `label`, in the way of strtoll(); 0 when the label is not there.
std::int64_t number_after(const std::string& text, std::string_view label) {
  const std::size_t at = text.find(label);
  if (at == std::string::npos) return 0;
  return std::strtoll(text.c_str() + at + label.size(), nullptr, 10);
}

int number_at(std::string_view digits, std::size_t at, std::size_t width) {
  int value = 0;
  for (const char c : digits.substr(at, width)) value = value * 10 + (c - '0');
  return value;
}

}  // namespace

std::string job_log_directory(std::string_view job_log_dir, std::string_view job) {
  return std::string(job_log_dir) + "/" + std::string(job);
}

std::string job_log_path(std::string_view directory, std::int64_t start) {
  std::string name = format_utc(start, kUtcStampFormat);
  if (name.empty()) name = std::to_string(start);  // a year beyond all calendars
  return std::string(directory) + "/" + name + std::string(kLogSuffix);
}

bool is_run_id(std::string_view text) {
  return std::equal(text.begin(), text.end(), kRunIdForm.begin(), kRunIdForm.end(),
                    [](char c, char form) { return form == 'd' ? is_digit(c) : c == form; });
}

std::int64_t run_start(std::string_view run_id) {
  struct tm utc {};
  utc.tm_year = number_at(run_id, 0, 4) - 1900;
  utc.tm_mon = number_at(run_id, 4, 2) - 1;
  utc.tm_mday = number_at(run_id, 6, 2);
  utc.tm_hour = number_at(run_id, 9, 2);
  utc.tm_min = number_at(run_id, 11, 2);
  utc.tm_sec = number_at(run_id, 13, 2);
  return ::timegm(&utc);
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

bool open_job_log(const std::string& directory, std::string_view run_id, JobLogFile& out) {
  std::string path = directory;
  path.append("/").append(run_id).append(kLogSuffix);
  out.file = open_file(path.c_str(), O_RDONLY | O_NOFOLLOW | O_NONBLOCK);
  struct stat st {};
  if (!out.file.valid() || ::fstat(out.file.get(), &st) != 0) return false;
  out.size = st.st_size;
  return S_ISREG(st.st_mode);
}

std::string job_log_header(const Job& job, std::span<const char* const> argv, std::int64_t start) {
  std::string text = "job: " + std::string(job.name.view()) + "\nargv:";
  for (const char* arg : argv) {
    if (arg == nullptr) break;
    text += ' ';
    text += arg;
  }
  return text + "\nstart_unix: " + std::to_string(start) + "\n\n--- output ---\n";
}

std::string job_log_trailer(std::int64_t finish, std::int32_t exit_code, bool timed_out,
                            const char* cancelled_by) {
  std::string text(kEndMarker);
  text += "finish_unix: " + std::to_string(finish) + "\nexit_code: " + std::to_string(exit_code) +
          "\ntimed_out: " + (timed_out ? "1" : "0") + "\n";
  if (cancelled_by != nullptr) {
    text += std::string("cancelled: 1\ncancelled_by: ") + cancelled_by + "\n";
  }
  return text;
}

void read_job_log_trailer(int fd, std::int64_t file_size, JobLogTrailer& trailer) {
  trailer = {};
  if (file_size <= 0) return;
  const auto size = static_cast<std::uint64_t>(file_size);
  const std::uint64_t length = std::min<std::uint64_t>(size, kTrailerWindow);
  std::string text(length, '\0');
  std::size_t got = 0;
  if (read_at(fd, size - length, text, got) != ErrorCode::Ok) return;
  text.resize(got);
  std::replace(text.begin(), text.end(), '\0', ' ');
  const std::size_t marker = text.rfind(kEndMarker);
  if (marker == std::string::npos) return;
  text.erase(0, marker + kEndMarker.size());
  trailer.finished = true;
  trailer.finish_unix = number_after(text, "finish_unix: ");
  trailer.exit_code = static_cast<std::int32_t>(number_after(text, "exit_code: "));
  trailer.timed_out = number_after(text, "timed_out: ") != 0;
  trailer.cancelled = number_after(text, "cancelled: ") != 0;
}

void rotate_job_logs(const std::string& directory, std::uint32_t keep, std::string_view newest) {
  if (keep == 0) return;
  std::vector<std::string> names = directory_names(directory, kLogSuffix);
  // After the clock was put back, the log just written sorts among the old ones.
  if (std::erase(names, newest.substr(newest.rfind('/') + 1)) != 0) --keep;
  for (std::string& name : names) name.resize(std::min(name.size(), kMaxLogName));
  prune_oldest(directory, std::move(names), keep);  // start times: the oldest come first
}

}  // namespace orv
