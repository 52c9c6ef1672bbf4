/// Answers the requests as told. One thread takes the connections, and each connection has a thread of its
/// own that blocks in its socket or in a fault; a socket that is shut down and m_leaving end it.
#include "VirtualStation/Cloud/Cloud.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <memory>
#include <sstream>
#include <utility>

#include "VirtualStation/Process.h"

namespace station {
namespace {

namespace fs = std::filesystem;

constexpr const char* kPackagePath = "/packages/newest";
constexpr const char* kLoopback = "127.0.0.1";
constexpr const char* kNameServer = "127.0.0.53";
constexpr std::uint16_t kHttpPort = 80, kHttpsPort = 443, kDnsPort = 53;
constexpr int kOk = 200, kPartialContent = 206, kNotFound = 404, kRangeNotSatisfiable = 416;

int Bind(int type, const char* address, std::uint16_t port) {
  const int fd = socket(AF_INET, type | SOCK_CLOEXEC, 0);
  const int on = 1;
  setsockopt(fd, SOL_SOCKET, SO_REUSEADDR, &on, sizeof on);
  sockaddr_in name{};
  name.sin_family = AF_INET;
  name.sin_port = htons(port);
  inet_pton(AF_INET, address, &name.sin_addr);
  if (fd < 0 || bind(fd, reinterpret_cast<const sockaddr*>(&name), sizeof name) != 0 ||
      (type == SOCK_STREAM && listen(fd, SOMAXCONN) != 0)) {
    Halt("the cloud backend cannot listen on port " + std::to_string(port), errno);
  }
  return fd;
}

/// The host's own files may be links to where the box has nothing.
void ReplaceText(const std::string& path, const std::string& text) {
  std::error_code ignored;  // the write tells
  fs::remove(path, ignored);
  WriteText(path, text);
}

/// The host names of the backend, and a name server for all others.
void WriteNames() {
  std::string hosts = std::string(kLoopback) + " localhost";
  for (const char* host :
       {Cloud::kHost, Cloud::kWrongHost, Cloud::kUnknownAuthorityHost, Cloud::kExpiredHost}) {
    hosts += std::string(" ") + host;
  }
  ReplaceText("/etc/hosts", hosts + "\n");
  ReplaceText("/etc/resolv.conf", std::string("nameserver ") + kNameServer + "\n");
  ReplaceText("/etc/nsswitch.conf", "hosts: files dns\n");
}

/// The first byte that "bytes=N-" names; nothing when it is no such range.
std::optional<std::uint64_t> RangeStart(const HttpRequest& request) {
  const std::string unit = "bytes=";
  const std::string range = request.Header("range");
  if (range.rfind(unit, 0) != 0 || range.back() != '-') return std::nullopt;
  return std::strtoull(range.c_str() + unit.size(), nullptr, 10);
}

std::string Head(int status, std::uint64_t length, const std::string& headers) {
  return "HTTP/1.1 " + std::to_string(status) + " Answer\r\nContent-Length: " + std::to_string(length) +
         "\r\n" + headers + "\r\n";
}

}  // namespace

Cloud::Cloud() : m_nameServer(Bind(SOCK_DGRAM, kNameServer, kDnsPort)) {
  WriteNames();
  Return();
}

Cloud::~Cloud() {
  Leave();
  close(m_nameServer);
}

void Cloud::SetBackend(const std::string& url) {
  Json::Value setting;
  setting["host"] = url;
  setting["web_or_oled_set_flag"] = 1;
  WriteText("/qv_data/config/upgradeOtaPath.json", setting.toStyledString());
}

void Cloud::Return() {
  if (m_accept.joinable()) return;
  m_plain = Bind(SOCK_STREAM, kLoopback, kHttpPort);
  m_secure = Bind(SOCK_STREAM, kLoopback, kHttpsPort);
  m_accept = std::thread(&Cloud::_Accept, this);
}

void Cloud::Leave() {
  if (!m_accept.joinable()) return;
  m_leave.Ring();
  m_accept.join();
  m_leave.Quiet();
  close(m_plain);
  close(m_secure);
  std::list<Client> clients;
  {
    const CLock lock(m_mutex);
    m_leaving = true;
    m_changed.NotifyAll();
    for (const Client& client : m_clients) {
      shutdown(client.socket, SHUT_RDWR);
    }
    clients.swap(m_clients);
  }
  for (Client& client : clients) {
    client.thread.join();
    close(client.socket);
  }
  const CLock lock(m_mutex);
  m_leaving = false;
}

void Cloud::_Accept() {
  pollfd fds[] = {{m_plain, POLLIN, 0}, {m_secure, POLLIN, 0}, m_leave.Watch()};
  while (poll(fds, 3, -1) >= 0 && fds[2].revents == 0) {
    for (const bool secure : {false, true}) {
      const int socket = fds[secure ? 1 : 0].revents == 0
                             ? -1
                             : accept4(secure ? m_secure : m_plain, nullptr, nullptr, SOCK_CLOEXEC);
      if (socket >= 0) {
        const CLock lock(m_mutex);
        m_clients.push_back({socket, std::thread(&Cloud::_Serve, this, socket, secure)});
      }
    }
  }
}

void Cloud::_Serve(int socket, bool secure) {
  sigset_t signals;  // a session that writes to a client that is gone raises it
  sigemptyset(&signals);
  sigaddset(&signals, SIGPIPE);
  pthread_sigmask(SIG_BLOCK, &signals, nullptr);
  HttpConnection connection(socket, secure ? &m_tls : nullptr);
  while (const std::optional<HttpRequest> request = connection.Read()) {
    if (!_Answer(connection, *request)) break;
  }
  // The client sees the end now; the descriptor is closed by who joins this thread, so that nobody else's
  // gets its number before.
  shutdown(socket, SHUT_RDWR);
}

bool Cloud::_Answer(HttpConnection& connection, const HttpRequest& request) {
  const bool query = request.method == "POST" && request.path == "/ota/v1/query";
  std::string text;
  Delivery delivery;
  {
    const CLock lock(m_mutex);
    (query ? m_queries : m_downloads).push_back(request);
    m_changed.NotifyAll();
    if (m_faults.silent && !_WaitForRelease()) return false;
    if (query) {
      text = m_faults.answer ? *m_faults.answer : _QueryAnswer(request);
      text.insert(0, Head(m_faults.answerStatus, text.size(), "Content-Type: application/json\r\n"));
    } else {
      delivery = _Plan(request);
    }
  }
  return query ? connection.Write(text) : _Deliver(connection, delivery);
}

std::string Cloud::_QueryAnswer(const HttpRequest& request) const {
  Json::Value asked;
  std::istringstream body(request.body);
  std::string errors;
  const bool understood = Json::parseFromStream(Json::CharReaderBuilder(), body, &asked, &errors) &&
                          asked.isObject() && asked["productCode"] == "K9031" &&
                          asked["deviceId"] == "RRU01" && asked["hardVersion"].isString() &&
                          asked["softVersion"].isString();
  Json::Value answer;
  answer["code"] = understood ? 0 : 1;
  answer["message"] = understood ? "" : "no query of a known device";
  answer["data"] = Json::nullValue;
  if (understood && m_offer.isObject() && m_offer["softVersion"] != asked["softVersion"]) {
    answer["data"] = m_offer;
    if (!m_offer.isMember("url")) {
      answer["data"]["url"] =
          (request.secure ? "https://" : "http://") + request.Header("host") + kPackagePath;
    }
  }
  return answer.toStyledString();
}

Cloud::Delivery Cloud::_Plan(const HttpRequest& request) {
  Delivery delivery;
  if (m_faults.refusals > 0) {
    --m_faults.refusals;
    delivery.head = Head(m_faults.refusal, 0, m_faults.refusalHeaders);
    return delivery;
  }
  if (m_file.empty()) {
    delivery.head = Head(kNotFound, 0, "");
    return delivery;
  }
  const std::uint64_t size = fs::file_size(m_file);
  const std::string tag = "\"" + std::to_string(m_edition) + "\"";
  const std::string condition = request.Header("if-range");
  const std::optional<std::uint64_t> start = RangeStart(request);
  const bool partial = start && !m_faults.noRanges && (condition.empty() || condition == tag);
  if (partial && *start >= size) {
    delivery.head = Head(kRangeNotSatisfiable, 0, "Content-Range: bytes */" + std::to_string(size) + "\r\n");
    return delivery;
  }
  delivery.file = m_file;
  delivery.from = partial ? *start : 0;
  delivery.bytes = size - delivery.from;
  std::string headers = "ETag: " + tag + "\r\n";
  if (!m_faults.noRanges) headers += "Accept-Ranges: bytes\r\n";
  if (partial) {
    headers += "Content-Range: bytes " + std::to_string(delivery.from) + "-" + std::to_string(size - 1) +
               "/" + std::to_string(size) + "\r\n";
  }
  delivery.head = Head(partial ? kPartialContent : kOk, delivery.bytes, headers);
  if (m_faults.breaks > 0) {
    --m_faults.breaks;
    delivery.breakAfter = m_faults.breakAfter;
  }
  delivery.holdAfter = m_faults.holdAfter;
  delivery.bytesPerSecond = m_faults.bytesPerSecond;
  return delivery;
}

/// False when the connection is to end.
bool Cloud::_Deliver(HttpConnection& connection, const Delivery& delivery) {
  constexpr std::uint64_t kBlock = 64 * 1024;
  constexpr std::uint64_t kPiecesPerSecond = 20;
  if (!connection.Write(delivery.head)) return false;
  std::ifstream file(delivery.file, std::ios::binary);
  file.seekg(static_cast<std::streamoff>(delivery.from));
  const std::uint64_t block =
      delivery.bytesPerSecond == 0
          ? kBlock
          : std::clamp<std::uint64_t>(delivery.bytesPerSecond / kPiecesPerSecond, 1, kBlock);
  for (std::uint64_t sent = 0; sent < delivery.bytes;) {
    if (delivery.breakAfter == sent) return false;
    std::uint64_t count = std::min(block, delivery.bytes - sent);
    for (const auto& stop : {delivery.breakAfter, delivery.holdAfter}) {
      if (stop && *stop > sent) count = std::min(count, *stop - sent);
    }
    CLock lock(m_mutex);
    if (delivery.holdAfter == sent && !_WaitForRelease()) return false;
    if (delivery.bytesPerSecond > 0) {
      m_changed.WaitFor(m_mutex, std::chrono::microseconds(count * 1000000 / delivery.bytesPerSecond),
                        [this]() REQUIRES(m_mutex) { return m_leaving; });
    }
    lock.Unlock();
    std::string data(count, '\0');
    if (!file.read(data.data(), static_cast<std::streamsize>(count)) || !connection.Write(data)) {
      return false;
    }
    sent += count;
  }
  return true;
}

/// False when the backend leaves.
bool Cloud::_WaitForRelease() {
  ++m_held;
  m_changed.NotifyAll();
  m_changed.Wait(
      m_mutex, [this, before = m_releases]() REQUIRES(m_mutex) { return m_releases != before || m_leaving; });
  --m_held;
  return !m_leaving;
}

void Cloud::Offer(const Package& package) {
  ReplaceFile(package.path);
  const CLock lock(m_mutex);
  m_offer = Json::objectValue;
  m_offer["softVersion"] = package.softVersion;
  m_offer["fileName"] = package.name;
  m_offer["size"] = static_cast<Json::UInt64>(fs::file_size(package.path));
  m_offer["md5"] = Md5(package.path);
  m_offer["releaseNote"] = "What is new in " + package.softVersion;
}

void Cloud::EditOffer(const std::function<void(Json::Value& data)>& edit) {
  const CLock lock(m_mutex);
  edit(m_offer);
}

void Cloud::ReplaceFile(const std::string& path) {
  const CLock lock(m_mutex);
  m_file = path;
  ++m_edition;
}

std::vector<HttpRequest> Cloud::Queries() const {
  const CLock lock(m_mutex);
  return m_queries;
}

std::vector<HttpRequest> Cloud::Downloads() const {
  const CLock lock(m_mutex);
  return m_downloads;
}

std::vector<std::uint64_t> Cloud::Starts() const {
  std::vector<std::uint64_t> starts;
  for (const HttpRequest& request : Downloads()) {
    starts.push_back(RangeStart(request).value_or(0));
  }
  return starts;
}

bool Cloud::WaitForQuery(Milliseconds timeout, std::size_t nth) const {
  return _WaitFor(&Cloud::m_queries, timeout, nth);
}

bool Cloud::WaitForDownload(Milliseconds timeout, std::size_t nth) const {
  return _WaitFor(&Cloud::m_downloads, timeout, nth);
}

bool Cloud::WaitForLookUp(Milliseconds timeout) const {
  pollfd question = {m_nameServer, POLLIN, 0};
  return poll(&question, 1, static_cast<int>(timeout.count())) == 1;
}

bool Cloud::_WaitFor(std::vector<HttpRequest> Cloud::*requests, Milliseconds timeout, std::size_t nth) const {
  const CLock lock(m_mutex);
  return m_changed.WaitFor(m_mutex, timeout, [&] { return (this->*requests).size() >= nth; });
}

bool Cloud::WaitForHeld(Milliseconds timeout) const {
  const CLock lock(m_mutex);
  return m_changed.WaitFor(m_mutex, timeout, [this]() REQUIRES(m_mutex) { return m_held > 0; });
}

void Cloud::BreakAfter(std::uint64_t bytes, std::size_t times) {
  const CLock lock(m_mutex);
  m_faults.breakAfter = bytes;
  m_faults.breaks = times;
}

void Cloud::HoldAfter(std::uint64_t bytes) {
  const CLock lock(m_mutex);
  m_faults.holdAfter = bytes;
}

void Cloud::HoldAnswers() {
  const CLock lock(m_mutex);
  m_faults.silent = true;
}

void Cloud::Release() {
  const CLock lock(m_mutex);
  m_faults.holdAfter.reset();
  m_faults.silent = false;
  ++m_releases;
  m_changed.NotifyAll();
}

void Cloud::Limit(std::uint64_t bytesPerSecond) {
  const CLock lock(m_mutex);
  m_faults.bytesPerSecond = bytesPerSecond;
}

void Cloud::RefuseDownload(int status, const std::string& headers, std::size_t times) {
  const CLock lock(m_mutex);
  m_faults.refusal = status;
  m_faults.refusalHeaders = headers;
  m_faults.refusals = times;
}

void Cloud::IgnoreRanges() {
  const CLock lock(m_mutex);
  m_faults.noRanges = true;
}

void Cloud::AnswerQueries(const std::string& text, int status) {
  const CLock lock(m_mutex);
  m_faults.answer = text;
  m_faults.answerStatus = status;
}

void Cloud::Behave() {
  Release();
  const CLock lock(m_mutex);
  m_faults = {};
}

}  // namespace station
