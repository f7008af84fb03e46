#pragma once

struct table {
  long *keys;
  long *values;
  int size;
  int used;
};

void table_init(struct table *t, int size);
void table_put(struct table *t, long key, long value);
long table_get(const struct table *t, long key);
void table_free(struct table *t);
