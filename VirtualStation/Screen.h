/// What the VirtualStation program prints: headings, tables, the panel's progress bar and checks. Colour and
/// a moving bar on a terminal only; in a log every state is a line of its own.
#pragma once

#include <string>
#include <vector>

#include "VirtualStation/Reports.h"
#include "common/Mutex.h"
#include "common/ThreadAnnotations.h"

namespace station {

/// Any thread may call any member.
class Screen {
 public:
  Screen();

  void Title(const std::string& text);
  void Step(const std::string& text);
  void Line(const std::string& text);
  /// Columns of equal width, the first row as a heading.
  void Table(const std::vector<std::vector<std::string>>& rows);
  /// The front panel's bar for a progress report of the base station; other messages are not shown.
  void Progress(const Report& report);
  /// Prints how a check ended, with details when it failed; gives `good`.
  bool Check(bool good, const std::string& what, const std::vector<std::string>& details = {});
  bool AllGood() const;

 private:
  void _EndBar() REQUIRES(m_mutex);
  std::string _Colour(const char* code, const std::string& text) const;

  mutable CMutex m_mutex;
  const bool m_terminal;
  bool m_barOpen GUARDED_BY(m_mutex) = false;  ///< the cursor stands behind a bar
  std::string m_lastBar GUARDED_BY(m_mutex);
  int m_steps GUARDED_BY(m_mutex) = 0;
  bool m_allGood GUARDED_BY(m_mutex) = true;
};

}  // namespace station
