// Compression ahead of an adding walk, on worker threads.
#include "engine/compress_ahead.h"

#include "engine/lz_engine.h"
#include "foundation/handles.h"
#include "operations/item_rules.h"

#include <algorithm>

namespace talvern::engine {
namespace {

constexpr DWORD kNoFiles = 0x00000010;   // only folders are walked
constexpr DWORD kNoRecurse = 0x00008000; // folders are stored, not entered
constexpr DWORD kNoFolders = 0x00100000; // no folder pass at all

bool IsDotName(const WCHAR* name) {
  return name[0] == u'.' && (name[1] == 0 || (name[1] == u'.' && name[2] == 0));
}

std::uint64_t SizeOf(const WIN32_FIND_DATAW& data) {
  return static_cast<std::uint64_t>(data.nFileSizeHigh) << 32 | data.nFileSizeLow;
}

} // namespace

unsigned CompressAhead::WorkersFor(DWORD requested) {
  const unsigned cores = std::thread::hardware_concurrency();
  const unsigned wanted = requested != 0 ? requested : cores != 0 ? cores : 1;
  return std::min(wanted, MostWorkers);
}

namespace {

// The most memory the compressed data of a file of `size` bytes can take
// while it is being written (nine bits a byte, and slack).
std::uint64_t Charge(std::uint64_t size) { return size + size / 8 + 64; }

// What a queued file costs besides its data: its records and its name, with
// the allocator's slack. Counted too, so that a tree of millions of empty
// files queues no more bookkeeping than the budget.
std::uint64_t Bookkeeping(const CString& name) { return 256 + 2 * name.size(); }

// A new temporary file in the system's temporary folder, open for writing
// and reading back, as the adding walk's own temporary files are named.
bool OpenSpill(ScopedTempFile& spill) {
  WCHAR dir[MAX_PATH] = {};
  const DWORD length = GetTempPathW(MAX_PATH, dir);
  WCHAR name[MAX_PATH] = {};
  static const WCHAR kPrefix[] = {u'A', u'R', u'C', 0};
  if (length == 0 || length >= MAX_PATH || GetTempFileNameW(dir, kPrefix, 0, name) == 0)
    return false;
  spill.Name() = name;
  spill.File().Reset(CreateFileW(name, GENERIC_READ | GENERIC_WRITE, 0, nullptr, CREATE_ALWAYS,
                                 FILE_ATTRIBUTE_TEMPORARY | FILE_FLAG_SEQUENTIAL_SCAN, nullptr));
  return spill.File().IsValid();
}

} // namespace

CompressAhead::CompressAhead(unsigned workers, const CString& baseDir, const CString& folder,
                             DWORD srch, bool followLinks, SeenData* seen, bool keepOriginal,
                             std::uint64_t budget, std::uint64_t largest)
    : budget_(budget), largest_(largest), followLinks_(followLinks), seen_(seen),
      keepOriginal_(keepOriginal) {
  threads_.emplace_back([this, baseDir, folder, srch] {
    Walk(baseDir, folder, srch);
    std::lock_guard<std::mutex> lock(mutex_);
    walkerDone_ = true;
    ready_.notify_one();
  });
  for (unsigned i = 0; i < std::max(workers, 1u); ++i) threads_.emplace_back([this] { Work(); });
}

CompressAhead::~CompressAhead() {
  {
    std::lock_guard<std::mutex> lock(mutex_);
    stop_ = true;
  }
  work_.notify_all();
  room_.notify_all();
  ready_.notify_all();
  for (std::thread& thread : threads_) thread.join();
}

// The walk of the adding operation: one pass over a folder's folders, each
// entered at once, then one over its files.
void CompressAhead::Walk(const CString& baseDir, const CString& folder, DWORD srch) {
  static const WCHAR kEverything[] = {u'*', u'.', u'*', 0};
  const CString pattern = JoinItemPath(baseDir.c_str(), folder, kEverything);
  for (const bool folders : {true, false}) {
    if (folders && (srch & kNoFolders)) continue;
    if (!folders && (srch & kNoFiles)) continue;
    WIN32_FIND_DATAW data{};
    ScopedFind find(pattern.c_str(), data, folders);
    if (!find.IsValid()) return;
    do {
      {
        std::lock_guard<std::mutex> lock(mutex_);
        if (stop_) return;
      }
      const bool isFolder = (data.dwFileAttributes & FILE_ATTRIBUTE_DIRECTORY) != 0;
      if (isFolder != folders) continue;
      if (isFolder) {
        if (IsDotName(data.cFileName) || (srch & kNoRecurse)) continue;
        // Folders reached through links are entered only as the walk
        // enters them: when links are followed and lead out of the folders
        // above.
        if ((data.dwFileAttributes & FILE_ATTRIBUTE_REPARSE_POINT) &&
            !(followLinks_ &&
              !CArchiveFile::IsLinkToAncestor(
                  baseDir.c_str(), folder, JoinItemPath(baseDir.c_str(), folder, data.cFileName))))
          continue;
        CString inner = folder;
        if (!inner.empty()) inner += u'\\';
        inner += data.cFileName;
        Walk(baseDir, inner, srch);
      } else if (HandsOver(SizeOf(data))) {
        if (!Submit(JoinItemPath(baseDir.c_str(), folder, data.cFileName), SizeOf(data))) return;
      }
    } while (find.Next(data));
  }
}

// Queues a file once the bytes held ahead leave room for it; false when
// the work is being stopped.
bool CompressAhead::Submit(const CString& name, std::uint64_t size) {
  auto job = std::make_shared<Job>();
  job->file = std::make_unique<PreparedFile>();
  job->file->name = name;
  job->file->size = size;
  job->charge = Charge(size) + Bookkeeping(name);
  job->spills = size > largest_;
  std::unique_lock<std::mutex> lock(mutex_);
  std::uint64_t& held = job->spills ? spilled_ : held_;
  const std::uint64_t budget = job->spills ? SpillBudget : budget_;
  if (!(held == 0 || held + job->charge <= budget)) {
    walkerWaits_ = true;
    ready_.notify_one(); // the walk may be waiting for a file that can only come now
    room_.wait(lock, [&] { return stop_ || held == 0 || held + job->charge <= budget; });
    walkerWaits_ = false;
  }
  if (stop_) return false;
  held += job->charge;
  jobs_.push_back(std::move(job));
  ++submitted_;
  work_.notify_one();
  ready_.notify_one();
  return true;
}

// Takes a job out of the walk's way: its memory is given back now, or by
// its worker when it is still being compressed.
void CompressAhead::Drop(Job& job) {
  if (job.started && !job.done)
    job.dropped = true;
  else
    Release(job);
}

void CompressAhead::Release(const Job& job) {
  (job.spills ? spilled_ : held_) -= job.charge;
  room_.notify_one();
}

void CompressAhead::Work() {
  EngineArrays arrays; // this worker's engine arrays, from file to file
  for (;;) {
    std::shared_ptr<Job> job;
    {
      std::unique_lock<std::mutex> lock(mutex_);
      work_.wait(lock, [&] { return stop_ || started_ < jobs_.size(); });
      if (stop_) return;
      job = jobs_[started_++];
      job->started = true;
    }

    PreparedFile& file = *job->file;
    const ScopedHandle source(
        CreateFileW(file.name.c_str(), GENERIC_READ, FILE_SHARE_READ, nullptr, OPEN_EXISTING,
                    FILE_ATTRIBUTE_NORMAL | FILE_FLAG_SEQUENTIAL_SCAN, nullptr));
    if (source.IsValid()) {
      DWORD high = 0;
      SetLastError(NO_ERROR);
      const DWORD low = GetFileSize(source.Get(), &high);
      const bool sized = !(low == INVALID_FILE_SIZE && GetLastError() != NO_ERROR);
      DWORD error = ERROR_SUCCESS;
      if (sized && GetFileTime(source.Get(), nullptr, nullptr, &file.lastWrite)) {
        file.size = static_cast<std::uint64_t>(high) << 32 | low;
        if (!job->spills)
          file.ok = CompressSeen(error, source.Get(), file.size, file.data, seen_, nullptr, &arrays,
                                 keepOriginal_);
        else if (OpenSpill(file.spill))
          file.ok = CompressToFile(error, source.Get(), file.size, file.spill.File().Get(),
                                   file.data, &arrays) &&
                    SetFilePointer(file.spill.File().Get(), 0, nullptr, FILE_BEGIN) == 0;
      }
    }

    std::lock_guard<std::mutex> lock(mutex_);
    job->done = true;
    if (job->dropped) {
      Release(*job);
      job->file.reset();
    }
    ready_.notify_one();
  }
}

std::unique_ptr<PreparedFile> CompressAhead::Take(const CString& name) {
  std::unique_lock<std::mutex> lock(mutex_);
  // The walker lists the same folders in the same order, and usually ahead
  // of the walk, which waits for it when it is not. A file the walker never
  // lists (one made after it passed, or in a folder it does not enter) is
  // given up once the walker is done or has listed Patience more files.
  const std::uint64_t since = submitted_;
  auto found = jobs_.end();
  for (;;) {
    found = std::find_if(jobs_.begin(), jobs_.end(),
                         [&](const auto& j) { return j->file->name == name; });
    if (found != jobs_.end()) break;
    if (stop_ || walkerDone_ || submitted_ - since >= Patience) return nullptr;
    // Everything held is behind the walk, or passed by it, when the walker
    // waits for room: make room, so that it goes on.
    if (walkerWaits_) {
      for (const auto& job : jobs_) Drop(*job);
      jobs_.clear();
      started_ = 0;
    }
    ready_.wait(lock);
  }
  // Files before it were left out by the walk: drop them. When no worker
  // has started on it, the walk compresses it sooner than waiting would.
  std::shared_ptr<Job> job = *found;
  const auto passed = static_cast<std::size_t>(found - jobs_.begin());
  for (auto it = jobs_.begin(); it != found; ++it) Drop(**it);
  jobs_.erase(jobs_.begin(), found);
  started_ -= std::min(started_, passed);
  if (!job->started) {
    Release(*job);
    jobs_.pop_front();
    return nullptr;
  }
  ready_.wait(lock, [&] { return job->done || stop_; });
  if (!job->done) return nullptr;
  Release(*job);
  jobs_.pop_front();
  --started_;
  return std::move(job->file);
}

std::unique_ptr<PreparedFile> CompressAhead::TakeUnchanged(const CString& name) {
  std::unique_ptr<PreparedFile> prepared = Take(name);
  if (!prepared || !prepared->ok) return nullptr;
  WIN32_FIND_DATAW now{};
  const ScopedFind find(name.c_str(), now);
  if (!find.IsValid() || SizeOf(now) != prepared->size ||
      CompareFileTime(&now.ftLastWriteTime, &prepared->lastWrite) != 0)
    return nullptr;
  return prepared;
}

} // namespace talvern::engine
