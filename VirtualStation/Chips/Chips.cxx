/// The wiring of the chips, and the one list through which all of them are treated alike.
#include "VirtualStation/Chips/Chips.h"

#include <algorithm>

#include "UpgradePackage/Parts.h"
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

template <typename Chip>
std::function<void()> RestartOnLine(Chip& chip) {
  return [&chip] {
    chip.line().Unplug();
    chip.PowerCycle();
    chip.conduct().Clear();
    chip.line().Plug();
  };
}

std::function<Bytes(const FlashBlock&)> FlashOf(const RtxModule& module) {
  return [&module](const FlashBlock& wanted) {
    return module.core().Memory(wanted.address, wanted.data.size());
  };
}

}  // namespace

Chips::Chips()
    : m_rtx1(kModule1),
      m_rtx2(kModule2),
      m_all{
          {"RTX module 1", UP_RTX, &m_rtx1.conduct(), &m_rtx1.line(), RestartOnLine(m_rtx1), FlashOf(m_rtx1)},
          {"RTX module 2", UP_RTX, &m_rtx2.conduct(), &m_rtx2.line(), RestartOnLine(m_rtx2), FlashOf(m_rtx2)},
          {"MCU", UP_MCU, &m_mcu.conduct(), &m_mcu.line(), RestartOnLine(m_mcu),
           [this](const FlashBlock& wanted) { return m_mcu.Memory(wanted.data.size()); }},
          {"UAC", UP_UAC, &m_uac.conduct(), &m_uac.line(), RestartOnLine(m_uac),
           [this](const FlashBlock&) { return m_uac.Memory(); }},
          {"FPGA", UP_FPGA, &m_fpga.conduct(), nullptr,
           [this] {
             m_fpga.PowerCycle();
             m_fpga.conduct().Clear();
           },
           [this](const FlashBlock&) { return m_fpga.Memory(); }}},
      m_pins([this](const PinChange& change) {
        m_rtx1.OnPin(change);
        m_rtx2.OnPin(change);
      }) {}

void Chips::SetPaced(bool paced) {
  for (const Item& chip : m_all) {
    if (chip.line != nullptr) {
      chip.line->SetPaced(paced);
    }
  }
}

void Chips::PowerCycle() {
  m_pins.PowerCycle();
  for (const Item& chip : m_all) {
    chip.restart();
  }
}

std::vector<std::string> Chips::DifferencesFrom(const Package& package) const {
  std::vector<std::string> differences;
  for (const auto& [page, image] : package.images) {
    const UPGRADETYPE part = Parts::Find(page)->type;
    bool compared = false;
    for (const Item& chip : m_all) {
      if (chip.part != part) {
        continue;
      }
      compared = true;
      for (const FlashBlock& block : part == UP_RTX ? ErasedAround(image) : image) {
        Compare(differences, chip.name, block.address, block.data, chip.memory(block));
      }
    }
    if (!compared) {
      differences.push_back(page + ": no chip is for it");
    }
  }
  return differences;
}

std::vector<Chips::Story> Chips::Stories() const {
  std::vector<Story> stories;
  stories.reserve(m_all.size());
  for (const Item& chip : m_all) {
    stories.push_back({chip.name, Words(*chip.conduct)});
  }
  return stories;
}

}  // namespace station
