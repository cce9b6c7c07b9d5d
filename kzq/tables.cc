#include "kzq/tables.h"

namespace kzq {
namespace {

// A manager the framework refuses (its key is taken) is not kept, so the
// table's global always names the registered one.
template <typename Manager>
uint32_t InitTable(Manager*& global, RowSource& source, EventRequestListener* listener) {
  auto* manager = new (std::nothrow) Manager(source, listener);
  if (manager == nullptr) return kErrNoManager;
  const uint32_t result = framework::TableManager::RegisterWithManager(manager);
  if (result != 0) {
    delete manager;
    return result;
  }
  global = manager;
  return 0;
}

}  // namespace

#define KZQ_TABLE(t, ...)                                          \
  namespace {                                                      \
  kzq_##t##_manager* t##_global = nullptr;                         \
  }                                                                \
  uint32_t t##_init(RowSource& source, EventRequestListener* listener) { \
    return InitTable(t##_global, source, listener);                \
  }                                                                \
  kzq_##t##_manager* t##_manager() { return t##_global; }          \
  int t##_push(const void* rows, int32_t count) {                  \
    return t##_global == nullptr ? 0 : PushRowsToAll(*t##_global, rows, count); \
  }
#include "kzq/catalogue.def"
#undef KZQ_TABLE

}  // namespace kzq
