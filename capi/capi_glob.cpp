#include "capi/capi_glob.h"

#include <talvern/platform.h>

namespace talvern::capi {
namespace {

// Upper-cased, with '\' for '/'.
CString Fold(const char* text) {
  CString folded = FromUtf8(text ? text : "");
  for (WCHAR& c : folded)
    if (c == u'/') c = u'\\';
  if (!folded.empty()) CharUpperW(folded.data());
  return folded;
}

// Matches a set at pattern[p] (just behind '['); the index behind ']', or
// npos when the set is not closed and '[' is an ordinary character.
std::size_t MatchSet(const CString& pattern, std::size_t p, WCHAR c, bool& matched) {
  const bool negate = p < pattern.size() && (pattern[p] == u'!' || pattern[p] == u'^');
  if (negate) ++p;
  bool hit = false;
  for (bool first = true; p < pattern.size() && (first || pattern[p] != u']'); first = false) {
    const WCHAR low = pattern[p];
    WCHAR high = low;
    if (p + 2 < pattern.size() && pattern[p + 1] == u'-' && pattern[p + 2] != u']') {
      high = pattern[p + 2];
      p += 3;
    } else {
      ++p;
    }
    if (c >= low && c <= high) hit = true;
  }
  if (p >= pattern.size()) return CString::npos;
  matched = hit != negate && c != u'\\';
  return p + 1;
}

bool Match(const CString& pattern, std::size_t p, const CString& text, std::size_t t) {
  while (p < pattern.size()) {
    if (pattern[p] == u'*') {
      const bool any = p + 1 < pattern.size() && pattern[p + 1] == u'*';
      const std::size_t next = p + (any ? 2 : 1);
      // "**/" also matches no folder at all.
      if (any && next < pattern.size() && pattern[next] == u'\\' &&
          Match(pattern, next + 1, text, t))
        return true;
      for (std::size_t k = t;; ++k) {
        if (Match(pattern, next, text, k)) return true;
        if (k >= text.size() || (!any && text[k] == u'\\')) return false;
      }
    }
    if (t >= text.size()) return false;
    if (pattern[p] == u'?') {
      if (text[t] == u'\\') return false;
      ++p;
    } else if (pattern[p] == u'[') {
      bool matched = false;
      const std::size_t after = MatchSet(pattern, p + 1, text[t], matched);
      if (after == CString::npos) {
        if (text[t] != u'[') return false;
        ++p;
      } else {
        if (!matched) return false;
        p = after;
      }
    } else {
      if (pattern[p] != text[t]) return false;
      ++p;
    }
    ++t;
  }
  return t == text.size();
}

} // namespace

Pattern::Pattern(const char* text) : pattern_(Fold(text)) {
  while (!pattern_.empty() && pattern_.back() == u'\\') pattern_.pop_back();
  wholePath_ = pattern_.find(u'\\') != CString::npos;
}

bool Pattern::Matches(const char* path, const char* name) const {
  return Match(pattern_, 0, Fold(wholePath_ ? path : name), 0);
}

} // namespace talvern::capi
