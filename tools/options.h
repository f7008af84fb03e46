// The command line: commands, options and their mapping onto the library's
// selection and attribute flags.
#pragma once

#include <talvern/archive.h>

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace tool {

enum class Command { None, Create, Add, Extract, List, Test, Info };

enum class OverwritePolicy { Default, Replace, Skip, Backup, Rename, Ask };

// --drive A:=DIR[,removable|cdrom|fixed][,size=SIZE][,cluster=N]
struct DriveOption {
  char Letter = 0; // upper case
  std::string HostDir;
  UINT Type = DRIVE_FIXED;
  DWORD ClusterSize = 0; // 0: the default of the type
  std::uint64_t Capacity = 0;
};

struct Options {
  Command command = Command::None;
  bool help = false;    // --help (for the command, when one is given)
  bool version = false; // --version

  std::string archive;               // ARCHIVE as given
  std::vector<std::string> sources;  // create: PATH; add: PATH...
  std::string targetDir;             // extract: DIR (empty: the current folder)
  std::vector<std::string> patterns; // extract: PATTERN...

  std::uint64_t volumeSize = 0;      // 0: none
  std::uint64_t firstVolumeSize = 0; // 0: as volumeSize
  bool store = false;
  bool followLinks = false; // --follow-links: pack what linked folders hold
  bool force = false;
  unsigned threads = 0; // -j: compressing threads; 0: one per processor
  CArchiveFile::CSrchFlags srch = static_cast<CArchiveFile::CSrchFlags>(0);
  CArchiveFile::CAttrFlags attr = CArchiveFile::AttrNoSecurity;
  std::vector<std::string> includes;
  std::vector<std::string> excludes;
  OverwritePolicy overwrite = OverwritePolicy::Default;
  std::vector<DriveOption> drives;
  // --media: folders of the next media of a removable drive, used in turn
  // before anybody is asked.
  std::vector<std::string> media;

  bool quiet = false;
  bool verbose = false;
  bool json = false;
};

// Parses the arguments after the program name. On a usage error returns
// nothing and sets the message.
std::optional<Options> ParseCommandLine(const std::vector<std::string>& args, std::string& error);

// "1440K", "650M", "4G", "123456": bytes. K, M and G are binary (1024).
std::optional<std::uint64_t> ParseSize(const std::string& text);

// A drive specification as given to --drive.
std::optional<DriveOption> ParseDriveOption(const std::string& text, std::string& error);

// The volume size limit for FileName: low half every volume, high half the
// first one. 4G stands for the largest size a volume can have.
CArchiveSize VolumeLimit(const Options& options);

const char* CommandName(Command command);

} // namespace tool
