/// The VirtualStation program: shows what the shipped daemon does on a virtual base station. Its exit status
/// is 0 only when the station did everything that the scenario demands.
#include <cstdlib>
#include <iomanip>
#include <iostream>
#include <string>

#include "VirtualStation/Box.h"
#include "VirtualStation/Scenarios.h"
#include "VirtualStation/Screen.h"

namespace {

constexpr unsigned kShortPauses = 10;
constexpr unsigned kRealTime = 1;
constexpr int kUsageError = 2;

void PrintHelp(std::ostream& out) {
  out << "Usage: VirtualStation SCENARIO [--real-time]\n\n"
         "Runs the upgrade daemon on a virtual base station (as root; nothing reaches the host).\n\n";
  for (const station::Scenario& scenario : station::Scenarios()) {
    out << "  " << std::left << std::setw(10) << scenario.name << scenario.about << '\n';
  }
  out << "\n  --real-time   keeps the daemon's long pauses, which are cut to a tenth otherwise\n";
}

int Run(const station::Scenario& scenario, unsigned pauseDivisor) {
  station::Screen screen;
  screen.Title(std::string("Virtual base station: ") + scenario.about);
  screen.Line(pauseDivisor == kRealTime ? "Pauses last as long as on the device."
                                        : "The daemon's pauses of a second and more last a tenth; "
                                          "--real-time keeps them.");
  const bool good = scenario.run(screen, pauseDivisor);
  screen.Title(good ? "All is well." : "Something is wrong: see above.");
  return good ? EXIT_SUCCESS : EXIT_FAILURE;
}

}  // namespace

int main(int argc, char* argv[]) {
  unsigned pauseDivisor = kShortPauses;
  const station::Scenario* chosen = nullptr;
  for (int i = 1; i < argc; ++i) {
    const std::string argument = argv[i];
    if (argument == "--help" || argument == "-h") {
      PrintHelp(std::cout);
      return EXIT_SUCCESS;
    }
    if (argument == "--real-time") {
      pauseDivisor = kRealTime;
      continue;
    }
    const station::Scenario* named = nullptr;
    for (const station::Scenario& scenario : station::Scenarios()) {
      named = argument == scenario.name ? &scenario : named;
    }
    if (named == nullptr || chosen != nullptr) {
      std::cerr << "VirtualStation: unexpected \"" << argument << "\"\n\n";
      PrintHelp(std::cerr);
      return kUsageError;
    }
    chosen = named;
  }
  if (chosen == nullptr) {
    PrintHelp(std::cerr);
    return kUsageError;
  }
  return station::RunInBox([&] { return Run(*chosen, pauseDivisor); });
}
