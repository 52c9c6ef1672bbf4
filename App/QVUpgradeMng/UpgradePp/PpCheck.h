/// Finds out what a portable part is and what it is owed: asks for its versions in the protocol that it
/// speaks, and compares them with the firmware that is held for it. UpgradePp owns the one object and runs it
/// on its state thread; the results are the next state.
#pragma once

#include <optional>
#include <string>

#include "BSW/MultiTask/CFlags.h"
#include "UpgradePp/PpLink.h"
#include "UpgradePp/PpTypes.h"

/// State thread, no lock held. Every wait ends at once when the flags are ending.
class PpCheck {
 public:
  using UpgradeStateType = UpgPp::UpgradeStateType;

  /// The arguments outlive this.
  PpCheck(CFlags& flags, PpLink& link) : m_flags(flags), m_link(link) {}

  /// Opens the port of the part behind `device` in the protocol that it speaks: the one in which it answers,
  /// the newer one for what may be a 7204.
  UpgradeStateType Identify(const std::string& device);
  /// What the part reports of itself, asked again where it has not yet; nothing from one that stays silent.
  std::optional<PpInfo_t> ReadVersion();
  /// What a part is owed that reported `info`; `firmware` is that of its type.
  UpgradeStateType Decide(const PpInfo_t& info, const UpgPp::PpFw_t& firmware);

 private:
  UpgradeStateType _Check7308(const PpInfo_t& info, const UpgPp::PpFw_t& firmware);
  UpgradeStateType _Check7204(const PpInfo_t& info, const UpgPp::PpFw_t& firmware);
  void _ShowVersions(const PpInfo_t& info, const UpgPp::PpFw_t& firmware) const;

  CFlags& m_flags;
  PpLink& m_link;
};
