// The real agent, started and stopped inside a sandbox with its real paths.
#include <signal.h>
#include <sys/stat.h>
#include <unistd.h>

#include <sys/utsname.h>

#include <algorithm>
#include <iterator>
#include <regex>

#include <gmock/gmock.h>

#include "prefs/prefs.h"
#include "sandbox/agent_test.h"

namespace sandbox {
namespace {

using ::testing::ElementsAreArray;

std::vector<std::string> startupLines() {
  return {"Log Opened Successfully",
          "Varlo Core Initializing",
          "Varlo Version: 5.6.0",
          "Linux Varlo running on " + [] {
            utsname un{};
            uname(&un);
            return std::string(un.machine);
          }() + " architecture."};
}

// The main thread's lines of an idle agent's shutdown, in order.
const std::vector<std::string> kShutdownLines = {
    "Received SIGTERM or SIGQUIT signal",
    "Varlo Shutting Down",
    "Notifying network thread of exit",
    "Notifying foreman thread of exit",
    "Waiting for threads to shut down",
    "Waiting for thread 1",
    "Thread 1 shut down.  Returned: 0",
    "Waiting for thread 2",
    "Thread 2 shut down.  Returned: 0",
    "Main thread: Cleaning up memory",
    "Networking shutting down",
    "Closing network sockets",
    "Successfully closed probe socket",
    "Successfully closed tcp socket",
    "Foreman: Notifying workers of quitting time",
    "0 threads need to close",
    "Foreman exiting",
    "Deleting Pid File",
    "Pid File removed",
    "Shutdown completed",
    "Closing Log"};

// Lines the network and foreman threads write while the main thread goes on.
const std::vector<std::string> kThreadLines = {
    "Network Thread: Starting main loop", "Foreman going to work",
    "Network thread: exit flag set", "Foreman Thread Finished"};

bool isThreadLine(const std::string& m) {
  return std::find(kThreadLines.begin(), kThreadLines.end(), m) != kThreadLines.end();
}

std::vector<std::string> mainThreadLines(const std::vector<std::string>& messages) {
  std::vector<std::string> out;
  std::copy_if(messages.begin(), messages.end(), std::back_inserter(out),
               [](const std::string& m) { return !isThreadLine(m); });
  return out;
}

// Where a line stands in the log, or -1.
long positionOf(const std::vector<std::string>& messages, const std::string& m) {
  const auto it = std::find(messages.begin(), messages.end(), m);
  return it == messages.end() ? -1 : it - messages.begin();
}

// A link of /proc as the sandbox itself sees it.
std::string linkInside(Sandbox& box, const std::string& link) {
  const auto r = box.run({"/bin/readlink", link});
  if (!r || r->exitCode != 0) return "";
  return r->output.substr(0, r->output.find('\n'));
}

TEST_F(AgentTest, ForegroundRunLogsStartupAndWholeShutdownAndRemovesPidFile) {
  // Words after the first are ignored.
  Process agent = box().spawn({kAgent.c_str(), "nodaemon", "ignored"});
  ASSERT_TRUE(waitUntil([&] { return readFile(box().hostPath(kPidFile)).has_value(); },
                        std::chrono::seconds(10)))
      << agent.output();

  // The pid file names the agent itself, as the sandbox's /proc sees it.
  const std::string pid = *readFile(box().hostPath(kPidFile));
  ASSERT_TRUE(std::regex_match(pid, std::regex("[0-9]+"))) << "pid file: '" << pid << "'";
  EXPECT_EQ(linkInside(box(), "/proc/" + pid + "/exe"), kAgent);

  // Every line is a ctime stamp, three blanks after its colon, then the text.
  const std::string text = log();
  const std::regex stamped("[A-Z][a-z]{2} [A-Z][a-z]{2} [ 0-9][0-9] [0-9]{2}:[0-9]{2}:[0-9]{2} "
                           "[0-9]{4}:   [^ ].*");
  std::istringstream lines(text);
  for (std::string line; std::getline(lines, line);)
    EXPECT_TRUE(std::regex_match(line, stamped)) << line;

  std::vector<std::string> messages = mainThreadLines(messagesOf(text));
  const auto expectedStart = startupLines();
  ASSERT_GE(messages.size(), expectedStart.size() + 6);
  EXPECT_THAT(std::vector<std::string>(messages.begin(), messages.begin() + 4),
              ElementsAreArray(expectedStart));
  // No preferences yet, so nothing to read; then the sockets, and the pid
  // file last.
  EXPECT_NE(positionOf(messages, "Could not open preferences file"), -1);
  EXPECT_THAT(std::vector<std::string>(messages.end() - 5, messages.end()),
              ElementsAreArray({"Successfully bound UDP port 4347", "Successfully bound TCP port 4347",
                                "Varlo listening on port 4347", "Creating Pid File",
                                "Pid File created successfully"}));

  EXPECT_EQ(stopAgent(agent), 0) << agent.output();
  const auto all = logMessages();
  messages = mainThreadLines(all);
  ASSERT_GE(messages.size(), kShutdownLines.size());
  EXPECT_THAT(std::vector<std::string>(messages.end() - kShutdownLines.size(), messages.end()),
              ElementsAreArray(kShutdownLines));
  // Each thread starts after its object is made and ends before its join.
  EXPECT_GT(positionOf(all, "Network Thread: Starting main loop"),
            positionOf(all, "Varlo listening on port 4347"));
  EXPECT_NE(positionOf(all, "Foreman going to work"), -1);
  const long exitSeen = positionOf(all, "Network thread: exit flag set");
  EXPECT_GT(exitSeen, positionOf(all, "Notifying network thread of exit"));
  EXPECT_LT(exitSeen, positionOf(all, "Thread 1 shut down.  Returned: 0"));
  const long foremanDone = positionOf(all, "Foreman Thread Finished");
  EXPECT_GT(foremanDone, positionOf(all, "Notifying foreman thread of exit"));
  EXPECT_LT(foremanDone, positionOf(all, "Thread 2 shut down.  Returned: 0"));
  EXPECT_FALSE(readFile(box().hostPath(kPidFile)).has_value());

  // The preferences folder is private to root.
  struct stat st{};
  ASSERT_EQ(stat(box().hostPath("/var/lib/VarloPrefs").c_str(), &st), 0);
  EXPECT_EQ(st.st_mode & 07777, 0700u);
}

TEST_F(AgentTest, ReadsThePreferencesAnEarlierRunLeftAndStartsANewLog) {
  Process first = startAgent();
  ASSERT_EQ(stopAgent(first), 0);

  // What a password change in the first run leaves behind.
  PrefsSources sources;
  sources.localPrefsDir = box().hostPath("/var/lib");
  CPrefs written(sources);
  written.init();
  ASSERT_EQ(written.changePassword("secret"), 0);
  ASSERT_EQ(written.setDBMSKey(4242), 0);
  const std::string file = box().hostPath("/var/lib/VarloPrefs/.varlo");
  const auto before = readFile(file);
  ASSERT_TRUE(before.has_value());
  EXPECT_EQ(*before, "dbkey= 4242\nebp= /:5;5<196954/431\n");

  Process second = startAgent();
  const auto messages = logMessages();
  // A new log: the first run's shutdown is gone, and the file was found.
  EXPECT_EQ(messages.front(), "Log Opened Successfully");
  EXPECT_EQ(std::count(messages.begin(), messages.end(), "Varlo Shutting Down"), 0);
  EXPECT_EQ(std::count(messages.begin(), messages.end(), "Could not open preferences file"), 0);
  ASSERT_EQ(stopAgent(second), 0);
  EXPECT_EQ(readFile(file), before);
  struct stat st{};
  ASSERT_EQ(stat(file.c_str(), &st), 0);
  EXPECT_EQ(st.st_mode & 07777, 0600u);
}

TEST_F(AgentTest, MissingPidFileAtShutdownIsReportedAndShutdownGoesOn) {
  Process agent = startAgent();
  ASSERT_EQ(unlink(box().hostPath(kPidFile).c_str()), 0);
  EXPECT_EQ(stopAgent(agent), 0);
  const auto messages = logMessages();
  const auto missing = std::find(messages.begin(), messages.end(), "Could not find pid file!");
  ASSERT_NE(missing, messages.end());
  EXPECT_EQ(*(missing + 1), "Pid File removed");
  EXPECT_EQ(messages.back(), "Closing Log");
}

TEST_F(AgentTest, LogFallsBackToTmpWhenItsFileCannotBeOpened) {
  // A directory where the log file should be: /var/log is fine, the file is not.
  ASSERT_EQ(mkdir(box().hostPath("/var/log/Varlo.log").c_str(), 0755), 0);
  Process agent = startAgent();
  EXPECT_EQ(stopAgent(agent), 0);
  const auto text = readFile(box().hostPath("/tmp/Varlo.log"));
  ASSERT_TRUE(text.has_value());
  const auto messages = messagesOf(*text);
  EXPECT_EQ(messages.front(), "Log Opened Successfully");
  EXPECT_EQ(messages.back(), "Closing Log");
}

TEST_F(AgentTest, AnyOtherFirstWordDetachesAsDaemon) {
  // Only the exact word stays in the foreground.
  const auto launched = box().run({kAgent, "NoDaemon"});
  ASSERT_TRUE(launched.has_value());
  EXPECT_EQ(launched->exitCode, 0) << launched->output;

  ASSERT_TRUE(waitUntil([&] { return readFile(box().hostPath(kPidFile)).has_value(); },
                        std::chrono::seconds(10)));
  const std::string pid = *readFile(box().hostPath(kPidFile));
  EXPECT_EQ(linkInside(box(), "/proc/" + pid + "/cwd"), "/tmp");
  // A session of its own.
  const auto stat = readFile(box().hostPath("/proc/" + pid + "/stat"));
  ASSERT_TRUE(stat.has_value());
  std::istringstream fields(stat->substr(stat->rfind(')') + 2));
  std::string state, ppid, pgrp, session;
  fields >> state >> ppid >> pgrp >> session;
  EXPECT_EQ(session, pid);

  const auto killed = box().run({"/bin/kill", "-TERM", pid});
  ASSERT_TRUE(killed.has_value());
  ASSERT_EQ(killed->exitCode, 0) << killed->output;
  ASSERT_TRUE(waitUntil([&] { return logMessages().back() == "Closing Log"; },
                        std::chrono::seconds(10)))
      << log();
  EXPECT_FALSE(readFile(box().hostPath(kPidFile)).has_value());
}

}  // namespace
}  // namespace sandbox
