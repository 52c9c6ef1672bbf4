// Packages from the cloud: the whole way to an upgraded station, and everything that a bad network, a lying
// backend or a hostile one can do to it.
#include <unistd.h>

#include <algorithm>
#include <csignal>
#include <functional>
#include <ostream>
#include <thread>

#include "StationTest.h"
#include "VirtualStation/Box.h"

using namespace station;

namespace {

const std::string kBackend = std::string("https://") + Cloud::kHost;
constexpr const char* kDownloads = "/firmware/webs/download/";

std::string Secure(const char* host) {
  return std::string("https://") + host;
}

std::function<void(Cloud&)> Offering(const char* key, const Json::Value& value) {
  return [=](Cloud& cloud) { cloud.EditOffer([=](Json::Value& data) { data[key] = value; }); };
}

}  // namespace

class CloudSource : public StationTest {
 protected:
  // A running station whose backend offers it a small package.
  CloudSource() {
    Cloud::SetBackend(kBackend);
    m_cloud.Offer(m_package);
  }
  void SetUp() override { ASSERT_TRUE(m_station.Start()); }

  // The daemon's answer to a request of the panel.
  int Ask(CloudCommand command) {
    const auto reply = m_station.panel().Request(command);
    EXPECT_TRUE(reply.has_value());
    EXPECT_EQ(reply ? reply->fault : "", "");
    return reply ? reply->errorCode : -1;
  }

  // What the panel is told: the answer to a query, and the text that comes with a state of the download.
  Json::Value Answer() {
    const auto report = m_station.panel().WaitForCmd(kQueryCloud, kPatience);
    EXPECT_TRUE(report.has_value()) << Daemon::Log();
    return report ? report->property : Json::Value();
  }
  std::string TextOf(const char* state) {
    const auto report = m_station.panel().WaitFor(
        [=](const Report& message) {
          return message.cmd == kUpgradeByCloud && message.property["State"] == state;
        },
        kPatience);
    EXPECT_TRUE(report.has_value()) << "not " << state << "; log:\n" << Daemon::Log();
    return report ? report->property["ErrorMsg"].asString() : "";
  }

  // The cores that may take the interrupts 46, 66, 67, 70, 71, 79 and 80.
  static std::string Affinity() {
    std::string all;
    for (const int interrupt : {46, 66, 67, 70, 71, 79, 80}) {
      const std::string mask = ReadFile("/proc/irq/" + std::to_string(interrupt) + "/smp_affinity");
      all += mask.substr(0, mask.find('\n')) + " ";
    }
    return all;
  }
  // They are so now, or soon.
  static void ExpectAffinity(const std::string& expected) {
    const auto limit = std::chrono::steady_clock::now() + kPatience;
    while (Affinity() != expected && std::chrono::steady_clock::now() < limit) {
      std::this_thread::sleep_for(1ms);
    }
    EXPECT_EQ(Affinity(), expected);
  }
  static constexpr const char* kPinned = "8 1 4 8 8 8 8 ";
  static constexpr const char* kFree = "15 15 15 15 15 15 15 ";

  static StationOptions Options() {
    StationOptions options;
    options.pauseDivisor = 100;
    return options;
  }
  Station m_station{Options()};
  Cloud& m_cloud = m_station.cloud();
  Package m_package = PackageBuilder("S4.1.0.1").App("V2.0.0.01", 64 * 1024).Build();
};

