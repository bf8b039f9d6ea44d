// A record's bytes: header, items, wiping; and the two checks of texts that both ends share.
#include <string.h>

#include "net/ipc_items.h"

namespace orv {
namespace {

constexpr std::size_t kPayloadLengthAt = 12;  // in the header

}  // namespace

// Up to the longest record so far: a short one may have been written over a long one.
void IpcMessage::wipe() noexcept {
  ::explicit_bzero(bytes.data(), std::max(length, dirty));
  length = 0;
  dirty = 0;
}

void IpcMailConfig::wipe() noexcept {
  valid = false;
  host.wipe();
  port = 0;
  tls_mode = 0;
  user.wipe();
  password.wipe();
  from.wipe();
  recipients = {};
  ca_file.wipe();
  timeout_s = 0;
}

void ipc_release_api_config(IpcApiConfig& record) { record = IpcApiConfig(); }

bool ipc_printable(std::string_view text) {
  return std::ranges::all_of(text, [](char c) { return c >= 0x20 && c <= 0x7E; });
}

bool is_api_method(std::string_view text) {
  return std::ranges::find(kApiMethods, text) != std::end(kApiMethods);
}

void ipc_begin(IpcMessage& msg, MessageType type, std::uint32_t id) {
  msg.dirty = std::max(msg.dirty, msg.length);
  unsigned char* p = msg.bytes.data();
  ::memcpy(p, kIpcMagic.data(), kIpcMagic.size());
  store_le16(p + 4, kIpcVersion);
  store_le16(p + 6, static_cast<std::uint16_t>(type));
  store_le32(p + 8, id);
  store_le32(p + kPayloadLengthAt, 0);
  msg.length = kIpcHeaderSize;
}

int ipc_put_bytes(IpcMessage& msg, std::uint16_t tag, std::string_view bytes) {
  // Compared without a sum, which could wrap around.
  const std::size_t room = kIpcMaxRecord - msg.length;
  if (room < ipc::kItemHeaderSize || bytes.size() > room - ipc::kItemHeaderSize) return -1;
  unsigned char* p = msg.bytes.data() + msg.length;
  store_le16(p, tag);
  store_le32(p + 2, static_cast<std::uint32_t>(bytes.size()));
  if (!bytes.empty()) ::memcpy(p + ipc::kItemHeaderSize, bytes.data(), bytes.size());
  msg.length += ipc::kItemHeaderSize + bytes.size();
  // Kept right after every item: the record can be sent as it is at any time.
  store_le32(msg.bytes.data() + kPayloadLengthAt,
             static_cast<std::uint32_t>(msg.length - kIpcHeaderSize));
  return 0;
}

int ipc_put_string(IpcMessage& msg, std::uint16_t tag, std::string_view text) {
  return ipc::has_nul(text) ? -1 : ipc_put_bytes(msg, tag, text);
}

int ipc_put_u32(IpcMessage& msg, std::uint16_t tag, std::uint32_t value) {
  unsigned char bytes[4];
  store_le32(bytes, value);
  char chars[4];
  ::memcpy(chars, bytes, sizeof chars);
  return ipc_put_bytes(msg, tag, {chars, sizeof chars});
}

int ipc_parse(std::span<const unsigned char> record, IpcParsed& out) {
  // The size first: nothing else may be read before it is known to be there.
  if (record.size() < kIpcHeaderSize || record.size() > kIpcMaxRecord) return -1;
  const unsigned char* p = record.data();
  if (!std::equal(kIpcMagic.begin(), kIpcMagic.end(), p)) return -1;
  if (load_le16(p + 4) != kIpcVersion) return -1;
  if (load_le32(p + kPayloadLengthAt) != record.size() - kIpcHeaderSize) return -1;
  out.type = load_le16(p + 6);
  out.id = load_le32(p + 8);
  out.payload = record.subspan(kIpcHeaderSize);
  return 0;
}

}  // namespace orv
