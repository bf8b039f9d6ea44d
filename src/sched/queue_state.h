// The queue in memory: the records of all jobs, with an index of their names.
#ifndef ORV_SCHED_QUEUE_STATE_H_
#define ORV_SCHED_QUEUE_STATE_H_

#include <cstddef>
#include <cstdint>
#include <memory>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "common/files.h"
#include "sched/queue_record.h"

namespace orv {

// A file that is held open, so that no other file can get its inode meanwhile.
struct HeldFile {
  std::shared_ptr<const ScopedFd> fd;  // null: none
  FileIdentity identity;
};

// Records keep the order in which their jobs were first added. A record's fields are changed in
// place, but never its name: the index depends on it. Copying and moving are cheap enough for the
// at most few hundred records of a queue.
class QueueState {
 public:
  std::string path;  // of the queue file

  [[nodiscard]] std::span<QueueRecord> records() { return records_; }
  [[nodiscard]] std::span<const QueueRecord> records() const { return records_; }

  // What these three do makes every pointer to a record stale.
  void replace_all(std::vector<QueueRecord> records);
  void append(std::span<const QueueRecord> records);
  // Removes the records for which `unwanted(record)` holds; returns their number.
  template <typename Predicate>
  std::size_t erase_if(Predicate unwanted) {
    const std::size_t erased = std::erase_if(records_, unwanted);
    if (erased != 0) slots_.clear();
    return erased;
  }

  // The file holds these very records: they were just read from it, or written to it. `file` is
  // that file, or empty.
  void note_saved(const HeldFile& file) {
    saved_ = records_;
    file_ = file;
  }
  [[nodiscard]] const HeldFile& file() const { return file_; }
  [[nodiscard]] const std::vector<QueueRecord>& saved() const { return saved_; }  // at that moment
  // Whether the records hold changes that the file does not have.
  [[nodiscard]] bool unsaved() const;

  // The position of the first record of exactly this name; records().size() when there is none.
  // The first look-up after a change of the records costs one pass over them, the others nothing.
  [[nodiscard]] std::size_t position_of(std::string_view name) const;

 private:
  void build_index() const;

  std::vector<QueueRecord> records_;
  std::vector<QueueRecord> saved_;
  HeldFile file_;
  // Open addressing over the names; 0: free, else position + 1. Empty: to be built.
  mutable std::vector<std::uint32_t> slots_;
};

// The first record of exactly this name, or null.
[[nodiscard]] QueueRecord* queue_find(QueueState& state, std::string_view name);
[[nodiscard]] const QueueRecord* queue_find(const QueueState& state, std::string_view name);

}  // namespace orv

#endif  // ORV_SCHED_QUEUE_STATE_H_
