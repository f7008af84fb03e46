// The talvern library: archives of files and directory trees, compressed by
// the library's own sliding-window LZ coder, in one file or a chain of
// volumes; one-shot block compression; and the Win32 platform layer it is
// written against.
#pragma once

#include <talvern/archive.h>
#include <talvern/entry.h>
#include <talvern/export.h>
#include <talvern/oneshot.h>
#include <talvern/platform.h>
#include <talvern/size.h>
#include <talvern/version.h>
#include <talvern/win32.h>
