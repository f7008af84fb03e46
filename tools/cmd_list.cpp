// list and info: both walk the records of every volume; nothing is expanded.
#include "commands.h"
#include "format.h"

#include <cstdio>
#include <map>

namespace tool {
namespace {

std::string Hex8(DWORD value) {
  char text[16];
  std::snprintf(text, sizeof text, "%08X", static_cast<unsigned>(value));
  return text;
}

std::string JsonEntry(const CArchiveEntry& entry, DWORD volume) {
  const bool directory = IsDirectory(entry);
  const DWORD attributes = entry.FindData.dwFileAttributes;
  std::string text = "    {";
  text += "\"path\": " + JsonString(Utf8(EntryPathOf(entry.Path, entry.FindData.cFileName)));
  text += ", \"folder\": " + JsonString(Utf8(entry.Path));
  text += ", \"name\": " + JsonString(Utf8(entry.FindData.cFileName));
  text += std::string(", \"type\": ") + (directory ? "\"folder\"" : "\"file\"");
  text += ", \"size\": " + std::to_string(EntrySize(entry));
  text += ", \"packed\": " + std::to_string(entry.PackedSize.GetValue());
  text += ", \"method\": " +
          (directory ? std::string("null") : std::to_string(entry.CompressType & ~kContinued));
  text += ", \"method_name\": " + JsonString(directory ? "" : MethodName(entry.CompressType));
  text += ", \"crc\": " + JsonString(Hex8(entry.Crc));
  text += ", \"attributes\": " + std::to_string(attributes);
  text += ", \"attribute_letters\": " + JsonString(AttributeLetters(attributes));
  text += ", \"created\": " + JsonString(IsoTime(entry.FindData.ftCreationTime));
  text += ", \"modified\": " + JsonString(IsoTime(entry.FindData.ftLastWriteTime));
  text += ", \"accessed\": " + JsonString(IsoTime(entry.FindData.ftLastAccessTime));
  text += ", \"volume\": " + std::to_string(volume);
  text += std::string(", \"split\": ") + ((entry.CompressType & kContinued) ? "true" : "false");
  text += ", \"security_bytes\": " +
          std::to_string(entry.Security != nullptr ? entry.Security->Length : 0);
  return text + "}";
}

std::string TextEntry(const CArchiveEntry& entry, DWORD volume, bool verbose) {
  const bool directory = IsDirectory(entry);
  char line[256];
  std::snprintf(line, sizeof line, "%s %12llu %12llu  %-6s  %-8s  %-19s  ",
                AttributeLetters(entry.FindData.dwFileAttributes).c_str(),
                static_cast<unsigned long long>(EntrySize(entry)),
                static_cast<unsigned long long>(entry.PackedSize.GetValue()),
                directory ? "-" : MethodName(entry.CompressType).c_str(),
                directory ? "-" : Hex8(entry.Crc).c_str(),
                TimeText(entry.FindData.ftLastWriteTime).c_str());
  std::string text = line;
  if (verbose) {
    std::snprintf(line, sizeof line, "%-19s  %-19s  %3u  ",
                  TimeText(entry.FindData.ftCreationTime).c_str(),
                  TimeText(entry.FindData.ftLastAccessTime).c_str(), static_cast<unsigned>(volume));
    text += line;
  }
  text += EntryPath(entry);
  if (entry.CompressType & kContinued) text += "  (goes on in the next volume)";
  return text;
}

struct Summary {
  Totals totals;
  std::uint64_t split = 0;
  std::uint64_t withSecurity = 0;
  std::map<std::string, std::uint64_t> methods;

