/// The debug method on the bus: service types a command line and reads the answer, both plain text. The
/// commands themselves belong to others, who register them here.
#pragma once

#include <functional>
#include <map>
#include <optional>
#include <string>
#include <vector>

#include "BSW/MultiTask/CSingleton.h"
#include "common/Mutex.h"
#include "common/ThreadAnnotations.h"

/// Any thread may call any member.
class DebugIpc : public CSingleton<DebugIpc> {
 public:
  /// Runs a command with the words that followed its name and gives the answer; nothing when it does not
  /// understand them, which the list of commands answers. Called on the bus thread with no lock held, and
  /// every other message waits meanwhile: it waits for nothing but what has a limit of some seconds, and
  /// leaves longer work to another thread. What it uses must live until the bus is closed.
  using Command = std::function<std::optional<std::string>(const std::vector<std::string>& words)>;

  /// Serves the bus; `name` is that of the interface in the log. False when it cannot be served.
  bool Init(const char* name);
  /// Leaves the bus and forgets the commands; one that runs is not waited for.
  void CleanUp();

  /// `help` is its line in the list. A second command of the same name replaces the first.
  void RegisterCommand(const std::string& name, const std::string& help, const Command& command);

  /// Answers one command line: blanks separate words, the first is the command.
  std::string ProcDebugMsg(const std::string& line);

 private:
  friend class CSingleton<DebugIpc>;
  struct Entry {
    std::string help;
    Command command;
  };

  DebugIpc() = default;
  ~DebugIpc() = default;

  std::string _Help();

  CMutex m_mutex;
  std::map<std::string, Entry> m_mapCommand GUARDED_BY(m_mutex);
};