TEST_F(CloudSource, QueryDownloadAndUpgradeAreToldToPanelAndWebServer) {
  Json::Value manifest;
  const Package package = PackageBuilder("S4.1.0.1")
                              .AllSocParts("V2.0.0.01")
                              .EditManifest([&](Json::Value& built) { manifest = built; })
                              .Build();
  m_cloud.Offer(package);
  ASSERT_EQ(Ask(kQueryCloud), Requests::kAccepted);
  const Json::Value offer = Answer();
  EXPECT_EQ(offer["softVersion"], "S4.1.0.1");
  EXPECT_EQ(offer["size"].asUInt64(), std::filesystem::file_size(package.path));
  EXPECT_EQ(offer["releaseNote"], "What is new in S4.1.0.1");
  EXPECT_EQ(offer["ErrorMsg"], "");
  EXPECT_EQ(m_station.web().WaitForCmd(kQueryCloud, kPatience)->property, offer);
  EXPECT_TRUE(m_cloud.Queries().at(0).secure);

  m_cloud.Limit(std::filesystem::file_size(package.path) / 3);  // the bar has the time to move
  const auto began = std::chrono::steady_clock::now();
  ASSERT_EQ(Ask(kUpgradeByCloud), Requests::kAccepted);
  EXPECT_EQ(TextOf("started"), "");
  ASSERT_TRUE(m_cloud.WaitForDownload(kPatience));
  EXPECT_EQ(Affinity(), kFree);
  EXPECT_EQ(TextOf("done"), "");
  const auto took = std::chrono::duration<double>(std::chrono::steady_clock::now() - began).count();
  EXPECT_EQ(Affinity(), kPinned);
  ExpectReboot(m_station);
  EXPECT_TRUE(m_station.web().WaitForCmd(kUpgradeByCloud, kPatience));
  const std::vector<int> statuses = {kDownloading, kStarted, kUpgrading, kFinished};
  EXPECT_EQ(Statuses(m_station.panel()), statuses);
  EXPECT_EQ(Statuses(m_station.web()), statuses);
  std::vector<int> percents;
  for (const auto& report : m_station.panel().Progress()) {
    EXPECT_EQ(report.fault, "");
    if (report.status == kDownloading) percents.push_back(report.percent);
  }
  EXPECT_TRUE(std::is_sorted(percents.begin(), percents.end()));
  EXPECT_GE(percents.size(), 3U) << "the bar did not move";
  EXPECT_LE(static_cast<double>(percents.size()), took + 3) << "more than one report a second";

  ASSERT_TRUE(m_station.Reboot());
  ASSERT_EQ(m_station.Running(), Partition::B);
  ExpectNoDifferences(m_station.DifferencesFrom(package, Partition::B));
  EXPECT_EQ(Station::Versions(Partition::B)["totalVersion"]["softVersion"], "S4.1.0.1");
  EXPECT_EQ(Station::Versions(Partition::B)["otaList"], manifest["otaList"]);

  // Now there is no newer one, and an upgrade that finds none asks first and says so.
  ASSERT_EQ(Ask(kQueryCloud), Requests::kAccepted);
  EXPECT_EQ(Answer()["softVersion"], "");
  EXPECT_EQ(Answer()["ErrorMsg"], "");
  ASSERT_EQ(Ask(kUpgradeByCloud), Requests::kAccepted);
  EXPECT_TRUE(m_station.panel().WaitForStatus(kNoTask, kPatience));
  ExpectLog("cloud.none: " + TextOf("failed"));
  EXPECT_EQ(m_cloud.Queries().size(), 3U);
  EXPECT_EQ(m_cloud.Downloads().size(), 1U);
}

TEST_F(CloudSource, TwentyBreaksAndRestartsNeverBeginAtZero) {
  constexpr std::uint64_t kPiece = 100'000;
  constexpr std::size_t kBreaks = 20;
  const Package package = PackageBuilder("S4.1.0.1").App("V2.0.0.01", kPiece * (kBreaks + 2)).Build();
  m_cloud.Offer(package);
  m_cloud.BreakAfter(kPiece, kBreaks);
  ASSERT_EQ(Ask(kUpgradeByCloud), Requests::kAccepted);
  std::size_t downloads = 0;
  for (const int signal : {SIGTERM, SIGKILL, SIGKILL}) {
    downloads += 5;
    ASSERT_TRUE(m_cloud.WaitForDownload(kPatience, downloads)) << Daemon::Log();
    ASSERT_TRUE(m_station.daemon().Stop(signal).has_value());
    ASSERT_TRUE(m_station.Start());
    EXPECT_EQ(m_cloud.Downloads().size(), downloads) << "it started by itself";
    EXPECT_NE(Affinity(), kFree);
    ASSERT_EQ(Ask(kUpgradeByCloud), Requests::kAccepted);
  }
  ExpectReboot(m_station);
  EXPECT_EQ(m_station.panel().Progress().back().status, kFinished);
  const std::vector<std::uint64_t> starts = m_cloud.Starts();
  EXPECT_GT(starts.size(), kBreaks);
  EXPECT_EQ(std::count(starts.begin(), starts.end(), 0U), 1);
  EXPECT_TRUE(std::is_sorted(starts.begin(), starts.end())) << ::testing::PrintToString(starts);
}

