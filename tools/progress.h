// The one-line progress bar on a terminal, and the messages printed around
// it. Without a terminal (or with --quiet) the bar is never drawn; messages
// and results are printed all the same.
#pragma once

#include <chrono>
#include <cstdint>
#include <cstdio>
#include <string>

namespace tool {

class Progress {
public:
  // bar: draw the bar (standard error is a terminal and not --quiet).
  explicit Progress(bool bar);
  Progress(const Progress&) = delete;
  Progress& operator=(const Progress&) = delete;
  ~Progress();

  // One operation; totals of 0 mean unknown (no percentage or time left).
  void Begin(const std::string& operation, std::uint64_t totalFiles, std::uint64_t totalBytes);
  // An item starts; files count towards the files done when they finish.
  void StartItem(const std::string& name, std::uint64_t size, bool isFile);
  // Bytes of the current item done so far (never goes back).
  void ItemBytes(std::uint64_t done);
  // The current item is finished (all its bytes count).
  void FinishItem();
  // Ends the operation and clears the bar.
  void End();

  // Clears the bar so that a line can be printed; the bar comes back at the
  // next update.
  void Clear();
  // Prints a line to the stream, keeping the bar intact.
  void Print(std::FILE* stream, const std::string& line);

  // Whether the bar is drawn (and so wants the totals).
  bool Shows() const { return bar_; }
  std::uint64_t FilesDone() const { return filesDone_; }
  std::uint64_t BytesDone() const { return bytesDone_ + itemDone_; }
  double Seconds() const;

  // The bar line for a state, cut to width columns (used by Draw; public for
  // the tests).
  static std::string BarLine(const std::string& operation, std::uint64_t filesDone,
                             std::uint64_t totalFiles, std::uint64_t bytesDone,
                             std::uint64_t totalBytes, double seconds, const std::string& item,
                             int width);

private:
  void Draw(bool force);

  bool bar_;
  bool active_ = false;
  bool shown_ = false;
  std::string operation_;
  std::uint64_t totalFiles_ = 0;
  std::uint64_t totalBytes_ = 0;
  std::uint64_t filesDone_ = 0;
  std::uint64_t bytesDone_ = 0; // of finished items
  std::string item_;
  std::uint64_t itemSize_ = 0;
  std::uint64_t itemDone_ = 0;
  bool itemIsFile_ = false;
  bool inItem_ = false;
  std::chrono::steady_clock::time_point start_;
  std::chrono::steady_clock::time_point lastDraw_;
};

} // namespace tool
