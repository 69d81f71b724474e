// String ownership helpers of the configuration layer.
#include <stdlib.h>
#include <string.h>

#include "conf/conf.h"
#include "conf/conf_alloc.h"

char *checked_strdup(const char *s) {
  char *copy = strdup(s);
  if (copy == NULL)
    log_err(1, "strdup");
  return copy;
}

void conf_replace_string(char **field, const char *value) {
  char *copy = value != NULL ? checked_strdup(value) : NULL;
  free(*field);
  *field = copy;
}
