#include "sim/disk.h"

#include <utility>

namespace orv::sim {
namespace {

// What is older has reached the disk by itself.
constexpr std::int64_t kWriteBack = 30'000'000'000;  // nanoseconds

template <class Names>
void set_name(Names& names, const std::string& path, NodeRef node) {
  if (node) {
    names[path] = std::move(node);
  } else {
    names.erase(path);
  }
}

}  // namespace

NodeRef Disk::find(std::string_view path) const {
  const auto at = names_.find(path);
  return at == names_.end() ? nullptr : at->second;
}

NodeRef Disk::create(const std::string& path, bool directory, std::int64_t now) {
  auto node = std::make_shared<Node>();
  node->number = next_number_++;
  node->directory = directory;
  name(path, node, now);
  return node;
}

void Disk::name(const std::string& path, NodeRef node, std::int64_t now) {
  write_names_until(now - kWriteBack);
  set_name(names_, path, node);
  journal_.push_back({path, std::move(node), now});
}

void Disk::change(Node& node, std::int64_t now, std::int64_t wall) {
  if (node.dirty_since == 0 || now - node.dirty_since > kWriteBack) {
    node.flushed = node.data;
    node.dirty_since = now;
  }
  node.modified = wall;
}

void Disk::write_names_until(std::int64_t time) {
  for (; !journal_.empty() && journal_.front().at <= time; journal_.pop_front()) {
    set_name(on_disk_, journal_.front().path, std::move(journal_.front().node));
  }
}

void Disk::flush_names() { write_names_until(INT64_MAX); }

void Disk::lose_power(Rng& rng, std::int64_t now) {
  write_names_until(now - kWriteBack);
  journal_.resize(rng.below(journal_.size() + 1));  // the disk has the first so many changes
  flush_names();
  names_ = on_disk_;
  for (auto& [path, node] : names_) {
    if (node->dirty_since == 0) continue;
    if (now - node->dirty_since <= kWriteBack && !rng.one_in(4)) {
      // The old content, or a part of what was appended to it.
      const bool appended = node->data.starts_with(node->flushed);
      const std::size_t more = appended ? node->data.size() - node->flushed.size() : 0;
      node->data.resize(appended ? node->flushed.size() + rng.below(more + 1) : 0);
    }
    flush(*node);
  }
}

std::vector<std::string> Disk::list(const std::string& directory) const {
  std::vector<std::string> found;
  const std::string prefix = directory + "/";
  for (auto at = names_.lower_bound(prefix); at != names_.end(); ++at) {
    if (!at->first.starts_with(prefix)) break;
    if (at->first.find('/', prefix.size()) == std::string::npos) {
      found.push_back(at->first.substr(prefix.size()));
    }
  }
  return found;
}

std::string_view Disk::read(std::string_view path) const {
  const auto at = names_.find(path);
  return at == names_.end() ? std::string_view() : at->second->data;
}

void Disk::replace(const std::string& path, std::string text, std::int64_t now, std::int64_t wall) {
  const NodeRef node = create(path, false, now);
  node->data = std::move(text);
  node->modified = wall;
  flush_names();
}

}  // namespace orv::sim
