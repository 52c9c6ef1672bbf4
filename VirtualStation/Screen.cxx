/// Prints to standard output, one line at a time under a lock.
#include "VirtualStation/Screen.h"

#include <unistd.h>

#include <algorithm>
#include <iomanip>
#include <iostream>
#include <sstream>

#include "VirtualStation/Panel.h"

namespace station {
namespace {

constexpr const char* kBold = "1";
constexpr const char* kRed = "1;31";
constexpr const char* kGreen = "1;32";
constexpr const char* kCyan = "36";

const char* StatusName(int status) {
  switch (status) {
    case kFailed:
      return "failed";
    case kFinished:
      return "finished";
    case kStarted:
      return "started";
    case kUpgrading:
      return "upgrading";
    case kSameVersion:
      return "same version";
    case kNoTask:
      return "nothing to do";
    case kDownloading:
      return "downloading";
    default:
      return "unknown";
  }
}

}  // namespace

Screen::Screen() : m_terminal(isatty(STDOUT_FILENO) != 0) {}

void Screen::Title(const std::string& text) {
  const CLock lock(m_mutex);
  _EndBar();
  std::cout << '\n' << _Colour(kBold, text) << '\n' << std::string(text.size(), '=') << std::endl;
}

void Screen::Step(const std::string& text) {
  const CLock lock(m_mutex);
  _EndBar();
  std::cout << "\n " << _Colour(kBold, std::to_string(++m_steps) + "  " + text) << std::endl;
}

void Screen::Line(const std::string& text) {
  const CLock lock(m_mutex);
  _EndBar();
  std::cout << "      " << text << std::endl;
}

void Screen::Table(const std::vector<std::vector<std::string>>& rows) {
  constexpr int kWidth = 16;
  for (const auto& row : rows) {
    std::ostringstream line;
    for (const std::string& cell : row) {
      line << std::left << std::setw(kWidth) << cell;
    }
    const std::string text = line.str().substr(0, line.str().find_last_not_of(' ') + 1);
    Line(&row == &rows.front() ? _Colour(kCyan, text) : text);
  }
}

void Screen::Progress(const Report& report) {
  constexpr int kBaseStation = 1;
  constexpr int kCells = 40;
  constexpr int kLongestName = 13;  // a shorter one must cover it
  if (!report.IsProgress() || report.type != kBaseStation) {
    return;
  }
  const auto filled = static_cast<std::size_t>(std::clamp(report.percent, 0, 100) * kCells / 100);
  std::ostringstream bar;
  bar << '[' << std::string(filled, '#') << std::string(kCells - filled, '.') << "] " << std::setw(3)
      << report.percent << " %  " << std::left << std::setw(m_terminal ? kLongestName : 0)
      << StatusName(report.status);

  const CLock lock(m_mutex);
  if (bar.str() == m_lastBar) {
    return;
  }
  m_lastBar = bar.str();
  std::cout << (m_terminal ? "\r" : "") << "      " << m_lastBar << (m_terminal ? "" : "\n") << std::flush;
  m_barOpen = m_terminal;
}

bool Screen::Check(bool good, const std::string& what, const std::vector<std::string>& details) {
  Line((good ? _Colour(kGreen, "ok    ") : _Colour(kRed, "WRONG ")) + what);
  if (!good) {
    for (const std::string& detail : details) {
      Line("        " + detail);
    }
  }
  const CLock lock(m_mutex);
  m_allGood = m_allGood && good;
  return good;
}

bool Screen::AllGood() const {
  const CLock lock(m_mutex);
  return m_allGood;
}

void Screen::_EndBar() {
  if (m_barOpen) {
    std::cout << '\n';
  }
  m_barOpen = false;
  m_lastBar.clear();
}

std::string Screen::_Colour(const char* code, const std::string& text) const {
  return m_terminal ? "\033[" + std::string(code) + "m" + text + "\033[0m" : text;
}

}  // namespace station