TEST_F(CloudSource, DownloadGoesOnAfterAPowerCut) {
  constexpr std::uint64_t kPiece = 1'000'000;
  m_cloud.Offer(PackageBuilder("S4.1.0.1").App("V2.0.0.01", 3 * kPiece).Build());
  m_cloud.BreakAfter(kPiece, 1);
  ASSERT_EQ(Ask(kUpgradeByCloud), Requests::kAccepted);
  ASSERT_TRUE(m_cloud.WaitForDownload(kPatience));
  m_cloud.HoldAfter(0);
  ASSERT_TRUE(m_cloud.WaitForDownload(kPatience, 2));
  sync();  // the kernel does so every few seconds
  ASSERT_TRUE(m_station.PowerCut());
  m_cloud.Behave();
  m_station.panel().Clear();
  ASSERT_EQ(Ask(kUpgradeByCloud), Requests::kAccepted);
  ExpectReboot(m_station);
  const auto progress = m_station.panel().Progress();
  EXPECT_EQ(progress.back().status, kFinished);
  // The bar begins at what is there.
  EXPECT_EQ(progress.front().status, kDownloading);
  EXPECT_GE(progress.front().percent, 30);
  ASSERT_EQ(m_cloud.Starts().size(), 3U);
  EXPECT_GE(m_cloud.Starts().back(), kPiece);
}

TEST_F(CloudSource, InterruptsArePinnedBetweenTwoTries) {
  m_cloud.RefuseDownload(429, "Retry-After: 3\r\n");
  m_cloud.HoldAfter(1000);
  ASSERT_EQ(Ask(kUpgradeByCloud), Requests::kAccepted);
  ASSERT_TRUE(m_cloud.WaitForDownload(kPatience));
  ExpectAffinity(kPinned);
  EXPECT_EQ(m_cloud.Downloads().size(), 1U);
  ASSERT_TRUE(m_cloud.WaitForHeld(kPatience));
  ExpectAffinity(kFree);
}

// The line goes while another file takes the package's place: both must not be glued together.
TEST_F(CloudSource, ChangedFileIsNoticedAndDownloadedFromItsBeginning) {
  constexpr std::uint64_t kPiece = 20'000;
  const std::string other = std::string(kStationDir) + "/other";
  WriteRandomFile(other, std::filesystem::file_size(m_package.path));
  m_cloud.ReplaceFile(other);
  m_cloud.HoldAfter(kPiece);
  ASSERT_EQ(Ask(kUpgradeByCloud), Requests::kAccepted);
  ASSERT_TRUE(m_cloud.WaitForHeld(kPatience));
  m_cloud.Leave();
  m_cloud.ReplaceFile(m_package.path);
  m_cloud.Behave();
  m_cloud.Return();
  EXPECT_EQ(TextOf("done"), "");
  EXPECT_EQ(m_cloud.Starts(), (std::vector<std::uint64_t>{0, kPiece}));
  ExpectLog("starts over: the file has changed on the server");
  ExpectReboot(m_station);
  EXPECT_EQ(m_station.panel().Progress().back().status, kFinished);
}

