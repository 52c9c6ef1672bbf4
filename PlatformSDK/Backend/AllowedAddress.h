/// Which addresses the program talks to: the one home of the rule that nothing unencrypted leaves the device,
/// and of the rule what may be told of an address.
#pragma once

#include <string>

namespace Quorvalen {

/// True for an https address, and for an http address whose host is a loopback one (127.0.0.0/8, ::1,
/// "localhost"). Otherwise false, with the address and what is wrong with it in `error`: also for one that
/// names a user, is no address at all, or is longer than 4096 bytes.
bool IsAllowedAddress(const std::string& url, std::string& error);

/// The address as logs and messages may tell it: without user, password, query and fragment, in which a
/// signed address carries its key. Any text will do.
std::string AddressForLog(const std::string& url);

}  // namespace Quorvalen
