// A tiny program outside the project that uses the installed library.
#include <talvern/talvern.h>

#include <cstdio>
#include <cstring>

int main() {
  const char text[] = "abcabcabcabcabcabcabcabc";
  unsigned char block[128];
  DWORD error = 0, size = 0;
  if (!GetCompressMemToMem(text, sizeof text - 1, &error, &size, block, sizeof block, 1)) {
    std::printf("compress failed: %u\n", error);
    return 1;
  }
  char back[64] = {};
  DWORD expanded = 0;
  if (!GetExpandMemToMem(block, size, &error, &expanded, back, sizeof back) ||
      expanded != sizeof text - 1 || std::memcmp(back, text, expanded) != 0) {
    std::printf("expand failed: %u\n", error);
    return 1;
  }
  CArchiveFile archive;
  std::printf("talvern %s: %u bytes -> %u bytes, %u%%, open=%d\n", TALVERN_VERSION_STRING,
              expanded, size, CalcArchivePercent(CArchiveSize(size), CArchiveSize(expanded)) / 100,
              archive.IsOpen());
  return 0;
}
