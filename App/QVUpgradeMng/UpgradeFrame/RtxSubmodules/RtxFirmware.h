/// A radio module's firmware: its file (".spihex", Intel HEX), read into contiguous blocks, and what these
/// mean for the module's NOR flash: which sectors must be erased, what range is verified, and what the flash
/// must hold there afterwards. The exchange reads it once per upgrade and writes it.
#pragma once

#include <cstddef>
#include <cstdint>
#include <deque>
#include <string>
#include <string_view>
#include <vector>

#include "UpgradeFrame/RtxSubmodules/RtxProtocol.h"

namespace Rtx {

/// One contiguous block of firmware.
struct FwData_t {
  uint32_t m_iStartAddr = 0;
  uint32_t m_iEndAddr = 0;  ///< behind the last byte
  uint32_t m_iCrc = 0;      ///< of what the flash must hold in the block's verified range
  Bytes m_vecData;
};

/// Addresses to erase at: one in each sector that the block touches. A step of one sector from a start in
/// the middle of one may miss the sector of the last byte, so that one is looked at by itself.
std::vector<uint32_t> SectorsOf(const FwData_t& block);

/// Bytes to verify from the block's start: its size rounded up to whole sectors.
uint32_t VerifyLength(const FwData_t& block);

enum HexRecordType {
  EM_REC_DATA = 0,
  EM_REC_END = 1,
  EM_REC_EX_SEG_ADDR = 2,
  EM_REC_START_SEG_ADDR = 3,
  EM_REC_EX_LINEAR_ADDR = 4,
  EM_REC_START_LINEAR_ADDR = 5,
};

/// One line.
struct HexRecord_t {
  uint16_t m_iOffset = 0;
  uint8_t m_iRecType = 0;  ///< HexRecordType
  Bytes m_vecData;
  uint8_t m_iCheckSum = 0;
};

/// Reads one file; linear in its size. The texts of malformed lines are what service looks for.
class IntelHexReader {
 public:
  /// A larger file is not read: no module has the flash for it.
  static constexpr size_t kMaxFileBytes = size_t{16} * 1024 * 1024;
  /// Real firmware has a handful; the bound keeps a forged file from erasing and verifying for hours.
  static constexpr size_t kMaxBlocks = 1024;

  /// Reads the file `path` and sets what the flash must hold. False, logged, leaves `blocks` empty.
  bool ReadFile(const std::string& path, std::deque<FwData_t>& blocks);
  /// The same for a text that is at hand; `name` is for the log. Lines end in LF or CR LF.
  bool Read(std::string_view text, const std::string& name, std::deque<FwData_t>& blocks);

  /// Reads one line, without its end, into `record`. What is wrong with it; empty when nothing is.
  static std::string _ParseHexLine(std::string_view line, HexRecord_t& record);

 private:
  enum class Step { Continue, End, Malformed };

  /// Two's complement of the sum of count, address, type and data.
  static uint8_t _CalcuHexChecksum(const HexRecord_t& record);
  Step _Take(const HexRecord_t& record, const std::string& name);
  bool _TakeData(const HexRecord_t& record);

  uint32_t m_iUpperAddr = 0;  ///< upper half of the addresses, in place
  std::deque<FwData_t> m_deqFwData;
};

}  // namespace Rtx
