// An HTTP/1.1 server on loopback that does what a test tells it: one connection after the other, one request
// each.
#pragma once

#include <netinet/tcp.h>
#include <poll.h>
#include <sys/eventfd.h>
#include <sys/socket.h>

#include <algorithm>
#include <cctype>
#include <functional>
#include <map>
#include <mutex>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "BSW/BasicFun/StringUtils.h"
#include "BSW/BasicFun/UniqueFd.h"
#include "LoopbackListener.h"

struct HttpQuestion {
  std::string line;                            // "GET /path HTTP/1.1"
  std::map<std::string, std::string> headers;  // names in lower case
  std::string body;

  std::string Header(const std::string& name) const {
    const auto found = headers.find(name);
    return found == headers.end() ? "" : found->second;
  }
  // The first byte of "Range: bytes=N-", 0 without one.
  size_t Offset() const {
    const std::string range = Header("range");
    return range.empty() ? 0 : std::stoul(range.substr(range.find('=') + 1));
  }
};

class ScriptedServer {
 public:
  class Line {
   public:
    Line(int fd, int stop) : m_fd(fd), m_stop(stop) {}

    bool Send(const std::string& bytes) const {
      size_t sent = 0;
      while (sent < bytes.size()) {
        const ssize_t count = send(m_fd, bytes.data() + sent, bytes.size() - sent, MSG_NOSIGNAL);
        if (count <= 0) return false;
        sent += static_cast<size_t>(count);
      }
      return true;
    }
    bool Answer(const std::string& status, const std::string& headers, const std::string& body) const {
      return Send("HTTP/1.1 " + status + "\r\n" + headers + "Content-Length: " + std::to_string(body.size()) +
                  "\r\nConnection: close\r\n\r\n" + body);
    }
    // Until the client hangs up, or the server goes.
    void WaitForHangUp() const {
      while (!Read().empty()) {
      }
    }
    // What comes next; "" at the end.
    std::string Read() const {
      pollfd watched[] = {{m_fd, POLLIN, 0}, {m_stop, POLLIN, 0}};
      if (poll(watched, 2, -1) <= 0 || watched[1].revents != 0) return {};
      std::string bytes(4096, '\0');
      const ssize_t count = recv(m_fd, bytes.data(), bytes.size(), 0);
      bytes.resize(count > 0 ? static_cast<size_t>(count) : 0);
      return bytes;
    }

   private:
    const int m_fd;
    const int m_stop;
  };
  // Called on the server's thread, never two at a time.
  using Script = std::function<void(const HttpQuestion& question, const Line& line)>;

  explicit ScriptedServer(Script script) : m_script(std::move(script)), m_stop(eventfd(0, 0)) {
    m_thread = std::thread([this] { _Serve(); });
  }
  ~ScriptedServer() {
    eventfd_write(m_stop.Get(), 1);
    m_thread.join();
  }
  ScriptedServer(const ScriptedServer&) = delete;
  ScriptedServer& operator=(const ScriptedServer&) = delete;

  // Waits until the running script has ended: what it touched is the test's again.
  void SetScript(Script script) {
    const std::lock_guard<std::mutex> lock(m_scriptMutex);
    m_script = std::move(script);
  }
  std::string Url(const std::string& path = "") const { return m_listener.Url(path); }
  std::vector<HttpQuestion> Questions() const {
    const std::lock_guard<std::mutex> lock(m_mutex);
    return m_questions;
  }

 private:
  void _Serve() {
    for (;;) {
      pollfd watched[] = {{m_listener.Fd(), POLLIN, 0}, {m_stop.Get(), POLLIN, 0}};
      if (poll(watched, 2, -1) <= 0 || watched[1].revents != 0) return;
      const UniqueFd connection = m_listener.Accept();
      const int on = 1;  // a byte that is sent alone goes at once
      setsockopt(connection.Get(), IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
      const Line line(connection.Get(), m_stop.Get());
      HttpQuestion question;
      if (!_ReadQuestion(line, question)) continue;
      {
        const std::lock_guard<std::mutex> lock(m_mutex);
        m_questions.push_back(question);
      }
      {
        const std::lock_guard<std::mutex> lock(m_scriptMutex);
        m_script(question, line);
      }
      // An orderly end: with unread bytes, or too early, the client would see a reset instead.
      shutdown(connection.Get(), SHUT_WR);
      line.WaitForHangUp();
    }
  }

  static bool _ReadQuestion(const Line& line, HttpQuestion& question) {
    std::string text;
    size_t end = std::string::npos;
    while ((end = text.find("\r\n\r\n")) == std::string::npos) {
      const std::string more = line.Read();
      if (more.empty()) return false;
      text += more;
    }
    const std::vector<std::string> lines = Split(text.substr(0, end), '\n');
    question.line = lines.front().substr(0, lines.front().find('\r'));
    for (size_t i = 1; i < lines.size(); ++i) {
      const size_t colon = lines[i].find(": ");
      std::string name = lines[i].substr(0, colon);
      std::transform(name.begin(), name.end(), name.begin(),
                     [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
      const std::string value = lines[i].substr(colon + 2);
      question.headers[name] = value.substr(0, value.find('\r'));
    }
    const std::string length = question.Header("content-length");
    question.body = text.substr(end + 4);
    while (!length.empty() && question.body.size() < std::stoul(length)) {
      const std::string more = line.Read();
      if (more.empty()) return false;
      question.body += more;
    }
    return true;
  }

  std::mutex m_scriptMutex;  // held while the script runs
  Script m_script;
  const LoopbackListener m_listener;
  const UniqueFd m_stop;
  mutable std::mutex m_mutex;  // guards m_questions
  std::vector<HttpQuestion> m_questions;
  std::thread m_thread;
};
