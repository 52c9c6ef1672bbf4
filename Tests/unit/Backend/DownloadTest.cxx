// Downloads against a server that breaks off, lies, changes its mind and falls silent.
#include <gtest/gtest.h>
#include <sys/mount.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "../PlatformSDK/TempDirectory.h"
#include "BSW/BasicFun/Md5.h"
#include "BSW/BasicFun/StringUtils.h"
#include "BSW/BasicFun/TimeUtils.h"
#include "Backend/Pace.h"
#include "Backend/QuorvalenDownloadManager.h"
#include "Backend/TransferLoop.h"
#include "ScriptedServer.h"

using namespace Quorvalen;
using namespace std::chrono_literals;
using State = DownloadTask::State;
using Line = ScriptedServer::Line;

namespace {

constexpr auto kLongestTest = 60s;
constexpr const char* kName = "package.zip";
constexpr const char* kV1 = "ETag: \"v1\"\r\n";

TransferSettings QuickSettings() {
  TransferSettings settings;
  settings.firstWait = 1ms;
  settings.longestWait = 4ms;
  return settings;
}

std::string MakeContent(size_t size) {
  std::string content(size, '\0');
  uint32_t state = 1;
  for (char& c : content) c = static_cast<char>((state = state * 1664525U + 1013904223U) >> 24U);
  return content;
}

std::string DigestOf(const std::string& content) {
  md5::Digest digest;
  digest.Update(content.data(), content.size());
  return digest.Finish();
}

// What the program would see of one download.
class Watcher {
 public:
  DownloadTask::Callback Callback() {
    return [this](const DownloadTask::Status& status) {
      const std::lock_guard<std::mutex> lock(m_mutex);
      m_seen.push_back(status);
      m_news.notify_all();
    };
  }
  // The first status for which `wanted` holds; the last one when none came in time.
  DownloadTask::Status WaitFor(const std::function<bool(const DownloadTask::Status&)>& wanted) {
    std::unique_lock<std::mutex> lock(m_mutex);
    size_t next = 0;
    const auto found = [&] {
      while (next < m_seen.size() && !wanted(m_seen[next])) ++next;
      return next < m_seen.size();
    };
    return m_news.wait_for(lock, kLongestTest, found) ? m_seen[next] : m_seen.back();
  }
  DownloadTask::Status WaitFor(State state) {
    return WaitFor([state](const DownloadTask::Status& status) { return status.state == state; });
  }
  DownloadTask::Status WaitForEnd() {
    return WaitFor([](const DownloadTask::Status& status) {
      return status.state == State::Done || status.state == State::Failed || status.state == State::Cancelled;
    });
  }
  // How often a start over was reported.
  size_t StartsOver() {
    const std::lock_guard<std::mutex> lock(m_mutex);
    return static_cast<size_t>(std::count_if(m_seen.begin(), m_seen.end(), [](const auto& status) {
      return status.state == State::Transferring && status.received == 0 && !status.message.empty();
    }));
  }

 private:
  std::mutex m_mutex;
  std::condition_variable m_news;
  std::vector<DownloadTask::Status> m_seen;
};

class Downloads : public ::testing::Test {
 protected:
  Downloads() { StartProgram(); }

  // As after a restart of the program: nothing is left but the disk.
  void StartProgram() {
    m_pManager.reset();
    m_pLoop.emplace(m_settings);
    EXPECT_TRUE(m_pLoop->Start());
    m_pManager.emplace(*m_pLoop);
  }

  DownloadRequest Request(const std::string& url) const {
    return {url, m_directory.Path(), kName, m_content.size(), DigestOf(m_content)};
  }
  std::shared_ptr<DownloadTask> Add(const DownloadRequest& request, Watcher& watcher) {
    std::string error;
    auto task = m_pManager->Add(request, watcher.Callback(), error);
    EXPECT_TRUE(task) << error;
    return task;
  }
  DownloadTask::Status Run(const DownloadRequest& request, Watcher& watcher) {
    return Add(request, watcher) ? watcher.WaitForEnd() : DownloadTask::Status();
  }
  DownloadTask::Status Run(const std::string& url) {
    Watcher watcher;
    return Run(Request(url), watcher);
  }

