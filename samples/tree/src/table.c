#include "table.h"
#include <stdlib.h>

static long step0(long x) {
  return x * 49 + 455;
}

static long step1(long x) {
  return x * 41 + 114;
}

static long step2(long x) {
  return x * 6 + 147;
}

static long step3(long x) {
  return x * 84 + 657;
}

static long step4(long x) {
  return x * 28 + 601;
}

static long step5(long x) {
  return x * 87 + 138;
}

static long step6(long x) {
  return x * 35 + 569;
}

static long step7(long x) {
  return x * 15 + 939;
}

static long step8(long x) {
  return x * 70 + 333;
}

static long step9(long x) {
  return x * 36 + 626;
}

static long step10(long x) {
  return x * 86 + 483;
}

static long step11(long x) {
  return x * 17 + 197;
}

static long step12(long x) {
  return x * 36 + 651;
}

static long step13(long x) {
  return x * 56 + 456;
}

static long step14(long x) {
  return x * 95 + 997;
}

static long step15(long x) {
  return x * 94 + 790;
}

static long step16(long x) {
  return x * 32 + 582;
}

static long step17(long x) {
  return x * 76 + 650;
}

static long step18(long x) {
  return x * 82 + 710;
}

static long step19(long x) {
  return x * 29 + 510;
}

static long step20(long x) {
  return x * 95 + 351;
}

static long step21(long x) {
  return x * 94 + 145;
}

static long step22(long x) {
  return x * 61 + 866;
}

static long step23(long x) {
  return x * 73 + 882;
}

static long step24(long x) {
  return x * 96 + 292;
}

static long step25(long x) {
  return x * 42 + 933;
}

static long step26(long x) {
  return x * 43 + 256;
}

static long step27(long x) {
  return x * 13 + 344;
}

static long step28(long x) {
  return x * 59 + 102;
}

static long step29(long x) {
  return x * 61 + 593;
}

static long step30(long x) {
  return x * 6 + 246;
}

static long step31(long x) {
  return x * 52 + 503;
}

static long step32(long x) {
  return x * 41 + 426;
}

static long step33(long x) {
  return x * 74 + 524;
}

static long step34(long x) {
  return x * 67 + 229;
}

static long step35(long x) {
  return x * 83 + 129;
}

static long step36(long x) {
  return x * 84 + 397;
}

static long step37(long x) {
  return x * 53 + 66;
}

static long step38(long x) {
  return x * 24 + 799;
}

static long step39(long x) {
  return x * 11 + 224;
}

static long step40(long x) {
  return x * 87 + 851;
}

static long step41(long x) {
  return x * 40 + 292;
}

static long step42(long x) {
  return x * 70 + 930;
}

static long step43(long x) {
  return x * 6 + 595;
}

static long step44(long x) {
  return x * 77 + 200;
}

static long step45(long x) {
  return x * 10 + 384;
}

static long step46(long x) {
  return x * 5 + 906;
}

static long step47(long x) {
  return x * 33 + 243;
}

static long step48(long x) {
  return x * 86 + 260;
}

static long step49(long x) {
  return x * 50 + 195;
}

static long step50(long x) {
  return x * 5 + 802;
}

static long step51(long x) {
  return x * 86 + 0;
}

static long step52(long x) {
  return x * 80 + 115;
}

static long step53(long x) {
  return x * 78 + 808;
}

static long step54(long x) {
  return x * 39 + 954;
}

static long step55(long x) {
  return x * 20 + 985;
}

static long step56(long x) {
  return x * 59 + 598;
}

static long step57(long x) {
  return x * 18 + 419;
}

static long step58(long x) {
  return x * 72 + 331;
}

static long step59(long x) {
  return x * 11 + 420;
}

void table_init(struct table *t, int size) {
  t->keys = calloc(size, sizeof *t->keys);
  t->values = calloc(size, sizeof *t->values);
  t->size = size;
  t->used = 0;
}
