// Hostile archives, one table: archives written record by record whose
// names, sizes or volumes an attacker chose. For each, `talvern extract`
// must fail with the error the library latched, create nothing outside its
// target folder, and leave no partial file and no temporary file behind.
#include "support/archive_support.h"
#include "tool_runner.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <functional>

namespace fs = std::filesystem;
using test::Item;
using Volumes = std::vector<std::vector<std::uint8_t>>;

namespace {

constexpr std::uint64_t kLimit = 1000; // volume size of the numbered sets

// 2000 bytes split over three volumes of a numbered set, then a small file.
Volumes SplitSet(unsigned seed = 11) {
  return test::BuildVolumes(
      {test::File("", "big", test::RandomBytes(2000, seed)), test::File("", "after", "after")},
      kLimit);
}

// A one-volume archive holding one hostile entry, then a harmless one.
Volumes Named(const std::string& folder, const std::string& name) {
  return test::BuildVolumes({test::File(folder, name, "bad"), test::File("", "good.txt", "ok")});
}

// Sets the 32-bit (or 64-bit) little-endian field at offset of the
// first record of volume v.
void Set32(Volumes& set, size_t v, size_t offset, std::uint32_t value) {
  for (int i = 0; i < 4; ++i) set[v][20 + offset + i] = static_cast<std::uint8_t>(value >> 8 * i);
}
void Set64(Volumes& set, size_t v, size_t offset, std::uint64_t value) {
  Set32(set, v, offset, static_cast<std::uint32_t>(value));
  Set32(set, v, offset + 4, static_cast<std::uint32_t>(value >> 32));
}

// A one-volume archive of a hostile entry x, then a harmless one.
Volumes Plain() { return Named("", "x"); }
// The same with x compressed, 5000 bytes of it.
Volumes Compressed() {
  return test::BuildVolumes(
      {test::File("", "x", std::string(5000, 'z'), 1), test::File("", "good.txt", "ok")});
}
Volumes Split() { return SplitSet(); }

// Folders nested until the path is longer than any system takes, each
// record written after its parent's, then a file in the deepest one: the
// folders made for it are removed again when the deepest fails.
Volumes Deep() {
  std::vector<Item> items;
  std::string folder;
  for (int depth = 0; depth < 17; ++depth) {
    items.push_back(test::Dir(folder, std::string(250, 'a' + depth)));
    folder += (folder.empty() ? "" : "\\") + std::string(250, 'a' + depth);
  }
  items.push_back(test::File(folder, "x", "x"));
  return test::BuildVolumes(items);
}

using Change = void (*)(Volumes&);
const std::vector<std::string> kGood = {"good.txt"};

struct Row {
  const char* what;
  std::function<Volumes()> make;
  Change change;                      // applied to what make built, when set
  const char* message;                // part of what the tool says on standard error
  int exit;                           // the tool's exit code
  std::vector<std::string> extracted; // what the target folder holds afterwards
  const char* pattern = nullptr;      // extract only what matches, else everything
};

auto N(const char* folder, const char* name) {
  return [=] { return Named(folder, name); };
}

// clang-format off
const std::vector<Row> kRows = {
    // Names that would leave the target or are not names: refused, and the
    // walk goes on with the next entry.
    {"name ..", N("", ".."), nullptr, "error 161 ERROR_BAD_PATHNAME", 3, kGood},
    {"drive-relative name", N("", "c:x"), nullptr, "c:x: the path is not valid", 3, kGood},
    {"device CON", N("", "CON"), nullptr, "error 161", 3, kGood},
    {"device nul.txt", N("", "nul.txt"), nullptr, "error 161", 3, kGood},
    {"device COM1", N("", "COM1"), nullptr, "error 161", 3, kGood},
    {"stream", N("", "a:stream"), nullptr, "error 161", 3, kGood},
    {"trailing dot", N("", "x."), nullptr, "error 161", 3, kGood},
    {"empty name", N("", ""), nullptr, "(an entry without a name)", 3, kGood},
    {"control characters", N("", "a\x1b[2J"), nullptr, "a?[2J: the path is not valid", 3, kGood},
    {"very long name", [] { return Named("", std::string(300, 'n')); }, nullptr, "error 206", 1,
     kGood},
    {"too deep", Deep, nullptr, "error 206", 1, {}},
    // Folders that no folder record opens end the walk of the whole archive,
    // which says so; extracted by pattern, they are refused.
    {"climbing folder", N("a\\..\\..", "x"), nullptr, "2 of 2 entries were not reached", 3, {}},
    {"climbing folder, by pattern", N("a\\..\\..", "x"), nullptr, "error 161", 3, kGood, "*"},
    {"drive path", N("C:\\Windows", "x"), nullptr, "error 161", 3, kGood, "*"},
    {"share", N("\\\\server\\share", "x"), nullptr, "error 161", 3, kGood, "*"},
    {"rooted folder", N("\\etc", "passwd"), nullptr, "error 161", 3, kGood, "*"},
    {"device folder", N("lpt1.dat", "x"), nullptr, "error 161", 3, kGood, "*"},
    {"folder with a trailing space", N("dir ", "x"), nullptr, "error 161", 3, kGood, "*"},
    // Sizes that claim more than the volume holds (offsets in the record).
    {"data beyond the volume", Plain, [](Volumes& v) { Set64(v, 0, 56, 1u << 30); },
     "error 132 ERROR_SEEK_ON_DEVICE", 3, {}},
    {"archive size beyond the file", Plain, [](Volumes& v) { v[0][12] = 0xFF; },
     "error 1804 ERROR_INVALID_DATATYPE", 3, {}},
    {"packed size beyond its data", Plain, [](Volumes& v) { Set64(v, 0, 48, 1ull << 40); },
     "error 38 ERROR_HANDLE_EOF", 3, {}},
    // Small entries that claim gigabytes: stored, and compressed.
    {"stored entry claims 4 GiB", Plain, [](Volumes& v) { Set32(v, 0, 44, 1); }, "error 29", 3,
     kGood},
    {"compressed entry claims 4 GiB", Compressed, [](Volumes& v) { Set32(v, 0, 44, 1); },
     "error 29", 3, kGood},
    // Volumes of a numbered set out of place.
    {"volume numbers out of order", Split, [](Volumes& v) { std::swap(v[1], v[2]); },
     "error 34 ERROR_WRONG_DISK", 3, {}},
    {"first volume again in the middle", Split, [](Volumes& v) { v[1] = v[0]; }, "error 34", 3, {}},
    {"continuation record of another entry", Split, [](Volumes& v) { v[1] = SplitSet(12)[1]; },
     "error 34", 3, {}},
    {"split entry without its continue bit", Split, [](Volumes& v) { v[0][24 + 3] &= 0x7F; },
     "error 38", 3, {}},
    {"missing volume in the middle", Split, [](Volumes& v) { v[1].clear(); }, "h.001", 3, {}},
};
// clang-format on

TEST(HostileArchiveTest, ExtractFailsCleanlyInsideItsTarget) {
  test::TempDir dir;
  int index = 0;
  for (const Row& row : kRows) {
    SCOPED_TRACE(row.what);
    const std::string folder = dir.Host("row" + std::to_string(index++));
    fs::create_directories(folder + "/tmp");
    Volumes volumes = row.make();
    if (row.change) row.change(volumes);
    std::string archive = "h.arc";
    if (volumes.size() == 1) {
      test::WriteFile(folder + "/h.arc", volumes[0]);
    } else {
      archive = "h.000";
      test::WriteNumberedVolumes(folder + "/h", volumes);
      for (size_t v = 0; v < volumes.size(); ++v)
        if (volumes[v].empty()) fs::remove(test::NumberedName(folder + "/h", v));
    }

    std::vector<std::string> args = {"extract", archive, "out"};
    if (row.pattern) args.push_back(row.pattern);
    const tooltest::RunResult r = tooltest::Run(args, folder, {"TMPDIR=" + folder + "/tmp"});
    EXPECT_EQ(row.exit, r.exitCode) << r.err;
    EXPECT_NE(std::string::npos, r.err.find(row.message)) << r.err;
    // Only the target holds anything new, only what the row names, and the
    // temporary folder is empty again.
    std::vector<std::string> around;
    for (const auto& e : fs::directory_iterator(folder)) {
      const std::string name = e.path().filename().string();
      if (name != "out" && name != "tmp" && name.rfind("h.", 0) != 0) around.push_back(name);
    }
    EXPECT_TRUE(around.empty()) << around.front();
    EXPECT_TRUE(test::ListTree(folder + "/tmp").empty());
    EXPECT_EQ(row.extracted, fs::exists(folder + "/out") ? test::ListTree(folder + "/out")
                                                         : std::vector<std::string>{});
  }
}

} // namespace
