// Error texts and exit codes of the tool: every failure is shown with the
// item concerned, the Win32 error code, its name and a plain sentence.
#pragma once

#include <talvern/win32.h>

#include <string>

namespace tool {

// Documented exit codes.
enum ExitCode : int {
  kExitOk = 0,
  kExitSomeFailed = 1, // the operation failed, or some entries or files failed
  kExitUsage = 2,      // bad command line, or the archive or a source does not exist
  kExitDamaged = 3,    // the archive is damaged or is not an archive of this format
  kExitCancelled = 130 // cancelled by the person (an answer, or Ctrl-C)
};

// What the tool was doing when an error arose; it picks the sentence.
enum class Activity {
  General,
  OpenArchive,   // opening an existing archive or one of its volumes
  CreateArchive, // creating a new archive
  WriteArchive,  // appending to an open archive
  ReadSource,    // reading a file or folder that is being added
  ReadArchive,   // walking the records of an archive
  ExtractEntry,  // creating or writing an extracted item
  CheckEntry,    // testing an entry's contents
};

// The Win32 name of a code ("ERROR_CRC"), or "" when the tool does not know it.
const char* ErrorName(DWORD code);

// A plain sentence for a code in an activity. The subject (a file or entry
// name, may be empty) is worked into the sentence.
std::string ErrorSentence(DWORD code, Activity activity, const std::string& subject);

// The whole line shown for a failure, without the program name:
// "CRC mismatch in docs\a.txt (error 23 ERROR_CRC)".
std::string ErrorMessage(DWORD code, Activity activity, const std::string& subject);

// The exit code that a failure with this code in this activity leads to.
int ExitCodeFor(DWORD code, Activity activity);

// Combines two exit codes: the more serious one wins (cancelled, damaged,
// usage, some failed, ok).
int WorseExit(int a, int b);

} // namespace tool
