/// See Panel.h.
#include "VirtualStation/Panel.h"

namespace station {

Panel::Panel(const Bus& bus)
    : m_listener(bus.Address(), "org.Upgrade_Ui_Signal.interface", "upgrade_ui_dbus_signal_precent",
                 [this](const std::string& text) { Add(text); }) {}

}  // namespace station
