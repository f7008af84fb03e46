#include "help.h"

namespace tool {
namespace {

const char kSelection[] =
    "Selection (create, add, extract, test):\n"
    "  --include GLOB        take only files that match (folders are always walked)\n"
    "  --exclude GLOB        leave out files and folders that match\n"
    "  --only-readonly, --only-hidden, --only-system, --only-archive\n"
    "                        take only files with that attribute\n"
    "  --exclude-readonly, --exclude-hidden, --exclude-system, --exclude-archive\n"
    "                        leave out files and folders with that attribute\n"
    "  --no-recurse          take folders, but not what is inside them\n"
    "  GLOB: * any characters but \\, ** any characters, ? one character, [a-z] a set;\n"
    "  without / or \\ it matches names, with one it matches paths in the archive.\n"
    "  Case does not matter.\n";

const char kAttributes[] =
    "Attributes and options:\n"
    "  --no-paths            store (or extract) every item without its folder\n"
    "  --no-times            store the current time instead of the items' own times;\n"
    "                        on extract, leave the times the system gives\n"
    "  --security            keep security descriptors (needs root)\n"
    "  --clear LETTERS       clear attributes: r read-only, h hidden, s system, a archive\n"
    "  --toggle LETTERS      invert attributes (after --clear)\n";

const char kDrive[] =
    "  --drive A:=DIR[,removable|cdrom|fixed][,size=SIZE][,cluster=N]\n"
    "                        put a folder in a simulated drive; archives in DIR are then\n"
    "                        named A:\\... (or by their host path). On a removable drive\n"
    "                        the tool asks for the folder of each further disk.\n"
    "  --media DIR,DIR,...   the folders of the further disks, in order, so that nobody\n"
    "                        has to be asked (the tool asks once they are used up)\n";

const char kCommon[] = "Common options:\n"
                       "  -q, --quiet           print nothing but errors (and listings)\n"
                       "  -v, --verbose         print every item as it is handled\n"
                       "  -h, --help            this help\n";

} // namespace

std::string GeneralHelp() {
  return std::string(
             "Usage: talvern COMMAND [OPTIONS] ARGUMENTS\n"
             "\n"
             "Packs files and folder trees into archives and unpacks them again.\n"
             "\n"
             "Commands:\n"
             "  create ARCHIVE PATH              pack a folder (or one file) into a new archive\n"
             "  add ARCHIVE PATH...              add files and folders to an archive\n"
             "  extract ARCHIVE [DIR] [PATTERN...]  unpack everything, or what PATTERNs name\n"
             "  list ARCHIVE                     show the entries\n"
             "  test ARCHIVE                     check every entry's size and CRC\n"
             "  info ARCHIVE                     volumes, entries, sizes and ratio\n"
             "\n"
             "A numbered volume set (NAME.000, NAME.001, ...) is named by its base name or\n"
             "by any of its volume files. Sizes take K, M and G (1024-based): 1440K, 650M.\n"
             "\n"
             "Exit codes: 0 success, 1 some items failed, 2 usage error or missing archive,\n"
             "3 archive damaged, 130 cancelled.\n"
             "\n") +
         kCommon + "  --version             the version\n" +
         "\nRun 'talvern COMMAND --help' for the options of a command; 'man talvern' for all.\n";
}

std::string CommandHelp(Command command) {
  switch (command) {
  case Command::Create:
    return std::string("Usage: talvern create [OPTIONS] ARCHIVE PATH\n"
                       "\n"
                       "Packs the contents of the folder PATH (or the one file PATH) into a new\n"
                       "archive. With --volume-size the archive is written as numbered volumes\n"
                       "ARCHIVE-without-extension.000, .001, ...\n"
                       "\n"
                       "  --volume-size SIZE        largest size of each volume (1K to 4G)\n"
                       "  --first-volume-size SIZE  a different size for the first volume\n"
                       "  --store                   store the data without compressing it\n"
                       "  --follow-links            pack what folders reached through links hold\n"
                       "                            (else they are stored empty); a link to a\n"
                       "                            folder above it is not followed\n"
                       "  -j N, --threads N         compress with N threads (default: one per\n"
                       "                            processor); the archive is the same\n"
                       "  --force                   replace an existing archive\n"
                       "  --dirs-only               store only the folders\n"
                       "  --no-dirs                 store only the files at the top level\n") +
           kDrive + "\n" + kSelection + "\n" + kAttributes + "\n" + kCommon;
  case Command::Add:
    return std::string("Usage: talvern add [OPTIONS] ARCHIVE PATH...\n"
                       "\n"
                       "Adds each PATH, a file or a folder with everything in it, to the top\n"
                       "level of an existing archive, after its last entry. A numbered set\n"
                       "goes on in new volumes; without --volume-size it keeps the size of its\n"
                       "largest full volume.\n"
                       "\n"
                       "  --volume-size SIZE, --first-volume-size SIZE, --store, -j N,\n"
                       "  --follow-links, --dirs-only, --no-dirs    as for create\n") +
           kDrive + "\n" + kSelection + "\n" + kAttributes + "\n" + kCommon;
  case Command::Extract:
    return std::string(
               "Usage: talvern extract [OPTIONS] ARCHIVE [DIR] [PATTERN...]\n"
               "\n"
               "Unpacks the whole archive into DIR (default: the current folder), or only\n"
               "the entries that match a PATTERN (a folder with everything in it).\n"
               "\n"
               "  --overwrite replace|skip|backup|rename|ask\n"
               "                        what to do with a file that exists: replace it, leave\n"
               "                        it, move it to NAME.ORG first, write NAME.NEW beside it,\n"
               "                        or ask (the default on a terminal; else skip)\n") +
           kDrive + "\n" + kSelection + "\n" + kAttributes + "\n" + kCommon;
  case Command::List:
    return std::string("Usage: talvern list [OPTIONS] ARCHIVE\n"
                       "\n"
                       "Shows every entry: attributes, size, packed size, method, CRC, time of\n"
                       "last change and path. --verbose adds creation and access times and\n"
                       "the volume.\n"
                       "\n"
                       "  --json                one JSON document for programs\n") +
           kDrive + "\n" + kCommon;
  case Command::Test:
    return std::string("Usage: talvern test [OPTIONS] ARCHIVE\n"
                       "\n"
                       "Expands every entry to nowhere and checks its size and CRC. Nothing is\n"
                       "written outside the system's temporary folder, and what is written\n"
                       "there is removed at once. Exit code 3 when an entry is damaged.\n"
                       "\n") +
           kDrive + "\n" + kSelection + "\n" + kCommon;
  case Command::Info:
    return std::string("Usage: talvern info [OPTIONS] ARCHIVE\n"
                       "\n"
                       "Shows the volumes, the number of entries, sizes and the ratio.\n"
                       "\n"
                       "  --json                one JSON document for programs\n") +
           kDrive + "\n" + kCommon;
  case Command::None:
    break;
  }
  return GeneralHelp();
}

} // namespace tool