  // The rest of `content` from the asked byte on, or all of it; at most `most` bytes before the line breaks.
  static void Serve(const std::string& content, const HttpQuestion& question, const Line& line,
                    const std::string& headers = kV1, size_t most = std::string::npos) {
    const size_t offset = question.Offset();
    const bool whole = offset == 0;
    line.Send((whole ? "HTTP/1.1 200 OK\r\n" : "HTTP/1.1 206 Partial Content\r\n") + headers +
              (whole ? ""
                     : FormatText("Content-Range: bytes %zu-%zu/%zu\r\n", offset, content.size() - 1,
                                  content.size())) +
              "Content-Length: " + std::to_string(content.size() - offset) + "\r\n\r\n");
    line.Send(content.substr(offset, most));
  }

  void ExpectDone(const DownloadTask::Status& status) const {
    EXPECT_EQ(status.state, State::Done) << status.message;
    EXPECT_EQ(status.received, m_content.size());
    EXPECT_TRUE(ReadText(m_directory / kName) == m_content);
    EXPECT_EQ(m_directory.EntryCount(), 1U);  // neither part nor side file
  }
  static void ExpectFailed(const DownloadTask::Status& status, const std::string& why) {
    EXPECT_EQ(status.state, State::Failed);
    EXPECT_NE(status.message.find(why), std::string::npos) << status.message;
  }

