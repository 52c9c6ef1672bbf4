/// The states of a portable part's upgrade, and their names in the log. The numbers are shown in the log and
/// stay; a new state goes before EM_STATE_MAX and gets a name and a handler in UpgradePp.
#pragma once

namespace UpgPp {

enum UpgradeStateType {
  EM_STATE_IDLE = 0,
  EM_STATE_INIT = 1,  ///< never entered
  EM_STATE_IDENTIFY = 2,
  EM_STATE_CHECK_VER = 3,
  EM_STATE_UPG_PP = 4,
  EM_STATE_REQ_PAIR = 5,
  EM_STATE_INTERRUPT = 6,
  EM_STATE_UPG_SUCCESS = 7,
  EM_STATE_FAILED = 8,
  EM_STATE_MAX = 9,
};

}  // namespace UpgPp
