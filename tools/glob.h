// Patterns over names in an archive (--include, --exclude and the patterns
// of extract). Names are compared without regard to case, as the archive's
// own paths are.
#pragma once

#include <talvern/win32.h>

#include <string>
#include <vector>

namespace tool {

// '*' matches any run of characters except a backslash, '**' any run at all,
// '?' one character except a backslash, [abc], [a-z] and [!abc] one
// character of (or not of) a set. '/' in a pattern stands for '\'.
bool GlobMatch(const CString& pattern, const CString& text);

// A pattern as the person wrote it (UTF-8, '/' or '\' separators), ready to
// match: a pattern without a separator matches an item's name, one with a
// separator its whole path in the archive.
class PathPattern {
public:
  explicit PathPattern(const std::string& text);
  bool Matches(const CString& path, const WCHAR* name) const;
  const CString& Text() const { return pattern_; }

private:
  CString pattern_;
  bool wholePath_ = false;
};

// The --include and --exclude lists: an item is taken when it matches no
// exclude pattern and, for files, matches an include pattern (when any
// are given). Folders are never dropped for not matching an include
// pattern, so that the files below them can still match.
class PathFilter {
public:
  PathFilter() = default;
  PathFilter(const std::vector<std::string>& includes, const std::vector<std::string>& excludes);
  bool Takes(const CString& folder, const WCHAR* name, bool isDirectory) const;
  bool Empty() const { return includes_.empty() && excludes_.empty(); }

private:
  std::vector<PathPattern> includes_;
  std::vector<PathPattern> excludes_;
};

} // namespace tool
