#include "progress.h"

#include "format.h"
#include "terminal.h"

#include <algorithm>

namespace tool {
namespace {

constexpr auto kRedrawInterval = std::chrono::milliseconds(100);
constexpr int kBarCells = 24;

// Cuts text to at most width characters (counting UTF-8 sequences as one),
// keeping the end of long names, which is the informative part.
std::string FitEnd(const std::string& text, int width) {
  if (width <= 0) return "";
  std::size_t chars = 0;
  for (unsigned char c : text)
    if ((c & 0xC0) != 0x80) ++chars;
  if (chars <= static_cast<std::size_t>(width)) return text;
  std::size_t drop = chars - static_cast<std::size_t>(width) + 3;
  std::size_t i = 0;
  while (i < text.size() && drop > 0) {
    ++i;
    while (i < text.size() && (static_cast<unsigned char>(text[i]) & 0xC0) == 0x80) ++i;
    --drop;
  }
  return width >= 3 ? "..." + text.substr(i) : text.substr(i);
}

} // namespace

Progress::Progress(bool bar) : bar_(bar) {}

Progress::~Progress() { Clear(); }

double Progress::Seconds() const {
  if (start_ == std::chrono::steady_clock::time_point()) return 0;
  return std::chrono::duration<double>(std::chrono::steady_clock::now() - start_).count();
}

void Progress::Begin(const std::string& operation, std::uint64_t totalFiles,
                     std::uint64_t totalBytes) {
  operation_ = operation;
  totalFiles_ = totalFiles;
  totalBytes_ = totalBytes;
  filesDone_ = bytesDone_ = itemDone_ = itemSize_ = 0;
  inItem_ = false;
  item_.clear();
  active_ = true;
  start_ = std::chrono::steady_clock::now();
  Draw(true);
}

void Progress::StartItem(const std::string& name, std::uint64_t size, bool isFile) {
  if (inItem_) FinishItem();
  item_ = name;
  itemSize_ = size;
  itemDone_ = 0;
  itemIsFile_ = isFile;
  inItem_ = true;
  Draw(false);
}

void Progress::ItemBytes(std::uint64_t done) {
  if (!inItem_) return;
  done = std::min(done, itemSize_);
  if (done > itemDone_) itemDone_ = done;
  Draw(false);
}

void Progress::FinishItem() {
  if (!inItem_) return;
  bytesDone_ += itemSize_;
  itemDone_ = 0;
  if (itemIsFile_) ++filesDone_;
  inItem_ = false;
  Draw(false);
}

void Progress::End() {
  if (inItem_) FinishItem();
  Clear();
  active_ = false;
}

void Progress::Clear() {
  if (!shown_) return;
  std::fputs("\r\033[K", stderr);
  std::fflush(stderr);
  shown_ = false;
}

void Progress::Print(std::FILE* stream, const std::string& line) {
  Clear();
  std::fputs(line.c_str(), stream);
  std::fputc('\n', stream);
  std::fflush(stream);
  if (active_) Draw(true);
}

std::string Progress::BarLine(const std::string& operation, std::uint64_t filesDone,
                              std::uint64_t totalFiles, std::uint64_t bytesDone,
                              std::uint64_t totalBytes, double seconds, const std::string& item,
                              int width) {
  // Pieces are appended one by one instead of joined with `"literal" + string`:
  // GCC 12 at -O3 reports a false -Wrestrict overlap for those joins here.
  std::string line;
  const auto add = [&line](const auto&... pieces) { ((line += pieces), ...); };
  add(operation, " ");
  if (totalBytes > 0 || totalFiles > 0) {
    double fraction = 0;
    if (totalBytes > 0)
      fraction =
          static_cast<double>(std::min(bytesDone, totalBytes)) / static_cast<double>(totalBytes);
    else
      fraction =
          static_cast<double>(std::min(filesDone, totalFiles)) / static_cast<double>(totalFiles);
    const int filled = static_cast<int>(fraction * kBarCells);
    line += '[';
    line.append(static_cast<std::size_t>(filled), '#');
    line.append(static_cast<std::size_t>(kBarCells - filled), '.');
    line += "] ";
    char percent[16];
    std::snprintf(percent, sizeof percent, "%3d%%", static_cast<int>(fraction * 100));
    line += percent;
  }
  add("  ", std::to_string(filesDone));
  if (totalFiles > 0) add("/", std::to_string(totalFiles));
  add(" files  ", HumanSize(bytesDone));
  if (totalBytes > 0) add("/", HumanSize(totalBytes));
  if (seconds >= 0.5) {
    const double rate = static_cast<double>(bytesDone) / seconds;
    add("  ", HumanSize(static_cast<std::uint64_t>(rate)), "/s");
    if (totalBytes > bytesDone && rate > 0)
      add("  ", Duration(static_cast<double>(totalBytes - bytesDone) / rate), " left");
  }
  if (!item.empty()) line += "  ";
  const int room = width - 1 - static_cast<int>(line.size());
  if (room < 0) return FitEnd(line, width - 1);
  return line + FitEnd(item, room);
}

void Progress::Draw(bool force) {
  if (!bar_ || !active_) return;
  const auto now = std::chrono::steady_clock::now();
  if (!force && shown_ && now - lastDraw_ < kRedrawInterval) return;
  lastDraw_ = now;
  const std::string line = BarLine(operation_, filesDone_, totalFiles_, bytesDone_ + itemDone_,
                                   totalBytes_, Seconds(), item_, TerminalColumns());
  std::fputs(("\r" + line + "\033[K").c_str(), stderr);
  std::fflush(stderr);
  shown_ = true;
}

} // namespace tool
