#include "sched/queue_file.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <new>
#include <span>
#include <stdexcept>
#include <utility>

#include "common/files.h"
#include "common/log.h"
#include "common/replacement_file.h"

namespace orv {
namespace {

ErrorCode read_records(int fd, std::vector<QueueRecord>& records) {
  struct stat st {};
  if (::fstat(fd, &st) != 0) return error_from_errno(errno);
  // Some file systems give a directory no size: it must not pass for an empty queue.
  if (!S_ISREG(st.st_mode)) {
    errno = S_ISDIR(st.st_mode) ? EISDIR : ENOTSUP;
    return ErrorCode::IoError;
  }
  const std::size_t count = static_cast<std::size_t>(st.st_size) / kRecordSize;
  if (count == 0) return ErrorCode::Ok;
  try {
    records.resize(count);
  } catch (const std::bad_alloc&) {
    return ErrorCode::OutOfMemory;
  } catch (const std::length_error&) {
    return ErrorCode::OutOfMemory;
  }
  std::size_t got = 0;
  const std::span<char> bytes(reinterpret_cast<char*>(records.data()), count * kRecordSize);
  if (ErrorCode rc = read_at(fd, 0, bytes, got); rc != ErrorCode::Ok) return rc;
  return got == bytes.size() ? ErrorCode::Ok : ErrorCode::Corrupt;
}

// Keeps the file and notes its status. Of a file that is to be read, before that: what changes it
// meanwhile then shows.
HeldFile hold(ScopedFd fd) {
  const int saved = errno;
  const FileIdentity identity = fd.valid() ? file_identity(fd.get()) : FileIdentity{};
  errno = saved;
  return {std::make_shared<const ScopedFd>(std::move(fd)), identity};
}

// Whether the records that were last read or saved are still those of the file: whoever changes the
// queue replaces its file.
bool file_is_the_same(const QueueState& state) {
  const FileIdentity none;
  return state.file().identity != none &&
         state.file().identity == file_identity(state.path.c_str());
}

ErrorCode load_existing(QueueState& state) {
  // A FIFO in the file's place is refused, but must not hold the scheduler up first.
  const HeldFile file = hold(open_file(state.path.c_str(), O_RDONLY | O_NONBLOCK));
  if (!file.fd->valid()) return error_from_errno(errno);
  std::vector<QueueRecord> records;
  if (ErrorCode rc = read_records(file.fd->get(), records); rc != ErrorCode::Ok) return rc;
  state.replace_all(std::move(records));
  state.note_saved(file);
  return ErrorCode::Ok;
}

void start_empty(QueueState& state, std::string_view path) {
  state.replace_all({});
  state.note_saved({});
  state.path = path.substr(0, kMaxQueuePath);
}

// An empty file, unless another process has made one in the meantime: that one is then loaded.
ErrorCode create_empty(QueueState& state) {
  if (ErrorCode rc = make_parent_directories(state.path); rc != ErrorCode::Ok) return rc;
  const ScopedFd fd = open_file(state.path.c_str(), O_WRONLY | O_CREAT | O_EXCL, 0644);
  if (fd.valid()) return ::fsync(fd.get()) == 0 ? ErrorCode::Ok : error_from_errno(errno);
  return errno == EEXIST ? load_existing(state) : error_from_errno(errno);
}

}  // namespace

ScopedFd queue_lock(const char* path) {
  const std::string lock_path = std::string(path) + ".lock";
  ScopedFd fd = open_file(lock_path.c_str(), O_RDWR | O_CREAT, 0644);
  if (!fd.valid() && errno == ENOENT && make_parent_directories(path) == ErrorCode::Ok) {
    fd = open_file(lock_path.c_str(), O_RDWR | O_CREAT, 0644);
  }
  if (!fd.valid()) {
    log_msg(LogLevel::Error, "orv_sched: cannot open queue lock %s: %s", lock_path.c_str(),
            std::strerror(errno));
    return fd;
  }
  if (!lock_exclusively(fd.get())) {
    log_msg(LogLevel::Error, "orv_sched: cannot lock %s: %s", lock_path.c_str(),
            std::strerror(errno));
    fd.reset();
  }
  return fd;
}

ErrorCode queue_load(QueueState& state, const char* path) {
  start_empty(state, path);
  struct stat st {};
  if (::stat(state.path.c_str(), &st) == 0) return load_existing(state);
  return errno == ENOENT ? create_empty(state) : error_from_errno(errno);
}

ErrorCode queue_load_readonly(QueueState& state, const char* path) {
  start_empty(state, path);
  struct stat st {};
  return ::stat(state.path.c_str(), &st) == 0 ? load_existing(state) : ErrorCode::Ok;
}

ErrorCode queue_save(QueueState& state) {
  const std::span<const char> bytes(reinterpret_cast<const char*>(state.records().data()),
                                    state.records().size_bytes());
  // The directory is not flushed: after a power loss an older queue is a complete one, too, and a
  // second flush for each step of each run would be felt.
  ScopedFd file;
  const auto replace = [&] {
    return replace_file(state.path, state.path + ".tmp", {bytes.data(), bytes.size()}, 0644,
                        DirectoryFlush::No, &file);
  };
  ErrorCode rc = replace();
  if (rc == ErrorCode::NotFound) {
    rc = make_parent_directories(state.path);
    if (rc == ErrorCode::Ok) rc = replace();
  }
  if (rc == ErrorCode::Ok) state.note_saved(hold(std::move(file)));
  return rc;
}

void queue_log_unsaved(const QueueState& state, ErrorCode rc, const char* remark) {
  if (rc == ErrorCode::Ok) return;
  log_msg(LogLevel::Error, "orv_sched: cannot save the queue %s: %s%s", state.path.c_str(),
          failure_text(rc), remark);
}

ErrorCode queue_reload(QueueState& state) {
  if (file_is_the_same(state)) {
    if (state.unsaved()) state.replace_all(state.saved());
    return ErrorCode::Ok;
  }
  QueueState fresh;
  if (ErrorCode rc = queue_load(fresh, state.path.c_str()); rc != ErrorCode::Ok) return rc;
  state = std::move(fresh);
  return ErrorCode::Ok;
}

ErrorCode queue_upsert(QueueState& state, const QueueRecord& record) {
  if (QueueRecord* const present = queue_find(state, record_name(record))) {
    *present = record;
  } else {
    state.append({&record, 1});
  }
  return queue_save(state);
}

}  // namespace orv
