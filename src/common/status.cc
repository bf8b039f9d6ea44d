#include "common/status.h"

#include <cerrno>
#include <cstring>

namespace orv {

const char* error_text(ErrorCode code) {
  switch (code) {
    case ErrorCode::Ok: return "ok";
    case ErrorCode::IoError: return "I/O error";
    case ErrorCode::OutOfMemory: return "out of memory";
    case ErrorCode::Invalid: return "invalid argument or request";
    case ErrorCode::NotFound: return "not found";
    case ErrorCode::AlreadyExists: return "already exists";
    case ErrorCode::NotSupported: return "not supported";
    case ErrorCode::Corrupt: return "corrupt or inconsistent data";
    case ErrorCode::Protocol: return "protocol error";
    case ErrorCode::Unavailable: return "temporarily unavailable";
    case ErrorCode::Decryption: return "decryption failed (wrong key or corrupted data)";
  }
  return "unknown error";
}

const char* failure_text(ErrorCode code) {
  return code == ErrorCode::IoError ? std::strerror(errno) : error_text(code);
}

ErrorCode error_from_errno(int error_number) {
  switch (error_number) {
    case ENOENT: return ErrorCode::NotFound;
    case EAGAIN: return ErrorCode::Unavailable;
    case ENOMEM: return ErrorCode::OutOfMemory;
    case EEXIST: return ErrorCode::AlreadyExists;
    case EINVAL: return ErrorCode::Invalid;
    default: return ErrorCode::IoError;
  }
}

bool is_passing(int error_number) {
  return error_number == EMFILE || error_number == ENFILE || error_number == ENOMEM ||
         error_number == EIO || error_number == EINTR;
}

}  // namespace orv
