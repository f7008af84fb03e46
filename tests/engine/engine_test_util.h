// Shared helpers of the engine tests: compress and expand through the engine
// directly.
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
// selects the general path of the loops instead of the direct one; with a
// keeper the engine takes its arrays from there (as left by the engine
// before) and gives them back.
Bytes Compress(const Bytes& data, bool general = false, EngineArrays* keeper = nullptr);

// Expands a stream with a fresh engine into at most `limit` bytes.
// `ok` receives Decode's result and `error` its code.
Bytes Expand(const Bytes& stream, std::size_t limit, bool general = false, int* ok = nullptr,
             DWORD* error = nullptr);

// The files of the benchmark corpus, sorted by name (none when the corpus
// folder was not found at configuration time).
std::vector<std::string> CorpusFiles();
Bytes ReadAll(const std::string& hostPath);

// Deterministic test data: text-like with repeats, and random bytes.
Bytes TextLike(std::size_t size, std::uint32_t seed);

} // namespace enginetest
