/// The table of speeds and the bits of each setting. The bits are what the devices are driven with today:
/// change none without trying every chip.
#include "BSW/Serial/LineSettings.h"

#include <array>

namespace {

constexpr std::array<speed_t, 10> kSpeeds = {B2400,   B4800,   B9600,   B19200,  B57600,
                                             B115200, B230400, B460800, B921600, B3000000};

// The bits that are IXON, IXANY and IXOFF in the input flags. They go into the control flags all the same:
// the chips and the portable parts were brought up with lines set this way.
constexpr tcflag_t kSoftFlowControlBits = 0x1C00;

constexpr int kMillisecondsPerVtimeUnit = 100;

void ApplyDataBits(emSerialDataBits bits, termios& attributes) {
  switch (bits) {
    case emSerialDataBits_5:
      attributes.c_cflag |= CS5;
      break;
    case emSerialDataBits_6:
      attributes.c_cflag |= CS6;
      break;
    case emSerialDataBits_7:
      attributes.c_cflag |= CS7;
      break;
    case emSerialDataBits_8:
      attributes.c_cflag |= CS8;
      break;
  }
}

void ApplyParity(emSerialParity parity, termios& attributes) {
  switch (parity) {
    case emSerialParity_None:
      attributes.c_cflag &= ~static_cast<tcflag_t>(PARENB);
      attributes.c_iflag &= ~static_cast<tcflag_t>(INPCK);
      break;
    case emSerialParity_Odd:
      attributes.c_cflag |= PARODD | PARENB;
      attributes.c_iflag |= INPCK;
      break;
    case emSerialParity_Even:
      attributes.c_cflag &= ~static_cast<tcflag_t>(PARODD);
      attributes.c_cflag |= PARENB;
      attributes.c_iflag |= INPCK;
      break;
    case emSerialParity_Space:
      attributes.c_cflag &= ~static_cast<tcflag_t>(PARENB | CSTOPB);
      break;
  }
}

void ApplyStopBits(emSerialStopBits bits, termios& attributes) {
  switch (bits) {
    case emSerialStopBits_1:
      attributes.c_cflag &= ~static_cast<tcflag_t>(CSTOPB);
      break;
    case emSerialStopBits_2:
      attributes.c_cflag |= CSTOPB;
      break;
  }
}

void ApplyFlowControl(emSerialFlowControl control, termios& attributes) {
  switch (control) {
    case emSerialFlowControl_None:
      attributes.c_cflag &= ~static_cast<tcflag_t>(CRTSCTS);
      break;
    case emSerialFlowControl_Soft:
      attributes.c_cflag |= kSoftFlowControlBits;
      break;
    case emSerialFlowControl_Hw:
      attributes.c_cflag |= CRTSCTS;
      break;
  }
}

}  // namespace

std::optional<speed_t> TermiosSpeed(emSerialBaudRate rate) {
  const auto index = static_cast<size_t>(rate);
  if (index >= kSpeeds.size()) return std::nullopt;
  return kSpeeds[index];
}

bool ApplyLineFormat(const UART_MNG_INFO_S& info, termios& attributes) {
  attributes.c_cflag &= ~static_cast<tcflag_t>(CSIZE);
  const std::optional<speed_t> speed = TermiosSpeed(info.eBaudRate);
  if (!speed) return false;
  cfsetispeed(&attributes, *speed);
  cfsetospeed(&attributes, *speed);
  ApplyDataBits(info.eDataBits, attributes);
  ApplyParity(info.eParity, attributes);
  ApplyStopBits(info.eStopBits, attributes);
  ApplyFlowControl(info.eFlowControl, attributes);
  return true;
}

void ApplyRawMode(int timeoutMs, termios& attributes) {
  attributes.c_cc[VTIME] = static_cast<cc_t>(timeoutMs / kMillisecondsPerVtimeUnit);
  attributes.c_cc[VMIN] = 1;
  attributes.c_cflag |= CREAD | CLOCAL;
  attributes.c_lflag &= ~static_cast<tcflag_t>(ISIG | ICANON | ECHO | ECHOE | IEXTEN);
  // INPCK goes again, whatever the parity asked for: a byte with a parity error is delivered as it came.
  attributes.c_iflag &=
      ~static_cast<tcflag_t>(BRKINT | IGNPAR | INPCK | ISTRIP | INLCR | IGNCR | ICRNL | IXON);
  attributes.c_oflag &= ~static_cast<tcflag_t>(OPOST | ONLCR | OCRNL);
}