namespace {

struct DownloadRow {
  const char* name;
  std::function<void(Cloud&)> spoil;
  std::vector<std::uint64_t> starts;      ///< of the downloads that follow
  const char* failure;                    ///< a part of what the panel is told; null: the download is done
  const char* log;                        ///< null: nothing in particular
  const char* reason = "cloud.download";  ///< why the package ends, when the download fails
};

void PrintTo(const DownloadRow& row, std::ostream* out) {
  *out << row.name;
}

std::function<void(Cloud&)> Refusing(int status, const std::string& headers = "", std::size_t times = 1) {
  return [=](Cloud& cloud) { cloud.RefuseDownload(status, headers, times); };
}

std::function<void(Cloud&)> SizeOffBy(int difference) {
  return [=](Cloud& cloud) {
    cloud.EditOffer([=](Json::Value& data) { data["size"] = data["size"].asInt64() + difference; });
  };
}

void BreakWithoutRanges(Cloud& cloud) {
  cloud.IgnoreRanges();
  cloud.BreakAfter(1000, 1);
}

const DownloadRow kDownloadRows[] = {
    {"NoRanges", BreakWithoutRanges, {0, 1000}, nullptr, "starts over: the server cannot resume"},
    {"WrongMd5",
     Offering("md5", std::string(32, '0')),
     {0, 0},
     "announced was 0000",
     "starts over: the md5 is"},
    {"SizeTooSmall", SizeOffBy(-1), {0}, "announced were", nullptr},
    {"SizeTooLarge", SizeOffBy(1), {0}, "announced were", nullptr},
    {"NoSpace",
     Offering("size", Json::UInt64{1} << 44),
     {},
     "52776558133248 bytes are needed, ",
     nullptr,
     "space"},
    {"NotFound", Refusing(404, "", 100), {0}, "HTTP 404", nullptr},
    {"TooManyRequests", Refusing(429, "Retry-After: 3\r\n"), {0, 0}, nullptr, "HTTP 429; next try in 3.0 s"},
    {"ServerError", Refusing(500), {0, 0}, nullptr, "HTTP 500; next try in "},
    {"KeyInTheAddress",
     [](Cloud& cloud) {
       cloud.EditOffer([](Json::Value& data) { data["url"] = kBackend + "/newest?key=secret"; });
       cloud.RefuseDownload(500);
     },
     {0, 0},
     nullptr,
     "/newest\": HTTP 500; next try in "},
    {"RedirectToHttps", Refusing(302, "Location: " + kBackend + "/elsewhere\r\n"), {0, 0}, nullptr, nullptr},
    {"RedirectToHttp", Refusing(302, "Location: http://127.0.0.1/elsewhere\r\n"), {0}, "redirected", nullptr},
    {"UnknownAuthority",
     Offering("url", Secure(Cloud::kUnknownAuthorityHost)),
     {},
     "certificate is not trusted",
     nullptr},
    {"WrongHost",
     Offering("url", Secure(Cloud::kWrongHost)),
     {},
     "certificate belongs to another host",
     nullptr},
    {"Expired", Offering("url", Secure(Cloud::kExpiredHost)), {}, "certificate has expired", nullptr},
};

}  // namespace

class CloudDownload : public CloudSource, public ::testing::WithParamInterface<DownloadRow> {};

TEST_P(CloudDownload, EndsAsItShould) {
  const DownloadRow& row = GetParam();
  row.spoil(m_cloud);
  m_station.commands().Hold("7za *");  // what comes after is another test's
  ASSERT_EQ(Ask(kUpgradeByCloud), Requests::kAccepted);
  const std::string text = TextOf(row.failure == nullptr ? "done" : "failed");
  EXPECT_NE(text.find(row.failure == nullptr ? "" : row.failure), std::string::npos) << text;
  EXPECT_EQ(text.empty(), row.failure == nullptr);
  EXPECT_EQ(m_cloud.Starts(), row.starts);
  if (row.log != nullptr) ExpectLog(row.log);
  if (row.failure != nullptr) ExpectLog(row.reason + (": " + text));
  EXPECT_EQ(Daemon::Log().find("secret"), std::string::npos);
  EXPECT_NE(Affinity(), kFree);
  EXPECT_EQ(Exists(kDownloads + m_package.name), row.failure == nullptr);
}

INSTANTIATE_TEST_SUITE_P(With, CloudDownload, ::testing::ValuesIn(kDownloadRows),
                         [](const auto& row) { return row.param.name; });

