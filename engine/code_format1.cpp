// Code format 1.
#include "engine/code_format1.h"

BOOL CEncodeDecode1::Create(BYTE dicBits, WORD maxMatch) {
  return CEncodeDecodeBase::Create(dicBits, maxMatch);
}

BOOL CEncodeDecode1::EncodeStart(CFileBit*, DWORD*) { return TRUE; }

BOOL CEncodeDecode1::EncodeEnd(CFileBit* destination, DWORD* error) {
  return EncodeChar(destination, error, 0xFFFF); // the low 9 bits: the end code
}

BOOL CEncodeDecode1::EncodeChar(CFileBit* destination, DWORD*, WORD value) {
  destination->WriteBits(9, value);
  return TRUE;
}

BOOL CEncodeDecode1::EncodeMatch(CFileBit* destination, DWORD*, WORD lengthCode, WORD position) {
  destination->WriteBits(9, lengthCode);
  destination->WriteBits(DicBits, position);
  return TRUE;
}

BOOL CEncodeDecode1::DecodeStart(CFileBit*, DWORD*) { return TRUE; }

BOOL CEncodeDecode1::DecodeEnd(CFileBit*, DWORD*) { return TRUE; }

int CEncodeDecode1::DecodeCode(CFileBit* source, DWORD*, WORD* code, WORD* position) {
  const DWORD value = source->ReadBits(9);
  *code = static_cast<WORD>(value);
  int result;
  if ((value & 0x100) == 0) {
    result = CodeLiteral;
  } else if (value == EndCode) {
    result = CodeEnd;
  } else {
    *position = static_cast<WORD>(source->ReadBits(DicBits));
    result = CodeMatch;
  }
  // A code that ran past the last byte of the data is dropped: a stream
  // without its end code simply ends.
  if (source->IsShort()) result = CodeEnd;
  return result;
}