  void Add(const CArchiveEntry& entry) {
    if (entry.CompressType & kContinued) ++split;
    if (entry.Security != nullptr && entry.Security->Length != 0) ++withSecurity;
    totals.Add(entry);
    if (!IsDirectory(entry)) ++methods[MethodName(entry.CompressType)];
  }
};

// Walks the archive, handing each entry and its volume to the visitor.
// Returns 0, or the exit code of the failure (already printed unless the
// output is JSON, which carries it).
template <typename Visit>
int Walk(Session& session, Host& host, std::vector<VolumeInfo>& volumes, ItemFailure& failure,
         Visit visit) {
  ArchiveName name;
  if (const int code = session.OpenName(host, name)) return code;
  EntryWalker walker(host);
  int read = walker.Start() ? 1 : -1;
  CArchiveEntry entry;
  while (read == 1 && (read = walker.Next(entry)) == 1) visit(entry, host.GetDiskNo());
  volumes = walker.Volumes();
  if (read == 0) {
    if (host.IsOpen()) host.Close();
    return kExitOk;
  }
  failure = host.CurrentFailure();
  if (failure.activity == Activity::General || failure.activity == Activity::ExtractEntry)
    failure.activity = Activity::ReadArchive;
  if (host.IsOpen()) host.Close();
  const int code = ExitCodeFor(failure.code, failure.activity);
  if (!session.options.json) session.Fail(failure.code, failure.activity, failure.subject);
  return code;
}

// Packed size over original size for programs: "0.3825", or null.
std::string RatioNumber(std::uint64_t packed, std::uint64_t original) {
  if (original == 0) return "null";
  char text[32];
  std::snprintf(text, sizeof text, "%.4f",
                static_cast<double>(packed) / static_cast<double>(original));
  return text;
}

std::string JsonError(const ItemFailure& failure) {
  return "{\"code\": " + std::to_string(failure.code) +
         ", \"name\": " + JsonString(ErrorName(failure.code)) + ", \"message\": " +
         JsonString(ErrorMessage(failure.code, failure.activity, failure.subject)) + "}";
}

std::string JsonVolumes(const std::vector<VolumeInfo>& volumes) {
  std::string text = "[";
  for (std::size_t i = 0; i < volumes.size(); ++i) {
    if (i) text += ", ";
    text += "{\"path\": " + JsonString(volumes[i].hostPath) +
            ", \"size\": " + std::to_string(volumes[i].size) + "}";
  }
  return text + "]";
}

std::string JsonTotals(const Summary& summary) {
  return "{\"files\": " + std::to_string(summary.totals.files) +
         ", \"folders\": " + std::to_string(summary.totals.folders) +
         ", \"size\": " + std::to_string(summary.totals.bytes) +
         ", \"packed\": " + std::to_string(summary.totals.packed) + "}";
}

} // namespace

int RunList(Session& session) {
  const Options& o = session.options;
  if (!session.Prepare()) return kExitUsage;
  Host host(o, OverwritePolicy::Replace, session.progress, session.drives);
  host.SetMode(HostMode::Read);
  Summary summary;
  std::vector<VolumeInfo> volumes;
  ItemFailure failure;
  std::string entries;

  bool headed = o.json || o.quiet;
  const int code =
      Walk(session, host, volumes, failure, [&](const CArchiveEntry& entry, DWORD volume) {
        if (!headed) {
          std::printf("Attr          Size       Packed  Method  CRC       Modified             %s"
                      "Name\n",
                      o.verbose ? "Created              Accessed             Vol  " : "");
          headed = true;
        }
        summary.Add(entry);
        if (o.json) {
          if (!entries.empty()) entries += ",\n";
          entries += JsonEntry(entry, volume);
        } else {
          std::printf("%s\n", TextEntry(entry, volume, o.verbose).c_str());
        }
      });
  if (o.json) {
    if (code == kExitUsage && failure.code == ERROR_SUCCESS) return code;
    std::printf("{\n  \"archive\": %s,\n  \"entries\": [\n%s%s  ],\n  \"volumes\": %s,\n"
                "  \"totals\": %s%s\n}\n",
                JsonString(o.archive).c_str(), entries.c_str(), entries.empty() ? "" : "\n",
                JsonVolumes(volumes).c_str(), JsonTotals(summary).c_str(),
                failure.code != ERROR_SUCCESS ? (",\n  \"error\": " + JsonError(failure)).c_str()
                                              : "");
    if (failure.code != ERROR_SUCCESS)
      session.Error(ErrorMessage(failure.code, failure.activity, failure.subject));
    return code;
  }
  if (code == kExitOk && !o.quiet) {
    std::printf("%s, %s: %s, packed %s (%s)\n",
                Counted(summary.totals.files, "file", "files").c_str(),
                Counted(summary.totals.folders, "folder", "folders").c_str(),
                HumanSize(summary.totals.bytes).c_str(), HumanSize(summary.totals.packed).c_str(),
                Ratio(summary.totals.packed, summary.totals.bytes).c_str());
  }
  return code;
}

int RunInfo(Session& session) {
  const Options& o = session.options;
  if (!session.Prepare()) return kExitUsage;
  Host host(o, OverwritePolicy::Replace, session.progress, session.drives);
  host.SetMode(HostMode::Read);
  Summary summary;
  std::vector<VolumeInfo> volumes;
  ItemFailure failure;
  const int code = Walk(session, host, volumes, failure,
                        [&](const CArchiveEntry& entry, DWORD) { summary.Add(entry); });
  if (code != kExitOk && failure.code == ERROR_SUCCESS) return code;
  const Totals& t = summary.totals;

  if (o.json) {
    std::string methods = "{";
    for (const auto& [method, count] : summary.methods) {
      if (methods.size() > 1) methods += ", ";
      methods += JsonString(method) + ": " + std::to_string(count);
    }
    methods += "}";
    std::printf("{\n  \"archive\": %s,\n  \"volumes\": %s,\n  \"entries\": %llu,\n"
                "  \"totals\": %s,\n  \"ratio\": %s,\n  \"methods\": %s,\n"
                "  \"split_entries\": %llu,\n  \"entries_with_security\": %llu%s\n}\n",
                JsonString(o.archive).c_str(), JsonVolumes(volumes).c_str(),
                static_cast<unsigned long long>(t.files + t.folders), JsonTotals(summary).c_str(),
                RatioNumber(t.packed, t.bytes).c_str(), methods.c_str(),
                static_cast<unsigned long long>(summary.split),
                static_cast<unsigned long long>(summary.withSecurity),
                failure.code != ERROR_SUCCESS ? (",\n  \"error\": " + JsonError(failure)).c_str()
                                              : "");
    if (failure.code != ERROR_SUCCESS)
      session.Error(ErrorMessage(failure.code, failure.activity, failure.subject));
    return code;
  }

  if (code != kExitOk) return code;
  std::printf("archive   %s\n", o.archive.c_str());
  std::printf("volumes   %zu\n", volumes.size());
  if (volumes.size() > 1 || o.verbose)
    for (const VolumeInfo& v : volumes)
      std::printf("          %s  %s\n", v.hostPath.c_str(), HumanSize(v.size).c_str());
  std::printf("entries   %llu (%s, %s)\n", static_cast<unsigned long long>(t.files + t.folders),
              Counted(t.files, "file", "files").c_str(),
              Counted(t.folders, "folder", "folders").c_str());
  std::printf("size      %s (%s bytes)\n", HumanSize(t.bytes).c_str(),
              GroupedNumber(t.bytes).c_str());
  std::printf("packed    %s (%s bytes)\n", HumanSize(t.packed).c_str(),
              GroupedNumber(t.packed).c_str());
  std::printf("ratio     %s of the original size\n", Ratio(t.packed, t.bytes).c_str());
  std::string methods;
  for (const auto& [method, count] : summary.methods)
    methods += (methods.empty() ? "" : ", ") + method + " " + std::to_string(count);
  std::printf("methods   %s\n", methods.empty() ? "-" : methods.c_str());
  if (summary.split)
    std::printf("split     %llu entries go on in a further volume\n",
                static_cast<unsigned long long>(summary.split));
  if (summary.withSecurity)
    std::printf("security  %llu entries carry a security descriptor\n",
                static_cast<unsigned long long>(summary.withSecurity));
  return code;
}

} // namespace tool
