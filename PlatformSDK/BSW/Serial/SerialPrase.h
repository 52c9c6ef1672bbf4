/// A serial line that carries the framed protocol of the legacy portable parts. A protocol class derives from
/// it and overrides UartRecvCallback.
///
/// The story: the base station asks, the part answers, both with frames of one shape,
///
///   tag 2 | data type 1 | payload length n 2 | payload n | check byte 1
///
/// all numbers little-endian, the check byte the XOR of everything before it. The station's frames begin with
/// 0xBB 0xDD, the part's with 0xAA 0xDD, so that neither takes its own echo for an answer. The bytes of the
/// wire are fixed; sizes and time-outs of the receiver may be changed.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "BSW/Serial/CSerialLink.h"
#include "BSW/Serial/SerialLineReader.h"

class SerialPrase : public CSerialLink {
 public:
  /// `maxRecvLen` is the longest payload that is received, and limits what is sent, payload and header
  /// together.
  SerialPrase(const std::string& name, uint32_t maxRecvLen);
  /// A derived class calls DestroySerial in its own destructor: the receive thread calls its functions.
  ~SerialPrase() override;

  /// Packs and writes one frame. Its length, or -1.
  short SendFrame(uint8_t dataType, const void* payload, unsigned short length);

  /// Reads the next frame from the line into `buffer`, which has room for `maxPayload` + 6 bytes; it is not
  /// checked yet. Its length, or -1 when nothing came within `timeoutMs` or the line broke. Receive thread
  /// only.
  virtual int32_t GetLine(uint8_t* buffer, uint16_t maxPayload, bool blocking, int32_t timeoutMs);
  /// Checks a received frame within `length` bytes and copies it to `out`, unless that is null. Its length,
  /// or -1.
  virtual int16_t UnpackFrame(const uint8_t* buffer, uint16_t length, uint8_t* out);
  /// Builds a frame in `buffer` of `capacity` bytes; a null payload counts as empty. Its length, or -1 when
  /// the buffer is null or too small.
  virtual int16_t PackFrame(uint8_t* buffer, uint16_t capacity, uint8_t dataType, const void* payload,
                            uint16_t length);
  /// Takes one received payload. Called on the receive thread with no lock held.
  virtual int UartRecvCallback(uint8_t dataType, const uint8_t* payload, int16_t length) = 0;
  /// Hands the payload of a checked frame to UartRecvCallback and gives its result; -1 for no frame.
  virtual int32_t ProcessFrame(const uint8_t* frame, int16_t length);

  /// CRC-16/XMODEM, for protocols that carry one in their payload. No caller yet.
  static uint16_t _PackCrc16(const uint8_t* data, uint32_t length);

 protected:
  void ReceiveLoop() override;

 private:
  const uint16_t m_maxPayload;
  // Receive thread only:
  SerialLineReader m_LineReader;
  std::vector<uint8_t> m_pstUartFrame;  ///< the checked frame
  uint32_t m_iReadLine = 0;             ///< the line number under which m_LineReader was filled
  bool m_bReadFailed = false;           ///< the line broke during the last GetLine
};
