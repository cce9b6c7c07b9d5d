// The classes, initialisers and pushes of all 33 tables, made from the
// catalogue: kzq_<t>_base, kzq_<t>_agent, kzq_<t>_manager, <t>_init(source)
// and <t>_push(rows, count).
#pragma once

#include "kzq/table_pattern.h"

namespace kzq {

#define KZQ_TABLE(t, ...)                                                  \
  class kzq_##t##_base : public TableBase<t##_spec> {                      \
   public:                                                                 \
    using TableBase::TableBase;                                            \
  };                                                                       \
  class kzq_##t##_agent : public TableAgent<kzq_##t##_base> {              \
   public:                                                                 \
    using TableAgent::TableAgent;                                          \
  };                                                                       \
  class kzq_##t##_manager : public TableManagerOf<kzq_##t##_agent> {      \
   public:                                                                 \
    using TableManagerOf::TableManagerOf;                                  \
  };                                                                       \
  /* Creates and registers the manager, which samples from `source` and   \
     tells `listener` (may be null) of its event requests; both must live \
     as long as the process. 0, kErrNoManager or the framework's          \
     registration error. */                                               \
  uint32_t t##_init(RowSource& source, EventRequestListener* listener = nullptr); \
  /* The table's manager once its initialiser has run, else null. */     \
  kzq_##t##_manager* t##_manager();                                        \
  /* Pushes rows of this table's layout to every open object; 0 when the  \
     manager does not exist yet, else the last non-zero Dispatch result. */ \
  int t##_push(const void* rows, int32_t count);
#include "kzq/catalogue.def"
#undef KZQ_TABLE

}  // namespace kzq
