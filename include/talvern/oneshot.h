// One-shot functions: compress or expand one block in a single call,
// between memory and open files, without an archive object.
//
// A compressed block is a 16-byte header ("CM", method, CRC-32, original
// size, compressed size; little-endian) followed by the stored or compressed
// data. A null destination (or INVALID_HANDLE_VALUE) makes a call a size
// query. `error` (may be null) keeps its value on success; `resultSize`
// (may be null) is 0 on failure. Files are used at their current position,
// which is never moved.
#pragma once

#include <talvern/export.h>
#include <talvern/win32.h>

TALVERN_API int GetCompressMemToMem(const void* source, DWORD sourceSize, DWORD* error,
                                    DWORD* resultSize, void* destination,
                                    DWORD destinationSize, DWORD method);
TALVERN_API int GetExpandMemToMem(const void* source, DWORD sourceSize, DWORD* error,
                                  DWORD* resultSize, void* destination,
                                  DWORD destinationSize);
TALVERN_API int GetCompressFileToMem(void* source, DWORD sourceSize, DWORD* error,
                                     DWORD* resultSize, void* destination,
                                     DWORD destinationSize, DWORD method);
TALVERN_API int GetExpandMemToFile(const void* source, DWORD sourceSize, DWORD* error,
                                   DWORD* resultSize, void* destination,
                                   DWORD destinationSize);
TALVERN_API int GetCompressMemToFile(const void* source, DWORD sourceSize, DWORD* error,
                                     DWORD* resultSize, void* destination,
                                     DWORD destinationSize, DWORD method);
TALVERN_API int GetExpandFileToMem(void* source, DWORD sourceSize, DWORD* error,
                                   DWORD* resultSize, void* destination,
                                   DWORD destinationSize);
TALVERN_API int GetCompressFileToFile(void* source, DWORD sourceSize, DWORD* error,
                                      DWORD* resultSize, void* destination,
                                      DWORD destinationSize, DWORD method);
TALVERN_API int GetExpandFileToFile(void* source, DWORD sourceSize, DWORD* error,
                                    DWORD* resultSize, void* destination,
                                    DWORD destinationSize);
