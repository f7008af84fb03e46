// Code format 1: 9-bit codes (0x000-0x0FF literal, 0x100-0x1FD match length
// 3-256 followed by a DicBits-wide position field, 0x1FF end), written most
// significant bit first and padded with zero bits to a whole byte.
#pragma once

#include "engine/lz_engine.h"

class CEncodeDecode1 : public CEncodeDecodeBase {
public:
  static constexpr WORD EndCode = 0x1FF;

  BOOL Create(BYTE dicBits, WORD maxMatch) override;

  BOOL EncodeStart(CFileBit* destination, DWORD* error) override;
  BOOL EncodeEnd(CFileBit* destination, DWORD* error) override;
  BOOL EncodeChar(CFileBit* destination, DWORD* error, WORD value) override;
  BOOL EncodeMatch(CFileBit* destination, DWORD* error, WORD lengthCode, WORD position) override;
  BOOL DecodeStart(CFileBit* source, DWORD* error) override;
  BOOL DecodeEnd(CFileBit* source, DWORD* error) override;
  int DecodeCode(CFileBit* source, DWORD* error, WORD* code, WORD* position) override;
};
