#include "sched/queue_state.h"

#include <cstring>
#include <functional>
#include <utility>

namespace orv {
namespace {

std::size_t slot_of(std::string_view name, std::size_t slots) {
  return std::hash<std::string_view>{}(name) & (slots - 1);
}

}  // namespace

void QueueState::replace_all(std::vector<QueueRecord> records) {
  records_ = std::move(records);
  slots_.clear();
}

void QueueState::append(std::span<const QueueRecord> records) {
  if (records.empty()) return;  // the index stays
  records_.insert(records_.end(), records.begin(), records.end());
  slots_.clear();
}

bool QueueState::unsaved() const {
  if (records_.size() != saved_.size()) return true;
  // There is no padding.
  return !records_.empty() &&
         std::memcmp(records_.data(), saved_.data(), records().size_bytes()) != 0;
}

void QueueState::build_index() const {
  // At most half full, so that a search is short and always meets a free slot.
  std::size_t slots = 16;
  while (slots < 2 * records_.size()) slots *= 2;
  slots_.assign(slots, 0);
  for (std::size_t i = 0; i < records_.size(); ++i) {
    const std::string_view name = record_name(records_[i]);
    std::size_t slot = slot_of(name, slots);
    // Of two records of one name, the first counts.
    while (slots_[slot] != 0 && record_name(records_[slots_[slot] - 1]) != name) {
      slot = (slot + 1) & (slots - 1);
    }
    if (slots_[slot] == 0) slots_[slot] = static_cast<std::uint32_t>(i + 1);
  }
}

std::size_t QueueState::position_of(std::string_view name) const {
  if (slots_.empty()) build_index();
  const std::size_t slots = slots_.size();
  for (std::size_t slot = slot_of(name, slots); slots_[slot] != 0;
       slot = (slot + 1) & (slots - 1)) {
    if (record_name(records_[slots_[slot] - 1]) == name) return slots_[slot] - 1;
  }
  return records_.size();
}

QueueRecord* queue_find(QueueState& state, std::string_view name) {
  const std::size_t position = state.position_of(name);
  return position < state.records().size() ? &state.records()[position] : nullptr;
}

const QueueRecord* queue_find(const QueueState& state, std::string_view name) {
  const std::size_t position = state.position_of(name);
  return position < state.records().size() ? &state.records()[position] : nullptr;
}

}  // namespace orv
