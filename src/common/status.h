// Status codes of the suite: every operation that can fail returns Ok or one of these negative
// values. The numbers and their texts are shared with the suite's other tools and never change.
#ifndef ORV_COMMON_STATUS_H_
#define ORV_COMMON_STATUS_H_

namespace orv {

enum class [[nodiscard]] ErrorCode : int{
    Ok = 0,        IoError = -1,       OutOfMemory = -2,  Invalid = -3,
    NotFound = -4, AlreadyExists = -5, NotSupported = -6, Corrupt = -7,
    Protocol = -8, Unavailable = -9,   Decryption = -10,
};

// The fixed text of a code, "unknown error" for a value outside the table. Static storage.
const char* error_text(ErrorCode code);

// Why a call that has just failed with `code` did: errno's text for an IoError, else the code's
// own.
const char* failure_text(ErrorCode code);

// Whether a call that failed with this errno may well succeed when it is tried again later: for
// want of descriptors or memory, after an I/O error or a signal.
bool is_passing(int error_number);

// The code that stands for a system error number: ENOENT, EAGAIN, ENOMEM, EEXIST and EINVAL have
// codes of their own, every other value is IoError.
ErrorCode error_from_errno(int error_number);

}  // namespace orv

#endif  // ORV_COMMON_STATUS_H_
