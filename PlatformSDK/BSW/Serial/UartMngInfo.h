/// The settings of one serial line. Every user of a port fills a record; the port keeps a copy.
#pragma once

#include <cstring>
#include <string>
#include <string_view>

enum emSerialBaudRate : int {
  emSerialBaudRate_2400 = 0,
  emSerialBaudRate_4800 = 1,
  emSerialBaudRate_9600 = 2,
  emSerialBaudRate_19200 = 3,
  emSerialBaudRate_57600 = 4,
  emSerialBaudRate_115200 = 5,
  emSerialBaudRate_230400 = 6,
  emSerialBaudRate_460800 = 7,
  emSerialBaudRate_921600 = 8,  ///< only when a line is opened; CSerial::SetBaudRate refuses it
  emSerialBaudRate_3000000 = 9,
};

enum emSerialDataBits : int {
  emSerialDataBits_5 = 0,
  emSerialDataBits_6 = 1,
  emSerialDataBits_7 = 2,
  emSerialDataBits_8 = 3,
};

enum emSerialParity : int {
  emSerialParity_None = 0,
  emSerialParity_Odd = 1,
  emSerialParity_Even = 2,
  emSerialParity_Space = 3,
};

enum emSerialStopBits : int {
  emSerialStopBits_1 = 0,
  emSerialStopBits_2 = 1,
};

enum emSerialFlowControl : int {
  emSerialFlowControl_None = 0,
  emSerialFlowControl_Soft = 1,
  emSerialFlowControl_Hw = 2,
};

struct UART_MNG_INFO_S {
  char szDevName[64] = {};  ///< device path, ended by NUL
  emSerialBaudRate eBaudRate = emSerialBaudRate_115200;
  emSerialDataBits eDataBits = emSerialDataBits_8;
  emSerialStopBits eStopBits = emSerialStopBits_1;
  emSerialParity eParity = emSerialParity_None;
  emSerialFlowControl eFlowControl = emSerialFlowControl_None;
  std::string strMasterType;  ///< our end's label in frame dumps; empty keeps the port's
  std::string strSlaverType;  ///< the other end's label

  /// False, with nothing changed, when `path` is too long for szDevName.
  bool SetDevName(std::string_view path) {
    if (path.size() >= sizeof szDevName) return false;
    std::memset(szDevName, 0, sizeof szDevName);
    path.copy(szDevName, path.size());
    return true;
  }
};
