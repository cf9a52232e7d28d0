// Arguments the OS layer refuses before the platform sees them: a null
// path, record or buffer, a handle that is none.  The result is the one the
// platform gives for a failure, and errno says what it would have said.
#ifndef MOXOLEFIO_VOS_REFUSAL_H_
#define MOXOLEFIO_VOS_REFUSAL_H_

#include <errno.h>

inline int moxvosRefuse(int error = EFAULT) {
  errno = error;
  return -1;
}

// The same for functions whose failure is a null pointer.
template <typename T>
T* moxvosRefuseNull(int error = EFAULT) {
  errno = error;
  return nullptr;
}

#endif  // MOXOLEFIO_VOS_REFUSAL_H_
