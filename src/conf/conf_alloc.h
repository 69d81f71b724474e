// Allocation helpers shared by the configuration layer's files. Each one
// either succeeds or throws through log_err, so no caller ever has to deal
// with a null result for want of memory.
#pragma once

#include <stdlib.h>

#include "conf/conf.h"

// A zeroed object of type T: null pointers, zero counters and flags. Lists
// still need TAILQ_INIT.
template <typename T>
T *checked_calloc() {
  T *p = static_cast<T *>(calloc(1, sizeof(T)));
  if (p == NULL)
    log_err(1, "calloc");
  return p;
}

// Replaces *field with a private copy of `value` (null clears it). The copy
// is made before the old string is freed, so `value` may be *field itself.
void conf_replace_string(char **field, const char *value);

// Unlinks and frees a LUN without looking for targets that still point at
// it. REQUIRES: no target table references it, or every target is deleted
// next without reading its table (conf_delete).
void lun_destroy(struct lun *lun);
// Frees the conf's LUN index, once its LUNs are gone.
void lun_index_delete(struct conf *conf);
