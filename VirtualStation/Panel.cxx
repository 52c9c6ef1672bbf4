/// The panel's side of the bus: its listener, and its requests to the cloud's source.
#include "VirtualStation/Panel.h"

namespace station {

Panel::Panel(const Bus& bus)
    : Requests(bus, "org.Upgrade_OTA_Request_Method.interface", "upgrade_ota_dbus_signal_notify"),
      m_listener(bus.Address(), "org.Upgrade_Ui_Signal.interface", "upgrade_ui_dbus_signal_precent",
                 [this](const std::string& text) { Add(text); }) {}

}  // namespace station
