/// Parses what a peer heard, keeps it in order and wakes who waits for it.
#include "VirtualStation/Reports.h"

#include <algorithm>
#include <utility>

namespace station {
namespace {

constexpr int kBaseStation = 1;

bool IsBaseStationProgress(const Report& report) {
  return report.IsProgress() && report.type == kBaseStation;
}

}  // namespace

void Reports::Add(const std::string& text) {
  Report report{ParseEnvelope(text)};
  const auto figure = [&](const char* key) {
    return report.property.isObject() && report.property[key].isInt() ? report.property[key].asInt() : 0;
  };
  if (report.IsProgress()) {
    report.type = figure("UpgradeType");
    report.status = figure("UpgradeStatus");
    report.percent = figure("UpgradePrecent");
  }
  std::function<void(const Report&)> show;
  {
    const CLock lock(m_mutex);
    show = m_show;
  }
  if (show) {
    show(report);
  }
  const CLock lock(m_mutex);
  m_reports.push_back(report);
  m_added.NotifyAll();
}

std::vector<Report> Reports::All() const {
  const CLock lock(m_mutex);
  return m_reports;
}

std::vector<Report> Reports::Progress() const {
  std::vector<Report> reports = All();
  reports.erase(std::remove_if(reports.begin(), reports.end(),
                               [](const Report& report) { return !IsBaseStationProgress(report); }),
                reports.end());
  return reports;
}

void Reports::Clear() {
  const CLock lock(m_mutex);
  m_reports.clear();
}

std::optional<Report> Reports::WaitFor(const Test& test, Milliseconds timeout, std::size_t nth) const {
  const CLock lock(m_mutex);
  std::optional<Report> found;
  m_added.WaitFor(m_mutex, timeout, [&]() REQUIRES(m_mutex) {
    std::size_t remaining = nth;
    const auto at = std::find_if(m_reports.begin(), m_reports.end(),
                                 [&](const Report& report) { return test(report) && --remaining == 0; });
    if (at != m_reports.end()) found = *at;
    return found.has_value();
  });
  return found;
}

std::optional<Report> Reports::WaitForStatus(int status, Milliseconds timeout) const {
  return WaitFor(
      [=](const Report& report) { return IsBaseStationProgress(report) && report.status == status; },
      timeout);
}

std::optional<Report> Reports::WaitForCmd(int cmd, Milliseconds timeout, std::size_t nth) const {
  return WaitFor([=](const Report& report) { return report.cmd == cmd; }, timeout, nth);
}

void Reports::OnReport(std::function<void(const Report&)> show) {
  const CLock lock(m_mutex);
  m_show = std::move(show);
}

}  // namespace station
