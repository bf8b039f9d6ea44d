// Jobs by name, for the checks that look up every name of every job. Of two jobs with one name the
// first counts, as in find_job(). It borrows from the jobs, which must not change while it is used.
#ifndef ORV_CONFIG_JOB_INDEX_H_
#define ORV_CONFIG_JOB_INDEX_H_

#include <cstddef>
#include <optional>
#include <span>
#include <string_view>
#include <unordered_map>

#include "config/config.h"

namespace orv {

class JobIndex {
 public:
  // Made in linear time, which pays from the second look-up on.
  explicit JobIndex(std::span<const Job> jobs) {
    rows_.reserve(jobs.size());
    for (std::size_t place = 0; place < jobs.size(); ++place) {
      rows_.emplace(jobs[place].name.view(), place);
    }
  }
  // The job's place in the configuration; no value when no job has that name.
  [[nodiscard]] std::optional<std::size_t> find(std::string_view name) const {
    const auto row = rows_.find(name);
    return row == rows_.end() ? std::nullopt : std::optional(row->second);
  }

 private:
  std::unordered_map<std::string_view, std::size_t> rows_;
};

}  // namespace orv

#endif  // ORV_CONFIG_JOB_INDEX_H_
