#include "interface/mox_pool.h"

namespace {

constexpr int kPoolInitialSize = 4096;
constexpr int kPoolFlags = 0;

}  // namespace

HostMemory* moxCreatePool(tag_TPVAPIServices* services) {
  if (services == nullptr) return nullptr;
  int status = 0;
  return services->createPool(services, kPoolInitialSize, kPoolFlags, &status);
}

void moxDestroyPool(tag_TPVAPIServices* services, HostMemory*& pool) {
  if (pool == nullptr) return;
  services->destroyPool(services, pool);
  pool = nullptr;
}
