#include "table.h"
#include <stdio.h>

int main(void) {
  struct table t;
  table_init(&t, 64);
  for (int i = 0; i < 1000; ++i) table_put(&t, i, i * i);
  printf("%ld\n", table_get(&t, 999));
  table_free(&t);
  return 0;
}
