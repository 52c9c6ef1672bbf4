// What the thread sanitizer must not report in the unit tests: libdbus is not instrumented.
extern "C" const char* __tsan_default_suppressions();

// - libdbus takes its table of shared connections and a connection's own lock in both orders: the one when a
//   connection is made, the other when it has closed. Both happen inside of its functions, with no lock of
//   ours.
// - It counts a message's references with atomics that the sanitizer does not see, so that the last owner's
// freeing
//   of the body seems to race with the thread that wrote the message to the bus.
extern "C" const char* __tsan_default_suppressions() {
  return "deadlock:libdbus-1.so\nrace:_dbus_string_free\n";
}
