// The full structural scan behind CompoundFile::check() and strict opens.
#ifndef MOXOLEFIO_NATIVE_CHECK_H_
#define MOXOLEFIO_NATIVE_CHECK_H_

#include <vector>

#include "moxolefio/moxolefio.hpp"
#include "native/image.h"

namespace mox::detail {

// Every defect of the file as stored, load defects included; warnings for
// what readers tolerate, errors for what loses or confuses data.
std::vector<Defect> checkImage(const Image& image);

}  // namespace mox::detail

#endif  // MOXOLEFIO_NATIVE_CHECK_H_
