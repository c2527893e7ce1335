// The errors that the calls on an RFCOMM socket may end with: what each call's
// manual page lists, then what Bluetooth sockets are known to give.

#ifndef LUMSO_BLUETOOTH_TESTS_SUPPORT_CALL_ERRORS_H_
#define LUMSO_BLUETOOTH_TESTS_SUPPORT_CALL_ERRORS_H_

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <string>
#include <vector>

namespace lumso_test {

using Errors = std::vector<int>;

inline const Errors kSocketErrors = {EACCES, EAFNOSUPPORT, EINVAL,
                                     EMFILE, ENFILE,       ENOBUFS,
                                     ENOMEM, EPERM,        EPROTONOSUPPORT};
inline const Errors kEventfdErrors = {EINVAL, EMFILE, ENFILE, ENODEV, ENOMEM};
inline const Errors kFcntlErrors = {EACCES,  EAGAIN, EBADF,   EBUSY,
                                    EDEADLK, EFAULT, EINTR,   EINVAL,
                                    EMFILE,  ENOLCK, ENOTDIR, EPERM};
inline const Errors kConnectErrors = {
    EACCES,      EADDRINUSE,   EADDRNOTAVAIL, EAFNOSUPPORT, EAGAIN,    EALREADY,
    EBADF,       ECONNREFUSED, EFAULT,        EINPROGRESS,  EINTR,     EISCONN,
    ENETUNREACH, ENOTSOCK,     EPERM,         EPROTOTYPE,   ETIMEDOUT, EBUSY,
    EHOSTDOWN,   EHOSTUNREACH, ECONNABORTED,  ECONNRESET};
inline const Errors kPollErrors = {EFAULT, EINTR, EINVAL, ENOMEM};
inline const Errors kGetsockoptErrors = {EBADF, EFAULT, EINVAL, ENOPROTOOPT,
                                         ENOTSOCK};
inline const Errors kReadErrors = {EAGAIN,    EBADF,        EFAULT,  EINTR,
                                   EINVAL,    EIO,          EISDIR,  ECONNRESET,
                                   ETIMEDOUT, ECONNABORTED, ENOTCONN};
inline const Errors kWriteErrors = {
    EAGAIN, EBADF, EDESTADDRREQ, EDQUOT, EFAULT, EFBIG,    EINTR,
    EINVAL, EIO,   ENOSPC,       EPERM,  EPIPE,  ENOTCONN, ECONNRESET};
inline const Errors kShutdownErrors = {EBADF, EINVAL, ENOTCONN, ENOTSOCK};
inline const Errors kCloseErrors = {EBADF, EINTR, EIO, ENOSPC, EDQUOT};
inline const Errors kEventfdWriteErrors = {EAGAIN, EBADF, EINTR, EINVAL};

inline bool IsOneOf(int error, const Errors& errors) {
  return std::count(errors.begin(), errors.end(), error) != 0;
}

// Returns `text` with the error's own text in place of its "*", if it has one.
inline std::string WithError(std::string text, int error) {
  const size_t star = text.find('*');
  return star == std::string::npos ? text
                                   : text.replace(star, 1, strerror(error));
}

}  // namespace lumso_test

#endif  // LUMSO_BLUETOOTH_TESTS_SUPPORT_CALL_ERRORS_H_
