// Patterns that select entries for extraction, as the command-line tool
// takes them: '*' any run of characters but a folder separator, '**' any
// run at all, '?' one character but a separator, [abc], [a-z] and [!abc]
// one character of (or not of) a set. A pattern without '/' matches an
// entry's name, one with '/' its whole path. Case does not matter.
#pragma once

#include <talvern/win32.h>

#include <string>

namespace talvern::capi {

class Pattern {
public:
  explicit Pattern(const char* text);
  // path: "folder/name"; name: the last part.
  bool Matches(const char* path, const char* name) const;

private:
  CString pattern_;
  bool wholePath_ = false;
};

} // namespace talvern::capi
