// Compression ahead of an adding walk, on worker threads.
//
// While the walk stores one entry after the other on the host's thread, a
// walker thread lists the same tree in the same order (folders first, each
// followed by its subtree, then files) and worker threads compress the
// files it finds into memory. When the walk reaches a file, it takes the
// ready data instead of compressing the file itself, and tells the host of
// the progress the compression made, call for call. What is written and
// what the host hears are those of a walk without workers: the engine's
// output does not depend on the thread it runs on.
//
// Nothing here calls the host: the walker and the workers use only the
// file system. Files the walk never asks for (left out by the host's
// selection) are dropped when the walk passes them. Small files are
// compressed into memory, larger ones into temporary files of their own
// (deleted with the data); a file the walk reaches before any worker
// started on it is left to the walk.
#pragma once

#include "engine/entry_data.h"
#include "foundation/handles.h"

#include <talvern/archive.h>

#include <condition_variable>
#include <cstdint>
#include <deque>
#include <memory>
#include <mutex>
#include <thread>
#include <vector>

namespace talvern::engine {

// One file compressed ahead, with what the file looked like when it was
// read, so that the walk can tell whether it changed since.
struct PreparedFile {
  CString name;
  std::uint64_t size = 0;
  FILETIME lastWrite{};
  bool ok = false; // the compression succeeded (otherwise the walk does it again)
  CompressedData data;
  ScopedTempFile spill; // holds the data of a large file, read from its start
};

class CompressAhead {
public:
  // Settings of the library's own use.
  // Memory held for compressed data ahead of the walk, counted as the most
  // each file's data can take, and the largest file held in memory; larger
  // files are compressed into temporary files, with as much again held
  // there as the spill budget allows (at least one file); more workers than
  // the most are not started.
  static constexpr std::uint64_t DefaultBudget = 16u << 20;
  static constexpr std::uint64_t DefaultLargest = 2u << 20;
  static constexpr std::uint64_t SpillBudget = 1u << 30;
  static constexpr unsigned MostWorkers = 8;
  // Files larger than this are left to the walk, whose driver compresses a
  // large file on all the threads at once.
  static constexpr std::uint64_t LeftToWalk = DirectTransferLimit;
  // Files smaller than this (empty ones too) are left to the walk:
  // handing one over to a worker and checking it when it comes back costs
  // more than compressing it.
  static constexpr std::uint64_t WorthHandingOver = 1024;
  // Whether a file of this size is compressed ahead: the walk asks for
  // such files only (Take), and compresses the others itself.
  static bool HandsOver(std::uint64_t size) {
    return size >= WorthHandingOver && size <= LeftToWalk;
  }
  // Files the walker may list while the walk waits for one it has not
  // listed yet, before the walk compresses that file itself.
  static constexpr std::uint64_t Patience = 256;

  // Starts `workers` compressing threads and a walker over the tree below
  // baseDir\folder that adding with these search flags would walk,
  // entering linked folders as adding does when followLinks is set.
  // Files with the bytes of one in `seen` (may be null) take its data; the
  // others compressed into memory are kept there. With keepOriginal, a
  // file that does not compress keeps its own bytes instead (see
  // CompressSeen), for a walk that stores such files from memory.
  CompressAhead(unsigned workers, const CString& baseDir, const CString& folder, DWORD srch,
                bool followLinks = false, SeenData* seen = nullptr, bool keepOriginal = false,
                std::uint64_t budget = DefaultBudget, std::uint64_t largest = DefaultLargest);
  ~CompressAhead();
  CompressAhead(const CompressAhead&) = delete;
  CompressAhead& operator=(const CompressAhead&) = delete;

  // The compressed data of the file `name` (a full name as the walk builds
  // it), waiting for the walker to list it and for a worker to compress
  // it; null when the walker does not list it or no worker has started on
  // it yet (the walk then compresses it itself). Files found before it are
  // dropped.
  std::unique_ptr<PreparedFile> Take(const CString& name);
  // As Take, but only data that was compressed without a failure from a
  // file that still has the size and last-write time it had when read.
  std::unique_ptr<PreparedFile> TakeUnchanged(const CString& name);

  // Number of workers for a request: 0 means one per processor; never more
  // than MostWorkers.
  static unsigned WorkersFor(DWORD requested);

private:
  struct Job {
    std::unique_ptr<PreparedFile> file;
    std::uint64_t charge = 0; // counted against the memory or the spill budget
    bool spills = false;      // compressed into a temporary file
    bool started = false;
    bool done = false;
    bool dropped = false; // passed by the walk while being compressed
  };

  void Walk(const CString& baseDir, const CString& folder, DWORD srch);
  bool Submit(const CString& name, std::uint64_t size);
  void Work();
  void Drop(Job& job);
  void Release(const Job& job);

  std::mutex mutex_;
  // Each kind of thread waits on its own: workers for a file to start on,
  // the walker for room, the walk for a file to be listed or finished.
  std::condition_variable work_;
  std::condition_variable room_;
  std::condition_variable ready_;
  std::deque<std::shared_ptr<Job>> jobs_; // in walk order
  // Workers start the jobs in walk order, so the started ones are the
  // first `started_` of jobs_.
  std::size_t started_ = 0;
  // Charges of queued jobs and of dropped ones still running, in memory and
  // in temporary files.
  std::uint64_t held_ = 0;
  std::uint64_t spilled_ = 0;
  std::uint64_t budget_;
  std::uint64_t largest_;
  bool followLinks_;
  SeenData* seen_;
  bool keepOriginal_;
  bool stop_ = false;
  bool walkerDone_ = false;     // the walker listed the whole tree, or gave up
  std::uint64_t submitted_ = 0; // files queued so far
  bool walkerWaits_ = false;    // the walker waits for room
  std::vector<std::thread> threads_;
};

} // namespace talvern::engine
