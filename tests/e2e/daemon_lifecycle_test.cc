// The real agent, started and stopped inside a sandbox with its real paths.
#include <gmock/gmock.h>
#include <sys/stat.h>
#include <sys/utsname.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>

#include "sandbox/agent_test.h"

namespace sandbox {
namespace {

using ::testing::ElementsAreArray;
using namespace std::chrono_literals;

// Lines the network and foreman threads write while the main thread goes on,
// each between two of the main thread's.
const std::string kThreadLines[][3] = {
    {"Varlo listening on port 4347", "Network Thread: Starting main loop",
     "Thread 1 shut down.  Returned: 0"},
    {"Varlo Core Initializing", "Foreman going to work", "Thread 2 shut down.  Returned: 0"},
    {"Notifying network thread of exit", "Network thread: exit flag set",
     "Thread 1 shut down.  Returned: 0"},
    {"Notifying foreman thread of exit", "Foreman Thread Finished",
     "Thread 2 shut down.  Returned: 0"}};

// The main thread's lines over an idle agent's whole run, in order, but for
// the folders of the location map it cannot find.
std::vector<std::string> mainThreadLines() {
  utsname un{};
  uname(&un);
  // clang-format off
  return {"Log Opened Successfully",
          "Successfully set login notification handler.",  // set up before the log opened
          "Varlo Core Initializing", "Varlo Version: 5.6.0",
          "Linux Varlo running on " + std::string(un.machine) + " architecture.",
          "Could not open preferences file",  // none yet
          "Successfully bound UDP port 4347", "Successfully bound TCP port 4347",
          "Varlo listening on port 4347", "Creating Pid File", "Pid File created successfully",
          "Received SIGTERM or SIGQUIT signal", "Varlo Shutting Down",
          "Notifying network thread of exit", "Notifying foreman thread of exit",
          "Waiting for threads to shut down",
          "Waiting for thread 1", "Thread 1 shut down.  Returned: 0",
          "Waiting for thread 2", "Thread 2 shut down.  Returned: 0",
          "Main thread: Cleaning up memory", "Networking shutting down", "Closing network sockets",
          "Successfully closed probe socket", "Successfully closed tcp socket",
          "Foreman: Notifying workers of quitting time", "0 threads need to close", "Foreman exiting",
          "Deleting Pid File", "Pid File removed", "Shutdown completed", "Closing Log"};
  // clang-format on
}

// A link of /proc as the sandbox itself sees it, with a line break.
std::string linkInside(Sandbox& box, const std::string& link) {
  return box.run({"/bin/readlink", link}).value_or(Sandbox::Result{}).output;
}

TEST_F(AgentTest, ForegroundRunLogsStartupAndWholeShutdownAndRemovesPidFile) {
  // Words after the first are ignored.
  Process agent = box().spawn({kAgent, "nodaemon", "ignored"});
  ASSERT_TRUE(waitUntil([&] { return readFile(box().hostPath(kPidFile)).has_value(); }, 10s))
      << agent.output();
  // The pid file names the agent itself.
  const std::string pid = *readFile(box().hostPath(kPidFile));
  EXPECT_EQ(linkInside(box(), "/proc/" + pid + "/exe"), kAgent + "\n");
  EXPECT_EQ(stopAgent(agent), 0) << agent.output();
  EXPECT_FALSE(readFile(box().hostPath(kPidFile)).has_value());

  const auto all = logMessages();
  const auto at = [&](const std::string& m) {
    return std::find(all.begin(), all.end(), m) - all.begin();
  };
  std::vector<std::string> main = all;
  std::erase_if(main, [](const std::string& m) { return m.starts_with("Unable to find folder"); });
  for (const auto& [after, line, before] : kThreadLines) {
    EXPECT_LT(at(after), at(line)) << line;
    EXPECT_LT(at(line), at(before)) << line;
    std::erase(main, line);
  }
  EXPECT_THAT(main, ElementsAreArray(mainThreadLines()));
}

TEST_F(AgentTest, AnyOtherFirstWordDetachesAsDaemonThatCarriesOnWithoutItsFiles) {
  // A directory where the log file should be: the log goes to /tmp instead.
  ASSERT_EQ(mkdir(box().hostPath(kLog).c_str(), 0755), 0);
  // Only the exact word stays in the foreground.
  EXPECT_EQ(box().run({kAgent, "NoDaemon"}).value_or(Sandbox::Result{-1, ""}).exitCode, 0);
  ASSERT_TRUE(waitUntil([&] { return readFile(box().hostPath(kPidFile)).has_value(); }, 10s));
  const std::string pid = *readFile(box().hostPath(kPidFile));
  EXPECT_EQ(linkInside(box(), "/proc/" + pid + "/cwd"), "/tmp\n");
  // A session of its own: the sixth field of its stat.
  const std::string stat = readFile(box().hostPath("/proc/" + pid + "/stat")).value_or(")");
  int session = 0;
  std::sscanf(stat.c_str() + stat.rfind(')') + 1, " %*c %*d %*d %d", &session);
  EXPECT_EQ(std::to_string(session), pid);

  // A pid file gone by shutdown is reported, and the shutdown goes on.
  ASSERT_EQ(unlink(box().hostPath(kPidFile).c_str()), 0);
  ASSERT_EQ(box().run({"/bin/kill", "-TERM", pid}).value_or(Sandbox::Result{-1, ""}).exitCode, 0);
  const auto tmpLog = [&] { return readFile(box().hostPath("/tmp/Varlo.log")).value_or(""); };
  ASSERT_TRUE(waitUntil([&] { return tmpLog().ends_with(":   Closing Log\n"); }, 10s)) << tmpLog();
  const auto messages = messagesOf(tmpLog());
  EXPECT_EQ(messages.front(), "Log Opened Successfully");
  EXPECT_THAT(std::vector<std::string>(messages.end() - 5, messages.end()),
              ElementsAreArray({"Deleting Pid File", "Could not find pid file!", "Pid File removed",
                                "Shutdown completed", "Closing Log"}));
}

}  // namespace
}  // namespace sandbox
