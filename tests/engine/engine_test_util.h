// Shared helpers of the engine tests: compress and expand through the engine
// directly, and take a code format 1 stream apart into its codes.
#pragma once

#include "engine/code_format1.h"

#include <cstdint>
#include <string>
#include <vector>

namespace enginetest {

using Bytes = std::vector<std::uint8_t>;

Bytes FromString(const std::string& text);

// The engine as the drivers use it, but derived, so that every operation
// goes through its virtual slot (the general path of the loops).
class VirtualEngine : public CEncodeDecode1 {};

// Compresses `data` with a fresh engine (13, 256) into memory. `general`
// selects the general path of the loops instead of the direct one.
Bytes Compress(const Bytes& data, bool general = false);

// Expands a stream with a fresh engine into at most `limit` bytes.
// `ok` receives Decode's result and `error` its code.
Bytes Expand(const Bytes& stream, std::size_t limit, bool general = false, int* ok = nullptr,
             DWORD* error = nullptr);

struct Code {
  enum Kind { Literal, Match, End } kind;
  unsigned value;    // literal byte, or match length (3 to 257)
  unsigned distance; // matches: position field + 1
};

// Reads a stream code by code (9-bit codes, 13-bit position fields) up to
// and including the end code; stops early at the end of the data.
std::vector<Code> ParseCodes(const Bytes& stream);

// The files of the benchmark corpus, sorted by name (none when the corpus
// folder was not found at configuration time).
std::vector<std::string> CorpusFiles();
Bytes ReadAll(const std::string& hostPath);

// Deterministic test data: text-like with repeats, and random bytes.
Bytes TextLike(std::size_t size, std::uint32_t seed);

} // namespace enginetest
