/// See Chips.h.
#include "VirtualStation/Chips/Chips.h"

#include <algorithm>

#include "VirtualStation/PackageBuilder.h"

namespace station {
namespace {

const RtxModule::Wiring kModule1 = {"/dev/ttymxc2", 8, 9, 39, 102, 133};
const RtxModule::Wiring kModule2 = {"/dev/ttymxc0", 10, 11, 139, 102, 12};

/// Adds a line when `actual` is not `expected`.
void Compare(std::vector<std::string>& differences, const std::string& chip, std::uint32_t address,
             const Bytes& expected, const Bytes& actual) {
  const auto [left, right] = std::mismatch(expected.begin(), expected.end(), actual.begin(), actual.end());
  if (left != expected.end() || right != actual.end()) {
    differences.push_back(chip + " at " + std::to_string(address + (left - expected.begin())) + " of " +
                          std::to_string(expected.size()) + " bytes");
  }
}

/// Nothing that was under way on the line outlives this.
template <typename Chip>
void RestartOnLine(Chip& chip) {
  chip.line().Unplug();
  chip.PowerCycle();
  chip.conduct().Clear();
  chip.line().Plug();
}

}  // namespace

Chips::Chips()
    : m_rtx1(kModule1), m_rtx2(kModule2), m_pins([this](const PinChange& change) {
        m_rtx1.OnPin(change);
        m_rtx2.OnPin(change);
      }) {}

void Chips::SetPaced(bool paced) {
  for (Line* line : {&m_rtx1.line(), &m_rtx2.line(), &m_mcu.line(), &m_uac.line()}) {
    line->SetPaced(paced);
  }
}

void Chips::PowerCycle() {
  m_pins.PowerCycle();
  for (RtxModule* module : {&m_rtx1, &m_rtx2}) {
    RestartOnLine(*module);
  }
  RestartOnLine(m_mcu);
  RestartOnLine(m_uac);
  m_fpga.PowerCycle();
  m_fpga.conduct().Clear();
}

std::vector<std::string> Chips::DifferencesFrom(const Package& package) const {
  std::vector<std::string> differences;
  for (const auto& [type, blocks] : package.images) {
    for (const FlashBlock& block : type == "rtx" ? ErasedAround(blocks) : blocks) {
      if (type == "rtx") {
        Compare(differences, "RTX module 1", block.address, block.data,
                m_rtx1.core().Memory(block.address, block.data.size()));
        Compare(differences, "RTX module 2", block.address, block.data,
                m_rtx2.core().Memory(block.address, block.data.size()));
      } else if (type == "mcu") {
        Compare(differences, "MCU", 0, block.data, m_mcu.Memory(block.data.size()));
      } else if (type == "uac") {
        Compare(differences, "UAC", 0, block.data, m_uac.Memory());
      } else if (type == "fpga") {
        Compare(differences, "FPGA", 0, block.data, m_fpga.Memory());
      }
    }
  }
  return differences;
}

std::vector<Chips::Story> Chips::Stories() const {
  return {{"RTX module 1", Words(m_rtx1.conduct())},
          {"RTX module 2", Words(m_rtx2.conduct())},
          {"MCU", Words(m_mcu.conduct())},
          {"UAC", Words(m_uac.conduct())},
          {"FPGA", Words(m_fpga.conduct())}};
}

}  // namespace station
