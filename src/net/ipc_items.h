// How a record's fields become items and items become fields again. A record type is a table with
// one row for each field; the row serves both directions, and the two functions at the end are all
// that encodes and decodes. Used by ipc_records.cc only.
#ifndef ORV_NET_IPC_ITEMS_H_
#define ORV_NET_IPC_ITEMS_H_

#include <algorithm>
#include <type_traits>

#include "common/endian.h"
#include "common/message.h"
#include "net/ipc.h"

namespace orv::ipc {

inline constexpr std::size_t kItemHeaderSize = 6;  // bytes of tag and length

// The tags that a record has shown so far. One bit each: a record type's range of tags has at most
// 32 of them, and only a tag within the range may be asked for.
class Seen {
 public:
  explicit Seen(Tag first) : first_(first) {}
  [[nodiscard]] bool has(std::uint16_t tag) const { return (bits_ & bit(tag)) != 0; }
  void add(std::uint16_t tag) { bits_ |= bit(tag); }

 private:
  [[nodiscard]] std::uint32_t bit(std::uint16_t tag) const { return 1U << (tag - first_); }
  Tag first_;
  std::uint32_t bits_ = 0;
};

// One field of `Record`. store() takes a received value: null, or what is wrong with it, which is
// the row's `fault` unless it knows better. put() appends the field's items to a record: 0, or -1
// when one does not fit.
template <typename Record>
struct ItemRow {
  Tag tag;
  const char* (*store)(Record& out, std::string_view value, const char* fault);
  int (*put)(IpcMessage& msg, Tag tag, const Record& record);
  const char* fault;
  bool repeatable = false;
};

// A record type. The texts follow "<name>: "; those about a tag are followed by its number.
template <typename Record>
struct RecordType {
  MessageType type;
  const char* name;
  Tag first, last;                         // its range of tags, those without a meaning included
  std::span<const ItemRow<Record>> items;  // in the order of sending
  // What the record lacks after its last item; null when it is complete. Here stand the rules that
  // concern several fields.
  const char* (*missing)(const Record& record, const Seen& seen);
  // The wording of the faults that all records share, where a type words them differently.
  const char* empty = "incomplete";
  const char* malformed = "malformed record";  // an item runs beyond the record's end
  const char* outside = "unexpected tag";      // a tag beyond the range
  const char* repeated = "unexpected tag";     // a second item of a tag
};

inline bool has_nul(std::string_view value) { return value.find('\0') != std::string_view::npos; }

// False when the value has not the 4 bytes of a number.
inline bool read_u32(std::string_view value, std::uint32_t& out) {
  if (value.size() != 4) return false;
  unsigned char bytes[4];
  std::copy(value.begin(), value.end(), bytes);
  out = load_le32(bytes);
  return true;
}

// The kinds of fields. Each is a pair of store() and put() for one member of a record.
template <typename Member>
struct MemberOf;
template <typename R, typename V>
struct MemberOf<V R::*> {
  using Record = R;
  using Value = V;
};
template <auto kField>
using RecordOf = typename MemberOf<decltype(kField)>::Record;

// Whether an empty field is sent as an empty item or left out.
enum class Sent { Always, IfSet };

// A number of 4 bytes between kMin and kMax.
template <auto kField, std::uint32_t kMin = 0, std::uint32_t kMax = UINT32_MAX>
struct Number {
  using Record = RecordOf<kField>;
  static const char* store(Record& out, std::string_view value, const char* fault) {
    std::uint32_t n = 0;
    if (!read_u32(value, n) || n < kMin || n > kMax) return fault;
    out.*kField = n;
    return nullptr;
  }
  static int put(IpcMessage& msg, Tag tag, const Record& record) {
    return ipc_put_u32(msg, tag, record.*kField);
  }
};

// A number that is only zero or not. Sent as 1 when it is true and else left out.
template <auto kField>
struct Flag {
  using Record = RecordOf<kField>;
  static const char* store(Record& out, std::string_view value, const char* fault) {
    std::uint32_t n = 0;
    if (!read_u32(value, n)) return fault;
    out.*kField = n != 0;
    return nullptr;
  }
  static int put(IpcMessage& msg, Tag tag, const Record& record) {
    return record.*kField ? ipc_put_u32(msg, tag, 1) : 0;
  }
};

// What a text may be: a string has no NUL in it, for the fields end at the first one.
inline bool any_text(std::string_view value) { return !has_nul(value); }
inline bool some_text(std::string_view value) { return !value.empty() && !has_nul(value); }

// A text of a fixed capacity that `kAccepts` agrees with. It is copied: it outlives the record.
template <auto kField, Sent kSent, bool (*kAccepts)(std::string_view) = any_text>
struct Text {
  using Record = RecordOf<kField>;
  static const char* store(Record& out, std::string_view value, const char* fault) {
    return kAccepts(value) && (out.*kField).set(value) ? nullptr : fault;
  }
  static int put(IpcMessage& msg, Tag tag, const Record& record) {
    const std::string_view value = (record.*kField).view();
    if (kSent == Sent::IfSet && value.empty()) return 0;
    return ipc_put_string(msg, tag, value);
  }
};

// Bytes of any kind, also NUL. The decoded field points into the received record: bodies are large,
// and are used up before the next record is received.
template <auto kField, Sent kSent, std::size_t kMax>
struct Bytes {
  using Record = RecordOf<kField>;
  static const char* store(Record& out, std::string_view value, const char* fault) {
    if (value.size() > kMax) return fault;
    out.*kField = value;
    return nullptr;
  }
  static int put(IpcMessage& msg, Tag tag, const Record& record) {
    const std::string_view value = record.*kField;
    if (kSent == Sent::IfSet && value.empty()) return 0;
    return value.size() > kMax ? -1 : ipc_put_bytes(msg, tag, value);
  }
};

// The row of a field of that kind.
template <typename Kind>
constexpr ItemRow<typename Kind::Record> row(Tag tag, const char* fault, bool repeatable = false) {
  return {tag, Kind::store, Kind::put, fault, repeatable};
}

// An item as it lies in the received record.
struct Item {
  std::uint16_t tag = 0;
  std::string_view value;
};

// Takes the next item off `rest`. False when what is there is no whole item. The length is compared
// with what is left and never added to anything, so that no sender can make it overflow.
inline bool next_item(std::span<const unsigned char>& rest, Item& item) {
  if (rest.size() < kItemHeaderSize) return false;
  const std::uint32_t length = load_le32(rest.data() + 2);
  if (length > rest.size() - kItemHeaderSize) return false;
  item.tag = load_le16(rest.data());
  item.value = {reinterpret_cast<const char*>(rest.data()) + kItemHeaderSize, length};
  rest = rest.subspan(kItemHeaderSize + length);
  return true;
}

// Checks one item and stores it. 0; -1 with the fault. No value is read before its tag was found to
// be one that may stand here.
template <typename Record>
int take_item(const RecordType<Record>& type, const Item& item, Record& out, Seen& seen,
              std::span<char> err) {
  const auto tag_fault = [&](const char* what) {
    return fail(err, "%s: %s %u", type.name, what, unsigned{item.tag});
  };
  // The range comes first: beyond it a tag has no bit in `seen`.
  if (item.tag < type.first || item.tag > type.last) return tag_fault(type.outside);
  const auto row = std::ranges::find(type.items, item.tag, &ItemRow<Record>::tag);
  if (row == type.items.end()) return tag_fault("unexpected tag");
  if (seen.has(item.tag) && !row->repeatable) return tag_fault(type.repeated);
  seen.add(item.tag);
  const char* fault = row->store(out, item.value, row->fault);
  return fault == nullptr ? 0 : fail(err, "%s: %s", type.name, fault);
}

// Type, items in any order, completeness. 0; -1 with the first fault.
template <typename Record>
int walk(const RecordType<Record>& type, const IpcParsed& in, Record& out, std::span<char> err) {
  if (in.type != static_cast<std::uint16_t>(type.type)) {
    return fail(err, "unexpected message type %u (expected %u)", unsigned{in.type},
                static_cast<unsigned>(type.type));
  }
  if (in.payload.empty()) return fail(err, "%s: %s", type.name, type.empty);
  Seen seen(type.first);
  for (std::span<const unsigned char> rest = in.payload; !rest.empty();) {
    Item item;
    if (!next_item(rest, item)) return fail(err, "%s: %s", type.name, type.malformed);
    if (take_item(type, item, out, seen, err) != 0) return -1;
  }
  const char* missing = type.missing(out, seen);
  return missing == nullptr ? 0 : fail(err, "%s: %s", type.name, missing);
}

// Reads a record into `out`. 0; -1 with one message. `clear` puts `out` back to its initial state,
// first of all and again after a failure: what a refused record left in it may be a secret.
template <typename Record>
int decode(
    const RecordType<Record>& type, const IpcParsed& in, Record& out, std::span<char> err,
    std::type_identity_t<void (*)(Record&)> clear = [](Record& record) { record = Record(); }) {
  clear(out);
  const int rc = walk(type, in, out, err);
  if (rc != 0) clear(out);
  return rc;
}

// Writes the record, replacing what was in `msg`. An item that does not fit makes the result -1;
// the others are still written, and the record must not be sent.
template <typename Record>
int encode(const RecordType<Record>& type, IpcMessage& msg, std::uint32_t id,
           const Record& record) {
  ipc_begin(msg, type.type, id);
  int result = 0;
  for (const ItemRow<Record>& row : type.items) {
    if (row.put(msg, row.tag, record) != 0) result = -1;
  }
  return result;
}

}  // namespace orv::ipc

#endif  // ORV_NET_IPC_ITEMS_H_