// One station meets all these backends, one after the other: each is told by what it is, nothing is
// downloaded, and the next sound answer counts again.
TEST_F(CloudSource, BadBackendsAndAnswersAreRefusedWithTheirReason) {
  const auto name = [](const std::string& text) { return Offering("fileName", text); };
  const struct {
    std::string backend;
    std::function<void(Cloud&)> spoil;
    const char* reason;
  } rows[] = {
      {Secure(Cloud::kUnknownAuthorityHost), nullptr, "certificate is not trusted"},
      {Secure(Cloud::kWrongHost), nullptr, "certificate belongs to another host"},
      {Secure(Cloud::kExpiredHost), nullptr, "certificate has expired"},
      {std::string("http://") + Cloud::kHost, nullptr, "http is for loopback hosts only"},
      {"no address", nullptr, ""},
      {kBackend, [](Cloud& cloud) { cloud.AnswerQueries("", 500); }, "500"},
      {kBackend, [](Cloud& cloud) { cloud.AnswerQueries("<html>"); }, ""},
      {kBackend, [](Cloud& cloud) { cloud.AnswerQueries(std::string(60'000, '[')); }, ""},
      {kBackend, [](Cloud& cloud) { cloud.AnswerQueries(std::string(20 << 20, ' ')); }, ""},
      {kBackend, name("../x.zip"), "file name"},
      {kBackend, name("/firmware/x.zip"), "file name"},
      {kBackend, name("version.json"), "file name"},
      {kBackend, name(std::string(300, 'x') + ".zip"), "file name"},
      {kBackend, name("$(touch pwned).zip"), "file name"},
      {kBackend, Offering("url", std::string("http://") + Cloud::kHost + "/x"),
       "http is for loopback hosts only"},
      {kBackend, Offering("url", "file:///etc/passwd"), "only https is"},
      {kBackend, [](Cloud& cloud) { cloud.Leave(); }, "onnect"},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.backend + " " + row.reason);
    m_cloud.Behave();
    m_cloud.Offer(m_package);
    Cloud::SetBackend(row.backend);
    if (row.spoil) row.spoil(m_cloud);
    m_station.panel().Clear();
    ASSERT_EQ(Ask(kQueryCloud), Requests::kAccepted);
    const std::string text = Answer()["ErrorMsg"].asString();
    EXPECT_NE(text, "");
    EXPECT_NE(text.find(row.reason), std::string::npos) << text;
    EXPECT_EQ(Answer()["softVersion"], "");
  }
  EXPECT_TRUE(m_cloud.Downloads().empty());
  EXPECT_FALSE(Exists("/firmware/webs/x.zip") || Exists("/firmware/x.zip"));
  m_cloud.Return();
  m_station.panel().Clear();
  ASSERT_EQ(Ask(kQueryCloud), Requests::kAccepted);
  EXPECT_EQ(Answer()["softVersion"], "S4.1.0.1");
}

namespace {

struct StopRow {
  const char* name;
  std::function<void(Cloud&)> hold;
  CloudCommand command;
  std::function<bool(const Cloud&)> reached;
};

void PrintTo(const StopRow& row, std::ostream* out) {
  *out << row.name;
}

const StopRow kStopRows[] = {
    {"Transfer", [](Cloud& cloud) { cloud.HoldAfter(1000); }, kUpgradeByCloud,
     [](const Cloud& cloud) { return cloud.WaitForHeld(kPatience); }},
    {"SilentServer", [](Cloud& cloud) { cloud.HoldAnswers(); }, kQueryCloud,
     [](const Cloud& cloud) { return cloud.WaitForHeld(kPatience); }},
    {"NameLookUp", [](Cloud&) { Cloud::SetBackend(Secure(Cloud::kSilentHost)); }, kQueryCloud,
     [](const Cloud& cloud) { return cloud.WaitForLookUp(kPatience); }},
    {"RetryPause", [](Cloud& cloud) { cloud.RefuseDownload(429, "Retry-After: 60\r\n", 100); },
     kUpgradeByCloud, [](const Cloud& cloud) { return cloud.WaitForDownload(kPatience); }},
};

}  // namespace

class CloudStop : public CloudSource, public ::testing::WithParamInterface<StopRow> {};

TEST_P(CloudStop, EndsAtOnce) {
  const StopRow& row = GetParam();
  row.hold(m_cloud);
  ASSERT_EQ(Ask(row.command), Requests::kAccepted);
  ASSERT_TRUE(row.reached(m_cloud));
  const auto started = std::chrono::steady_clock::now();
  const auto status = m_station.daemon().Stop();
  EXPECT_LT(std::chrono::steady_clock::now() - started, 300ms * kSlowness);
  ASSERT_TRUE(status.has_value());
  EXPECT_EQ(*status, 0);
  EXPECT_NE(Affinity(), kFree);
}

INSTANTIATE_TEST_SUITE_P(In, CloudStop, ::testing::ValuesIn(kStopRows),
                         [](const auto& row) { return row.param.name; });

TEST_F(CloudSource, OnePackageAtATime) {
  // A download is under way: no stick, no upload, no second download.
  m_cloud.HoldAfter(1000);
  ASSERT_EQ(Ask(kUpgradeByCloud), Requests::kAccepted);
  ASSERT_TRUE(m_cloud.WaitForHeld(kPatience));
  EXPECT_EQ(Ask(kUpgradeByCloud), Requests::kBusy);
  WebServer::Store(m_package.path);
  EXPECT_EQ(m_station.web().RequestUpgrade(m_package.name)->errorCode, Requests::kBusy);
  m_station.InsertStick(m_package);
  ExpectLog("beingTask is have current upgrade  unpack failed.");
  m_station.PullStick();
  ASSERT_EQ(m_station.daemon().Stop(), 0);

  // A stick's package is under way.
  ASSERT_TRUE(m_station.Start());
  EXPECT_TRUE(Exists(kDownloads + m_package.name + ".part"));
  m_station.commands().Hold("7za x *");
  m_station.InsertStick(m_package);
  ASSERT_TRUE(m_station.commands().WaitForStart("7za x *", kPatience));
  EXPECT_EQ(Ask(kUpgradeByCloud), Requests::kBusy);
  m_station.commands().Release("7za x *");
  ExpectReboot(m_station);
  EXPECT_EQ(m_station.panel().Progress().back().status, kFinished);
  for (const char* suffix : {".part", ".meta.part"}) {
    EXPECT_FALSE(Exists(kDownloads + m_package.name + suffix)) << "of a version that is behind";
  }
}

TEST_F(CloudSource, LowBatteryRefusesBeforeTheDownload) {
  constexpr int kLowBatteryMessage = 101;
  const auto setBattery = [&](int level) {
    Json::Value data;
    data["Battery"] = level;
    ASSERT_TRUE(m_station.controller().Report(Controller::kBattery, data).has_value());
    // Reports are handled in order: what is logged of the next one tells that this one has its effect.
    const int unknown = 1000 + level;
    ASSERT_TRUE(m_station.controller().Report(unknown, data).has_value());
    ExpectLog("Unsupport cmd! ErrVal:" + std::to_string(unknown));
  };
  setBattery(5);
  EXPECT_EQ(Ask(kUpgradeByCloud), Requests::kRefused);
  EXPECT_TRUE(m_station.panel().WaitForCmd(kLowBatteryMessage, kPatience));
  ExpectLog("battery.low: 5 %");
  EXPECT_TRUE(m_cloud.Queries().empty());

  // It runs low in the middle of the download.
  setBattery(6);
  m_cloud.HoldAfter(1000);
  EXPECT_EQ(Ask(kUpgradeByCloud), Requests::kAccepted);
  ASSERT_TRUE(m_cloud.WaitForHeld(kPatience));
  setBattery(5);
  m_cloud.Behave();
  EXPECT_EQ(TextOf("failed"), "battery too low");
  ExpectLog("battery.drained: ");
  EXPECT_TRUE(m_station.web().WaitForStatus(kFailed, kPatience));
}

TEST_F(CloudSource, RequestsAreAnsweredByWhatTheyAre) {
  for (const std::string& text :
       {std::string("no json"), std::string("[]"), std::string(2000, '['),
        MakeRequest(1, 100, Json::nullValue), MakeRequest(1, 503, Json::nullValue)}) {
    const auto reply = m_station.panel().Request(text);
    ASSERT_TRUE(reply.has_value()) << text;
    EXPECT_EQ(reply->errorCode, Requests::kMalformed) << text;
  }
  m_station.panel().Clear();
  EXPECT_EQ(Ask(kAskVersions), Requests::kAccepted);
  EXPECT_TRUE(m_station.panel().WaitForCmd(200, kPatience));
  std::filesystem::remove("/qv_data/config/upgradeOtaPath.json");
  EXPECT_EQ(Ask(kQueryCloud), Requests::kRefused) << "it knows no backend";
  EXPECT_EQ(Ask(kUpgradeByCloud), Requests::kRefused);
  EXPECT_TRUE(m_cloud.Queries().empty());
}
