// The simulated disk: files in memory that know what a loss of power would leave of them. Names
// and contents are lost apart, as on a real file system: a name that was changed comes back in the
// order of the changes, a content only as far as it was flushed or old enough.
#ifndef ORV_TESTS_SIM_DISK_H_
#define ORV_TESTS_SIM_DISK_H_

#include <sys/stat.h>

#include <cstdint>
#include <deque>
#include <map>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "sim/rng.h"

namespace orv::sim {

struct OpenFile;

struct Node {
  std::uint64_t number = 0;  // of the inode
  bool directory = false;
  bool link = false;  // symbolic; `data` is its text
  mode_t mode = 0644;
  std::string data;
  std::string flushed;           // what the disk has, while `dirty_since` is set
  std::int64_t dirty_since = 0;  // nanoseconds since the world began; 0: the disk has `data`
  std::int64_t modified = 0;     // nanoseconds of the wall clock
  const OpenFile* locked_by = nullptr;
};
using NodeRef = std::shared_ptr<Node>;

class Disk {
 public:
  bool full = false;

  [[nodiscard]] NodeRef find(std::string_view path) const;
  // A new node of that name; an old one of the name lives on in whoever has it open.
  NodeRef create(const std::string& path, bool directory, std::int64_t now);
  void name(const std::string& path, NodeRef node, std::int64_t now);  // null: the name goes
  void change(Node& node, std::int64_t now, std::int64_t wall);        // before a write
  static void flush(Node& node) { node.dirty_since = 0; }
  void flush_names();
  void lose_power(Rng& rng, std::int64_t now);
  [[nodiscard]] std::vector<std::string> list(const std::string& directory) const;
  // The content of a file, or the empty text.
  [[nodiscard]] std::string_view read(std::string_view path) const;
  // As an editor does it: under another name, flushed, renamed.
  void replace(const std::string& path, std::string text, std::int64_t now, std::int64_t wall);

 private:
  struct NameChange {
    std::string path;
    NodeRef node;
    std::int64_t at;
  };
  void write_names_until(std::int64_t time);

  std::map<std::string, NodeRef, std::less<>> names_;
  std::map<std::string, NodeRef, std::less<>> on_disk_;
  std::deque<NameChange> journal_;
  std::uint64_t next_number_ = 100;
};

}  // namespace orv::sim

#endif  // ORV_TESTS_SIM_DISK_H_
