#include "options.h"

#include <algorithm>
#include <cctype>

namespace tool {
namespace {

using Srch = CArchiveFile::CSrchFlags;
using Attr = CArchiveFile::CAttrFlags;

// Commands an option belongs to, as a bit mask of 1 << Command.
constexpr unsigned Bit(Command c) { return 1u << static_cast<unsigned>(c); }
constexpr unsigned kWriting = Bit(Command::Create) | Bit(Command::Add);
constexpr unsigned kReadingEntries = Bit(Command::Extract) | Bit(Command::Test);
constexpr unsigned kSelecting = kWriting | kReadingEntries;
constexpr unsigned kAll = kWriting | kReadingEntries | Bit(Command::List) | Bit(Command::Info);

struct FlagOption {
  const char* name;
  unsigned commands;
  DWORD srch;
  DWORD attr;
};

// Switches that map onto selection and attribute flags.
constexpr FlagOption kFlagOptions[] = {
    {"--only-readonly", kSelecting, Srch::SrchReadOnly, 0},
    {"--only-hidden", kSelecting, Srch::SrchHidden, 0},
    {"--only-system", kSelecting, Srch::SrchSystem, 0},
    {"--only-archive", kSelecting, Srch::SrchArchive, 0},
    {"--exclude-readonly", kSelecting, Srch::SrchExcludeReadOnly, 0},
    {"--exclude-hidden", kSelecting, Srch::SrchExcludeHidden, 0},
    {"--exclude-system", kSelecting, Srch::SrchExcludeSystem, 0},
    {"--exclude-archive", kSelecting, Srch::SrchExcludeArchive, 0},
    {"--no-recurse", kSelecting, Srch::SrchNoRecurse, 0},
    {"--dirs-only", kWriting, Srch::SrchDirOnly, 0},
    {"--no-dirs", kWriting, Srch::SrchExcludeDir, 0},
    {"--no-paths", kSelecting, 0, Attr::AttrNoPath},
    {"--no-times", kSelecting, 0, Attr::AttrNoTimes},
};

bool IEquals(const std::string& a, const std::string& b) {
  return a.size() == b.size() && std::equal(a.begin(), a.end(), b.begin(), [](char x, char y) {
           return std::tolower(static_cast<unsigned char>(x)) ==
                  std::tolower(static_cast<unsigned char>(y));
         });
}

std::optional<Command> CommandFromName(const std::string& name) {
  for (Command c : {Command::Create, Command::Add, Command::Extract, Command::List, Command::Test,
                    Command::Info})
    if (name == CommandName(c)) return c;
  return std::nullopt;
}

// "rhsa" letters to attribute bits (read-only, hidden, system, archive).
std::optional<DWORD> AttributeLetters(const std::string& text) {
  DWORD bits = 0;
  for (char c : text) {
    switch (std::tolower(static_cast<unsigned char>(c))) {
    case 'r':
      bits |= FILE_ATTRIBUTE_READONLY;
      break;
    case 'h':
      bits |= FILE_ATTRIBUTE_HIDDEN;
      break;
    case 's':
      bits |= FILE_ATTRIBUTE_SYSTEM;
      break;
    case 'a':
      bits |= FILE_ATTRIBUTE_ARCHIVE;
      break;
    case ',':
      break;
    default:
      return std::nullopt;
    }
  }
  if (bits == 0) return std::nullopt;
  return bits;
}

std::optional<OverwritePolicy> PolicyFromName(const std::string& name) {
  if (name == "replace") return OverwritePolicy::Replace;
  if (name == "skip") return OverwritePolicy::Skip;
  if (name == "backup") return OverwritePolicy::Backup;
  if (name == "rename") return OverwritePolicy::Rename;
  if (name == "ask") return OverwritePolicy::Ask;
  return std::nullopt;
}

constexpr std::uint64_t kLargestVolume = 0xFFFFFFFEull; // 0xFFFFFFFF means no limit
constexpr std::uint64_t kFourGiB = 4ull << 30;
constexpr std::uint64_t kSmallestVolume = 1024;

std::optional<std::uint64_t> ParseVolumeSize(const std::string& option, const std::string& text,
                                             std::string& error) {
  const auto size = ParseSize(text);
  if (!size) {
    error = option + ": '" + text + "' is not a size (examples: 1440K, 650M, 4G)";
    return std::nullopt;
  }
  if (*size < kSmallestVolume) {
    error = option + ": a volume must hold at least 1K";
    return std::nullopt;
  }
  if (*size > kFourGiB) {
    error = option + ": a volume can hold at most 4G";
    return std::nullopt;
  }
  return std::min(*size, kLargestVolume);
}

} // namespace

const char* CommandName(Command command) {
  switch (command) {
  case Command::Create:
    return "create";
  case Command::Add:
    return "add";
  case Command::Extract:
    return "extract";
  case Command::List:
    return "list";
  case Command::Test:
    return "test";
  case Command::Info:
    return "info";
  case Command::None:
    break;
  }
  return "";
}

std::optional<std::uint64_t> ParseSize(const std::string& text) {
  std::size_t i = 0;
  std::uint64_t value = 0;
  while (i < text.size() && std::isdigit(static_cast<unsigned char>(text[i]))) {
    const std::uint64_t digit = static_cast<std::uint64_t>(text[i] - '0');
    if (value > (UINT64_MAX - digit) / 10) return std::nullopt;
    value = value * 10 + digit;
    ++i;
  }
  if (i == 0) return std::nullopt;
  const std::string suffix = text.substr(i);
  unsigned shift = 0;
  if (suffix.empty() || IEquals(suffix, "b"))
    shift = 0;
  else if (IEquals(suffix, "k") || IEquals(suffix, "kb") || IEquals(suffix, "kib"))
    shift = 10;
  else if (IEquals(suffix, "m") || IEquals(suffix, "mb") || IEquals(suffix, "mib"))
    shift = 20;
  else if (IEquals(suffix, "g") || IEquals(suffix, "gb") || IEquals(suffix, "gib"))
    shift = 30;
  else
    return std::nullopt;
  if (shift != 0 && value > (UINT64_MAX >> shift)) return std::nullopt;
  return value << shift;
}

std::optional<DriveOption> ParseDriveOption(const std::string& text, std::string& error) {
  DriveOption drive;
  if (text.size() < 4 || !std::isalpha(static_cast<unsigned char>(text[0])) || text[1] != ':' ||
      text[2] != '=') {
    error = "--drive: expected LETTER:=FOLDER[,removable|cdrom|fixed][,size=SIZE][,cluster=N], "
            "got '" +
            text + "'";
    return std::nullopt;
  }
  drive.Letter = static_cast<char>(std::toupper(static_cast<unsigned char>(text[0])));
  if (drive.Letter == 'Z') {
    error = "--drive: Z: stands for the whole file system and cannot be mounted";
    return std::nullopt;
  }
  std::vector<std::string> parts;
  std::size_t start = 3;
  while (true) {
    const std::size_t comma = text.find(',', start);
    parts.push_back(text.substr(start, comma == std::string::npos ? comma : comma - start));
    if (comma == std::string::npos) break;
    start = comma + 1;
  }
  drive.HostDir = parts[0];
  if (drive.HostDir.empty()) {
    error = "--drive: the folder of drive " + std::string(1, drive.Letter) + ": is missing";
    return std::nullopt;
  }
  for (std::size_t i = 1; i < parts.size(); ++i) {
    const std::string& p = parts[i];
    if (p == "removable")
      drive.Type = DRIVE_REMOVABLE;
    else if (p == "cdrom")
      drive.Type = DRIVE_CDROM;
    else if (p == "fixed")
      drive.Type = DRIVE_FIXED;
    else if (p.rfind("size=", 0) == 0) {
      const auto size = ParseSize(p.substr(5));
      if (!size || *size == 0) {
        error = "--drive: '" + p + "' is not a size";
        return std::nullopt;
      }
      drive.Capacity = *size;
    } else if (p.rfind("cluster=", 0) == 0) {
      const auto size = ParseSize(p.substr(8));
      if (!size || *size < 512 || *size > 262144 || (*size & (*size - 1)) != 0) {
        error = "--drive: the cluster size must be a power of two from 512 to 256K";
        return std::nullopt;
      }
      drive.ClusterSize = static_cast<DWORD>(*size);
    } else {
      error = "--drive: unknown property '" + p + "'";
      return std::nullopt;
    }
  }
  return drive;
}

CArchiveSize VolumeLimit(const Options& options) {
  CArchiveSize limit;
  limit.LowPart = static_cast<DWORD>(options.volumeSize);
  if (options.firstVolumeSize != 0 && options.firstVolumeSize != options.volumeSize)
    limit.HighPart = static_cast<DWORD>(options.firstVolumeSize);
  return limit;
}

std::optional<Options> ParseCommandLine(const std::vector<std::string>& args, std::string& error) {
  Options o;
  std::vector<std::string> positional;
  // Options are checked against the command once it is known.
  std::vector<std::pair<std::string, unsigned>> used;
  bool endOfOptions = false;

  for (std::size_t i = 0; i < args.size(); ++i) {
    std::string arg = args[i];
    if (endOfOptions || arg.empty() || arg[0] != '-' || arg == "-") {
      if (o.command == Command::None && positional.empty() && !endOfOptions) {
        const auto command = CommandFromName(arg);
        if (!command) {
          error =
              "unknown command '" + arg + "' (commands: create, add, extract, list, test, info)";
          return std::nullopt;
        }
        o.command = *command;
      } else {
        positional.push_back(arg);
      }
      continue;
    }
    if (arg == "--") {
      endOfOptions = true;
      continue;
    }
    // --name=value
    std::optional<std::string> inlineValue;
    if (arg.rfind("--", 0) == 0) {
      const std::size_t eq = arg.find('=');
      if (eq != std::string::npos) {
        inlineValue = arg.substr(eq + 1);
        arg = arg.substr(0, eq);
      }
    }
    auto value = [&](std::string& out) {
      if (inlineValue) {
        out = *inlineValue;
        return true;
      }
      if (i + 1 >= args.size()) {
        error = arg + " needs a value";
        return false;
      }
      out = args[++i];
      return true;
    };
    auto noValue = [&]() {
      if (inlineValue) {
        error = arg + " takes no value";
        return false;
      }
      return true;
    };

    if (arg == "-h" || arg == "--help") {
      if (!noValue()) return std::nullopt;
      o.help = true;
    } else if (arg == "--version") {
      if (!noValue()) return std::nullopt;
      o.version = true;
    } else if (arg == "-q" || arg == "--quiet") {
      if (!noValue()) return std::nullopt;
      o.quiet = true;
    } else if (arg == "-v" || arg == "--verbose") {
      if (!noValue()) return std::nullopt;
      o.verbose = true;
    } else if (arg == "--json") {
      if (!noValue()) return std::nullopt;
      o.json = true;
      used.emplace_back(arg, Bit(Command::List) | Bit(Command::Info));
    } else if (arg == "--follow-links") {
      if (!noValue()) return std::nullopt;
      o.followLinks = true;
      used.emplace_back(arg, kWriting);
    } else if (arg == "--store") {
      if (!noValue()) return std::nullopt;
      o.store = true;
      used.emplace_back(arg, kWriting);
    } else if (arg == "-j" || arg == "--threads" || (arg.rfind("-j", 0) == 0 && arg.size() > 2)) {
      std::string text = arg.size() > 2 && arg[1] == 'j' ? arg.substr(2) : std::string();
      if (text.empty() && !value(text)) return std::nullopt;
      const bool digits = !text.empty() && text.size() <= 3 &&
                          text.find_first_not_of("0123456789") == std::string::npos;
      if (!digits || std::stoul(text) < 1 || std::stoul(text) > 256) {
        error = "-j needs a number of threads from 1 to 256";
        return std::nullopt;
      }
      o.threads = static_cast<unsigned>(std::stoul(text));
      used.emplace_back("-j", kWriting);
    } else if (arg == "--force") {
      if (!noValue()) return std::nullopt;
      o.force = true;
      used.emplace_back(arg, Bit(Command::Create));
    } else if (arg == "--security") {
      if (!noValue()) return std::nullopt;
      o.attr = o.attr & ~Attr::AttrNoSecurity;
      used.emplace_back(arg, kWriting | Bit(Command::Extract));
    } else if (arg == "--volume-size" || arg == "--first-volume-size") {
      std::string text;
      if (!value(text)) return std::nullopt;
      const auto size = ParseVolumeSize(arg, text, error);
      if (!size) return std::nullopt;
      (arg == "--volume-size" ? o.volumeSize : o.firstVolumeSize) = *size;
      used.emplace_back(arg, kWriting);
    } else if (arg == "--include" || arg == "--exclude") {
      std::string glob;
      if (!value(glob)) return std::nullopt;
      if (glob.empty()) {
        error = arg + " needs a pattern";
        return std::nullopt;
      }
      (arg == "--include" ? o.includes : o.excludes).push_back(glob);
      used.emplace_back(arg, kSelecting);
    } else if (arg == "--overwrite") {
      std::string name;
      if (!value(name)) return std::nullopt;
      const auto policy = PolicyFromName(name);
      if (!policy) {
        error = "--overwrite: '" + name + "' is not one of replace, skip, backup, rename, ask";
        return std::nullopt;
      }
      o.overwrite = *policy;
      used.emplace_back(arg, Bit(Command::Extract));
    } else if (arg == "--clear" || arg == "--toggle") {
      std::string letters;
      if (!value(letters)) return std::nullopt;
      const auto bits = AttributeLetters(letters);
      if (!bits) {
        error = arg + ": expected attribute letters r, h, s, a (for example --clear rh)";
        return std::nullopt;
      }
      o.attr = o.attr | static_cast<Attr>(arg == "--clear" ? *bits : *bits << 16);
      used.emplace_back(arg, kWriting | Bit(Command::Extract));
    } else if (arg == "--media") {
      std::string text;
      if (!value(text)) return std::nullopt;
      for (std::size_t start = 0; start <= text.size();) {
        const std::size_t comma = std::min(text.find(',', start), text.size());
        if (comma == start) {
          error = "--media: expected folders separated by commas";
          return std::nullopt;
        }
        o.media.push_back(text.substr(start, comma - start));
        start = comma + 1;
      }
      used.emplace_back(arg, kAll);
    } else if (arg == "--drive") {
      std::string text;
      if (!value(text)) return std::nullopt;
      const auto drive = ParseDriveOption(text, error);
      if (!drive) return std::nullopt;
      o.drives.push_back(*drive);
      used.emplace_back(arg, kAll);
    } else {
      const auto flag = std::find_if(std::begin(kFlagOptions), std::end(kFlagOptions),
                                     [&](const FlagOption& f) { return arg == f.name; });
      if (flag == std::end(kFlagOptions)) {
        error = "unknown option '" + arg + "'";
        return std::nullopt;
      }
      if (!noValue()) return std::nullopt;
      o.srch = o.srch | static_cast<Srch>(flag->srch);
      o.attr = o.attr | static_cast<Attr>(flag->attr);
      used.emplace_back(arg, flag->commands);
    }
  }

  if (o.help || o.version) return o;
  if (o.command == Command::None) {
    error = "no command given";
    return std::nullopt;
  }
  for (const auto& [name, commands] : used) {
    if ((commands & Bit(o.command)) == 0) {
      error = name + " is not an option of " + CommandName(o.command);
      return std::nullopt;
    }
  }

  auto need = [&](std::size_t least, std::size_t most, const char* shape) {
    if (positional.size() < least || positional.size() > most) {
      error = std::string("usage: talvern ") + CommandName(o.command) + " " + shape;
      return false;
    }
    return true;
  };
  switch (o.command) {
  case Command::Create:
    if (!need(2, 2, "ARCHIVE PATH")) return std::nullopt;
    o.sources.push_back(positional[1]);
    break;
  case Command::Add:
    if (!need(2, SIZE_MAX, "ARCHIVE PATH...")) return std::nullopt;
    o.sources.assign(positional.begin() + 1, positional.end());
    break;
  case Command::Extract:
    if (!need(1, SIZE_MAX, "ARCHIVE [DIR] [PATTERN...]")) return std::nullopt;
    if (positional.size() > 1) o.targetDir = positional[1];
    if (positional.size() > 2) o.patterns.assign(positional.begin() + 2, positional.end());
    break;
  case Command::List:
  case Command::Test:
  case Command::Info:
    if (!need(1, 1, "ARCHIVE")) return std::nullopt;
    break;
  case Command::None:
    break;
  }
  o.archive = positional[0];
  if (o.archive.empty()) {
    error = "the archive name is empty";
    return std::nullopt;
  }
  if (o.quiet && o.verbose) {
    error = "--quiet and --verbose exclude each other";
    return std::nullopt;
  }
  return o;
}

} // namespace tool
