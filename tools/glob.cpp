#include "glob.h"

#include "format.h"

namespace tool {
namespace {

WCHAR Fold(WCHAR c) {
  if (c >= u'a' && c <= u'z') return static_cast<WCHAR>(c - u'a' + u'A');
  if (c < 0x80) return c;
  WCHAR text[2] = {c, 0};
  CharUpperW(text);
  return text[0];
}

// Matches a bracket set at pattern[p] ('[' already seen at p - 1) against c.
// Returns the index after ']' or npos when the set is not closed (then the
// '[' is an ordinary character).
std::size_t MatchSet(const CString& pattern, std::size_t p, WCHAR c, bool& matched) {
  bool negate = false;
  if (p < pattern.size() && (pattern[p] == u'!' || pattern[p] == u'^')) {
    negate = true;
    ++p;
  }
  bool hit = false;
  bool first = true;
  const WCHAR folded = Fold(c);
  while (p < pattern.size() && (first || pattern[p] != u']')) {
    first = false;
    WCHAR low = pattern[p];
    WCHAR high = low;
    if (p + 2 < pattern.size() && pattern[p + 1] == u'-' && pattern[p + 2] != u']') {
      high = pattern[p + 2];
      p += 3;
    } else {
      ++p;
    }
    if ((folded >= Fold(low) && folded <= Fold(high)) || (c >= low && c <= high)) hit = true;
  }
  if (p >= pattern.size()) return CString::npos;
  matched = hit != negate && c != u'\\';
  return p + 1;
}

bool Match(const CString& pattern, std::size_t p, const CString& text, std::size_t t) {
  while (p < pattern.size()) {
    const WCHAR pc = pattern[p];
    if (pc == u'*') {
      const bool any = p + 1 < pattern.size() && pattern[p + 1] == u'*';
      std::size_t next = p + (any ? 2 : 1);
      // "**\" also matches no folder at all.
      if (any && next < pattern.size() && pattern[next] == u'\\' &&
          Match(pattern, next + 1, text, t))
        return true;
      for (std::size_t k = t;; ++k) {
        if (Match(pattern, next, text, k)) return true;
        if (k >= text.size() || (!any && text[k] == u'\\')) return false;
      }
    }
    if (t >= text.size()) return false;
    if (pc == u'?') {
      if (text[t] == u'\\') return false;
      ++p;
      ++t;
      continue;
    }
    if (pc == u'[') {
      bool matched = false;
      const std::size_t after = MatchSet(pattern, p + 1, text[t], matched);
      if (after != CString::npos) {
        if (!matched) return false;
        p = after;
        ++t;
        continue;
      }
    }
    if (Fold(pc) != Fold(text[t])) return false;
    ++p;
    ++t;
  }
  return t == text.size();
}

} // namespace

bool GlobMatch(const CString& pattern, const CString& text) { return Match(pattern, 0, text, 0); }

PathPattern::PathPattern(const std::string& text) : pattern_(Wide(text)) {
  for (WCHAR& c : pattern_)
    if (c == u'/') c = u'\\';
  // Leading "./" or "\" and trailing separators carry no meaning in an archive.
  while (pattern_.size() >= 2 && pattern_[0] == u'.' && pattern_[1] == u'\\') pattern_.erase(0, 2);
  while (!pattern_.empty() && pattern_[0] == u'\\') pattern_.erase(0, 1);
  while (!pattern_.empty() && pattern_.back() == u'\\') pattern_.pop_back();
  wholePath_ = pattern_.find(u'\\') != CString::npos;
}

bool PathPattern::Matches(const CString& folder, const WCHAR* name) const {
  if (!wholePath_) return GlobMatch(pattern_, name);
  return GlobMatch(pattern_, EntryPathOf(folder, name));
}

PathFilter::PathFilter(const std::vector<std::string>& includes,
                       const std::vector<std::string>& excludes) {
  for (const auto& text : includes) includes_.emplace_back(text);
  for (const auto& text : excludes) excludes_.emplace_back(text);
}

bool PathFilter::Takes(const CString& folder, const WCHAR* name, bool isDirectory) const {
  for (const auto& pattern : excludes_)
    if (pattern.Matches(folder, name)) return false;
  if (isDirectory || includes_.empty()) return true;
  for (const auto& pattern : includes_)
    if (pattern.Matches(folder, name)) return true;
  return false;
}

} // namespace tool
