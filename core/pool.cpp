#include "core/pool.h"

void free_pool(list *pool) {
  for (list_node *record = list_remove(pool); record != nullptr; record = list_remove(pool)) {
    my_free(record);
  }
}
