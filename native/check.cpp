#include "native/check.h"

namespace mox::detail {

std::vector<Defect> checkImage(const Image& image) { return image.loadDefects(); }

}  // namespace mox::detail