  TempDirectory m_directory;
  TransferSettings m_settings = QuickSettings();
  std::string m_content = MakeContent(300'000);
  std::optional<TransferLoop> m_pLoop;
  std::optional<QuorvalenDownloadManager> m_pManager;
};

}  // namespace

TEST_F(Downloads, ResumeAfterTwentyBreaksNeverFromZero) {
  constexpr int kBreaks = 20;
  int answers = 0;
  ScriptedServer server([&](const HttpQuestion& question, const Line& line) {
    Serve(m_content, question, line, kV1, answers++ < kBreaks ? m_content.size() / 30 : std::string::npos);
  });
  ExpectDone(Run(server.Url()));
  const std::vector<HttpQuestion> questions = server.Questions();
  ASSERT_EQ(questions.size(), kBreaks + 1U);
  for (size_t i = 1; i < questions.size(); ++i) {
    EXPECT_EQ(questions[i].Offset(), questions[i - 1].Offset() + m_content.size() / 30);
    EXPECT_EQ(questions[i].Header("if-range"), "\"v1\"");
  }
}

TEST_F(Downloads, GoOnAfterARestartOfTheProgramUnlessItIsAnotherFile) {
  const size_t half = m_content.size() / 2;
  const ScriptedServer::Script serve = [this](const HttpQuestion& question, const Line& line) {
    Serve(m_content, question, line);
  };
  const ScriptedServer::Script serveHalf = [this, half](const HttpQuestion& question, const Line& line) {
    Serve(m_content, question, line, kV1, half);
    line.WaitForHangUp();
  };
  ScriptedServer server(serveHalf);
  Watcher watcher;
  const auto task = Add(Request(server.Url()), watcher);
  while (task->GetStatus().received < half) XSleep(1);
  StartProgram();
  server.SetScript(serve);
  EXPECT_EQ(task->GetStatus().state, State::Transferring);
  task->Cancel();  // of a program that is no more
  ExpectDone(Run(server.Url()));
  EXPECT_EQ(server.Questions().back().Offset(), half);
  EXPECT_EQ(server.Questions().back().Header("if-range"), "\"v1\"");

  // The finished file is recognised, and what is left of one file is never taken for a part of another.
  ExpectDone(Run(server.Url()));
  EXPECT_EQ(server.Questions().size(), 2U);
  server.SetScript(serveHalf);
  unlink((m_directory / kName).c_str());
  const auto again = Add(Request(server.Url()), watcher);
  while (again->GetStatus().received < half) XSleep(1);
  StartProgram();
  server.SetScript(serve);
  m_content = MakeContent(m_content.size() - 1);
  m_content.front() = 'x';
  ExpectDone(Run(server.Url()));
  EXPECT_EQ(server.Questions().back().Offset(), 0U);
}

TEST_F(Downloads, StartOverOnceWhenTheServerCannotResume) {
  int breaks = 1;
  ScriptedServer server([&](const HttpQuestion& question, const Line& line) {
    HttpQuestion plain = question;
    plain.headers.erase("range");
    Serve(m_content, plain, line, kV1, breaks-- > 0 ? m_content.size() / 2 : std::string::npos);
  });
  Watcher watcher;
  ExpectDone(Run(Request(server.Url()), watcher));
  EXPECT_EQ(server.Questions().size(), 2U);
  EXPECT_EQ(watcher.StartsOver(), 1U);
  server.SetScript([this](const HttpQuestion&, const Line& line) {
    Serve(m_content, {}, line, kV1, m_content.size() / 2);
  });
  unlink((m_directory / kName).c_str());
  ExpectFailed(Run(server.Url()), "the server cannot resume, for the second time");
}

TEST_F(Downloads, NoticeAChangedFileAndGlueNothing) {
  // How a server may show it: the date, the tag of the whole, the end of the file.
  const std::string old = "X" + m_content.substr(1);
  const std::vector<ScriptedServer::Script> ways = {
      [&](const HttpQuestion& question, const Line& line) {
        Serve(m_content, question, line, "Last-Modified: Tue, 02 Jan 2024 00:00:00 GMT\r\n");
      },
      [&](const HttpQuestion& /*question*/, const Line& line) {
        line.Answer("200 OK", "ETag: \"v2\"\r\n", m_content);
      },
      [&](const HttpQuestion& question, const Line& line) {
        if (question.Offset() == 0) return Serve(m_content, question, line);
        line.Answer("416 Range Not Satisfiable", "", "");
      },
  };
  for (const auto& changed : ways) {
    int answers = 0;
    ScriptedServer server([&](const HttpQuestion& question, const Line& line) {
      if (answers++ > 0) return changed(question, line);
      Serve(old, question, line, std::string(kV1) + "Last-Modified: Mon, 01 Jan 2024 00:00:00 GMT\r\n",
            100'000);
    });
    Watcher watcher;
    const DownloadTask::Status status = Run(Request(server.Url()), watcher);
    EXPECT_EQ(server.Questions().at(1).Offset(), 100'000U);
    EXPECT_EQ(watcher.StartsOver(), 1U);
    ExpectDone(status);
    unlink((m_directory / kName).c_str());
  }
}

TEST_F(Downloads, KeepThePartWhenTheyGoOnWithAnAnswerThatIsNotTheFile) {
  constexpr size_t kPart = 100'000;
  const std::string page = "<html>Please log in</html>";
  const auto answerRest = [&](size_t offset, size_t total, const Line& line) {
    line.Answer("206 Partial Content",
                FormatText("Content-Range: bytes %zu-%zu/%zu\r\n", offset, total - 1, total),
                m_content.substr(offset) + page);
  };
  const std::vector<ScriptedServer::Script> ways = {
      [&](const HttpQuestion&, const Line& line) { line.Answer("200 OK", "", page); },
      [&](const HttpQuestion&, const Line& line) { line.Send("HTTP/1.1 200 OK\r\n\r\n" + page); },
      // It begins like the file.
      [&](const HttpQuestion&, const Line& line) {
        line.Send("HTTP/1.1 200 OK\r\n\r\n" + m_content.substr(0, kPart - 1) + page);
      },
      [&](const HttpQuestion& question, const Line& line) {
        answerRest(question.Offset(), m_content.size() + page.size(), line);
      },
      [&](const HttpQuestion& question, const Line& line) {
        answerRest(question.Offset(), m_content.size(), line);
      },
      [&](const HttpQuestion&, const Line& line) {
        line.Answer("416 Range Not Satisfiable", "Content-Range: bytes */10\r\n", "");
      },
  };
  for (size_t way = 0; way < ways.size(); ++way) {
    SCOPED_TRACE(way);
    int answers = 0;
    ScriptedServer server([&](const HttpQuestion& question, const Line& line) {
      if (question.Offset() == 0) return Serve(m_content, question, line, kV1, kPart);
      answers++ < 2 ? ways[way](question, line) : Serve(m_content, question, line);
    });
    Watcher watcher;
    ExpectDone(Run(Request(server.Url()), watcher));
    EXPECT_EQ(watcher.StartsOver(), 0U);
    EXPECT_EQ(server.Questions().size(), 4U);
    EXPECT_EQ(server.Questions().at(1).Offset(), kPart);
    EXPECT_GE(server.Questions().back().Offset(), kPart);

    // It stays like that: the download gives up, and a later one goes on with what is there.
    unlink((m_directory / kName).c_str());
    answers = -100;
    ExpectFailed(Run(server.Url()), "gave up after 8 tries without a byte");
    const uint64_t there = QuorvalenDownloadManager::BytesThere(Request(server.Url()));
    EXPECT_GE(there, kPart);
    EXPECT_EQ(static_cast<int64_t>(there), XGetFileSize(m_directory / "package.zip.part"));
    answers = 2;
    ExpectDone(Run(server.Url()));
    EXPECT_EQ(server.Questions().back().Offset(), there);
    EXPECT_EQ(QuorvalenDownloadManager::BytesThere(Request(server.Url())), m_content.size());
    unlink((m_directory / kName).c_str());
  }
}

// A server that sends the whole file again, without its length, repeats what is there.
TEST_F(Downloads, GoOnInAnAnswerThatRepeatsThePart) {
  int answers = 0;
  ScriptedServer server([&](const HttpQuestion&, const Line& line) {
    line.Send("HTTP/1.1 200 OK\r\n\r\n" + (answers++ == 0 ? m_content.substr(0, 100'000) : m_content));
  });
  Watcher watcher;
  ExpectDone(Run(Request(server.Url()), watcher));
  EXPECT_EQ(watcher.StartsOver(), 0U);
  EXPECT_EQ(answers, 2);
}

TEST_F(Downloads, RefuseWhatIsNotWhatWasAnnounced) {
  ScriptedServer server(
      [this](const HttpQuestion&, const Line& line) { line.Answer("200 OK", "", m_content + "!"); });
  ExpectFailed(Run(server.Url()), "the server has 300001 bytes, announced were 300000");
  server.SetScript([this](const HttpQuestion&, const Line& line) {  // no size told, and no end
    line.Send("HTTP/1.1 200 OK\r\n\r\n");
    while (line.Send(m_content)) {
    }
  });
  ExpectFailed(Run(server.Url()), "more than the announced 300000 bytes");
  EXPECT_EQ(m_directory.EntryCount(), 0U);

  // A wrong md5 is tried once more from zero.
  const std::string wrong = "X" + m_content.substr(1);
  const size_t before = server.Questions().size();
  server.SetScript([&](const HttpQuestion& question, const Line& line) { Serve(wrong, question, line); });
  ExpectFailed(Run(server.Url()), "the md5 is " + DigestOf(wrong));
  EXPECT_EQ(server.Questions().size(), before + 2);
  EXPECT_EQ(server.Questions().back().Offset(), 0U);
  EXPECT_EQ(m_directory.EntryCount(), 0U);
  bool first = true;
  server.SetScript([&](const HttpQuestion& question, const Line& line) {
    Serve(std::exchange(first, false) ? wrong : m_content, question, line);
  });
  ExpectDone(Run(server.Url()));
}

TEST_F(Downloads, GiveUpAtOnceOrAfterEightTriesOrWaitAsLongAsTheServerAsks) {
  m_settings.longestRetryAfter = 300ms;
  StartProgram();
  std::string answer = "404 Not Found";
  std::string headers;
  ScriptedServer server(
      [&](const HttpQuestion&, const Line& line) { line.Answer(answer, headers, "sorry"); });
  ExpectFailed(Run(server.Url()), "HTTP 404");
  EXPECT_EQ(server.Questions().size(), 1U);
  server.SetScript([](const HttpQuestion&, const Line& line) {
    line.Send("HTTP/1.1 404 Cut\r\nContent-Length: 5\r\n\r\n");
  });
  ExpectFailed(Run(server.Url()), "HTTP 404");
  EXPECT_EQ(server.Questions().size(), 2U);
  server.SetScript(
      [](const HttpQuestion&, const Line& line) { line.Answer("500 Internal Server Error", "", "?"); });
  ExpectFailed(Run(server.Url()), "gave up after 8 tries without a byte");
  EXPECT_EQ(server.Questions().size(), 10U);
  server.SetScript([&server](const HttpQuestion&, const Line& line) {
    line.Answer("302 Found", "Location: " + server.Url("/elsewhere") + "\r\n", "");
  });
  ExpectFailed(Run(server.Url()), "redirected to an address that is not allowed");
  EXPECT_EQ(server.Questions().size(), 11U);

  // The wait counts also when the line breaks before the body.
  const std::string seconds = "3600\r\nContent-Length: 5\r\n\r\n";
  for (const std::string& rest :
       {seconds, seconds + "sorry",
        std::string("Fri, 31 Dec 2100 23:59:59 GMT\r\nContent-Length: 0\r\n\r\n")}) {
    int answers = 0;
    ScriptedServer busy([&](const HttpQuestion& question, const Line& line) {
      if (answers++ > 0) return Serve(m_content, question, line);
      line.Send("HTTP/1.1 429 Too Many Requests\r\nRetry-After: " + rest);
    });
    const auto start = std::chrono::steady_clock::now();
    ExpectDone(Run(busy.Url()));
    EXPECT_GE(std::chrono::steady_clock::now() - start, m_settings.longestRetryAfter);
    unlink((m_directory / kName).c_str());
  }
}

TEST_F(Downloads, TakeSilenceForABreak) {
  m_settings.silence = 200ms;
  StartProgram();
  int answers = 0;
  ScriptedServer server([&](const HttpQuestion& question, const Line& line) {
    const bool hang = answers++ == 0;
    Serve(m_content, question, line, kV1, hang ? 1000 : std::string::npos);
    if (hang) line.WaitForHangUp();
  });
  ExpectDone(Run(server.Url()));
  EXPECT_EQ(server.Questions().back().Offset(), 1000U);
}

// Whether the server trickles on one line, falls silent after each byte, or hangs up: too little in its time
// is a break, and eight of them are the end.
TEST_F(Downloads, EndWhenTheyOnlyTrickle) {
  const struct {
    std::chrono::milliseconds silence, paceTime;
    std::function<void(size_t offset, const Line& line)> send;
  } ways[] = {
      {60s, 20ms,
       [&](size_t offset, const Line& line) {
         while (line.Send(m_content.substr(offset++, 1))) XSleep(1);
       }},
      {30ms, 70ms,
       [&](size_t offset, const Line& line) {
         line.Send(m_content.substr(offset, 1));
         line.WaitForHangUp();
       }},
      {60s, 20ms, [&](size_t offset, const Line& line) { line.Send(m_content.substr(offset, 1)); }},
  };
  m_settings.paceBytes = 20'000;
  for (const auto& way : ways) {
    SCOPED_TRACE(&way - ways);
    m_settings.silence = way.silence;
    m_settings.paceTime = way.paceTime;
    StartProgram();
    ScriptedServer server([&](const HttpQuestion& question, const Line& line) {
      Serve(m_content, question, line, kV1, 0);
      way.send(question.Offset(), line);
    });
    const DownloadTask::Status status = Run(server.Url());
    EXPECT_LT(server.Questions().size(), 200U);
    ExpectFailed(status, "gave up after 8 tries that brought too little: ");
    ExpectFailed(status, FormatText(" bytes in %g s", std::chrono::duration<double>(way.paceTime).count()));
    EXPECT_GE(QuorvalenDownloadManager::BytesThere(Request(server.Url())), 8U);
  }

  // Bytes that come in time give the tries back.
  m_settings.paceTime = 20ms;
  StartProgram();
  int answers = 0;
  ScriptedServer server([&](const HttpQuestion& question, const Line& line) {
    const int turn = answers++ % 8;
    Serve(m_content, question, line, kV1, turn < 7 ? 0 : m_content.size() / 3 + 1);
    if (turn < 7) ways[0].send(question.Offset(), line);
  });
  ExpectDone(Run(server.Url()));
  EXPECT_GT(answers, 16);
}

TEST(Pace, IsSoManyBytesInSoMuchTime) {
  constexpr uint64_t kBytes = 300 * 1024;
  constexpr auto kTime = 300s;
  Pace::TimePoint now;
  Pace pace(kBytes, kTime, 1s);
  // Brings bytes at this speed, and tells for how many seconds that went well.
  const auto run = [&](uint64_t bytesPerSecond, std::chrono::seconds most) {
    for (auto second = 0s; second < most; ++second) {
      now += 1s;
      pace.Take(bytesPerSecond, now);
      if (pace.Left(now) == 0ms) return second;
    }
    return most;
  };
  EXPECT_EQ(run(1100, 3600s), 3600s);
  EXPECT_EQ(run(10'000'000, 1s), 1s);
  EXPECT_FALSE(pace.IsTooSlow());
  EXPECT_EQ(run(1000, 3600s), 299s);
  EXPECT_EQ(pace.Expire(), 300'000U);
  EXPECT_TRUE(pace.IsTooSlow());
  // The time stands still between two connections, and each that brings bytes counts for a second.
  EXPECT_TRUE(pace.Take(1, now));
  EXPECT_FALSE(pace.Take(1, now));
  pace.Leave(now);
  now += 3600s;
  pace.Leave(now);
  EXPECT_EQ(pace.Left(now), kTime - 1s);
  EXPECT_TRUE(pace.Take(kBytes, now));
  EXPECT_FALSE(pace.IsTooSlow());
}

TEST_F(Downloads, PauseLetsTheNextOneGoOnAndCancelRemovesWhatArrived) {
  std::atomic<bool> hang{true};
  ScriptedServer server([&](const HttpQuestion& question, const Line& line) {
    const bool hanging = hang && question.line.find("/slow") != std::string::npos;
    Serve(m_content, question, line, kV1, hanging ? 1000 : std::string::npos);
    if (hanging) line.WaitForHangUp();
  });
  Watcher slow;
  Watcher next;
  const auto slowTask = Add(Request(server.Url("/slow")), slow);
  std::string error;
  EXPECT_FALSE(m_pManager->Add(Request(server.Url()), nullptr, error));
  EXPECT_NE(error.find("in the queue already"), std::string::npos) << error;
  DownloadRequest nextRequest = Request(server.Url("/next"));
  nextRequest.fileName = "next.zip";
  Add(nextRequest, next);
  while (slowTask->GetStatus().received < 1000) XSleep(1);
  EXPECT_EQ(server.Questions().size(), 1U);
  slowTask->Pause();
  EXPECT_EQ(slow.WaitFor(State::Paused).received, 1000U);
  EXPECT_EQ(next.WaitForEnd().state, State::Done);
  unlink((m_directory / "next.zip").c_str());
  hang = false;
  slowTask->Resume();
  ExpectDone(slow.WaitForEnd());
  EXPECT_EQ(server.Questions().back().Offset(), 1000U);

  hang = true;
  unlink((m_directory / kName).c_str());
  Watcher cancelled;
  const auto task = Add(Request(server.Url("/slow")), cancelled);
  while (task->GetStatus().received < 1000) XSleep(1);
  task->Cancel();
  EXPECT_EQ(cancelled.WaitForEnd().state, State::Cancelled);
  while (m_directory.EntryCount() > 0) XSleep(1);
}

TEST_F(Downloads, EndWithinBoundsAndWithoutACallbackFromAnyPlace) {
  constexpr auto kStopLimit = 300ms;
  ScriptedServer server([&](const HttpQuestion& question, const Line& line) {
    Serve(m_content, question, line, kV1, 1000);
    line.WaitForHangUp();
  });
  // The loop stops in the middle of a transfer.
  Watcher watcher;
  const auto task = Add(Request(server.Url()), watcher);
  while (task->GetStatus().received < 1000) XSleep(1);
  const auto start = std::chrono::steady_clock::now();
  m_pLoop->Stop();
  EXPECT_LT(std::chrono::steady_clock::now() - start, kStopLimit);
  task->Cancel();
  EXPECT_FALSE(m_pLoop->Start());
  DownloadRequest late = Request(server.Url());
  late.fileName = "late.zip";
  std::string error;
  EXPECT_FALSE(m_pManager->Add(late, nullptr, error));
  EXPECT_NE(error.find("have been stopped"), std::string::npos) << error;

  // The manager goes in a callback of its own.
  StartProgram();
  std::atomic<int> calls{0};
  const auto last = m_pManager->Add(
      Request(server.Url()),
      [&](const DownloadTask::Status&) {
        m_pManager.reset();
        ++calls;
      },
      error);
  while (calls == 0) XSleep(1);
  m_pLoop->RunAndWait([] {});
  last->Pause();
  EXPECT_EQ(calls, 1);
}

TEST_F(Downloads, StayInTheirDirectoryAndOnTheirFile) {
  std::string error;
  for (const std::string& name :
       {std::string("../package.zip"), std::string("a/b"), std::string(), std::string("x.part"),
        std::string("x.meta"), std::string(250, 'x'), std::string("x\0y", 3)}) {
    DownloadRequest request = Request("https://backend.example/x");
    request.fileName = name;
    EXPECT_FALSE(m_pManager->Add(request, nullptr, error)) << name;
    EXPECT_NE(error.find("the file name"), std::string::npos) << error;
  }
  EXPECT_FALSE(m_pManager->Add(Request("http://backend.example/x"), nullptr, error));
  EXPECT_NE(error.find("http is for loopback hosts only"), std::string::npos) << error;

  TempDirectory elsewhere;
  WriteText(elsewhere / "victim", "untouched");
  ASSERT_EQ(symlink((elsewhere / "victim").c_str(), (m_directory / "package.zip.part").c_str()), 0);
  ExpectFailed(Run("http://127.0.0.1:9/"), "cannot open");
  EXPECT_EQ(ReadText(elsewhere / "victim"), "untouched");
}

TEST_F(Downloads, TellNeededAndFreeSizeWhenTheDiskIsFull) {
  constexpr const char* kSmallDisk = "size=8m";
  if (mount("tmpfs", m_directory.Path().c_str(), "tmpfs", 0, kSmallDisk) != 0) {
    GTEST_SKIP() << "a small disk of its own takes root";
  }
  const std::shared_ptr<void> unmount(nullptr,
                                      [this](void*) { umount2(m_directory.Path().c_str(), MNT_DETACH); });
  m_content = MakeContent(3'000'000);
  constexpr size_t kFirst = 100'000;
  ScriptedServer server([&](const HttpQuestion& question, const Line& line) {
    line.Send("HTTP/1.1 200 OK\r\n" + std::string(kV1) + "Content-Length: " +
              std::to_string(m_content.size()) + "\r\n\r\n" + m_content.substr(0, kFirst));
    while (XGetFileSize(m_directory / "package.zip.part") < static_cast<int64_t>(kFirst)) XSleep(1);
    WriteText(m_directory / "filler", std::string(7'000'000, 'x'));
    line.Send(m_content.substr(kFirst));
    EXPECT_EQ(question.Offset(), 0U);
  });
  std::string error;
  DownloadRequest large = Request(server.Url());
  large.size = 8'000'000;
  EXPECT_FALSE(m_pManager->Add(large, nullptr, error));
  EXPECT_NE(error.find("12194304 bytes are needed, 8388608 are free"), std::string::npos) << error;
  EXPECT_TRUE(server.Questions().empty());
  ExpectFailed(Run(server.Url()), "no space for");
  EXPECT_GE(XGetFileSize(m_directory / "package.zip.part"), static_cast<int64_t>(kFirst));

  // A file of that name and size turns out to be another one, and there is no room to replace it.
  unlink((m_directory / "filler").c_str());
  WriteText(m_directory / kName, std::string(m_content.size(), 'x'));
  ExpectFailed(Run(server.Url()), "are needed");
  EXPECT_EQ(server.Questions().size(), 1U);
}
