// The harness for running the engine daemon: a private system bus with the
// production policy (root may own the engine's name, others may not own it
// or anything else), fake users that child processes resolve through
// nss_wrapper, and the child process wrapper itself (output, exit status,
// stopping, CPU time, running as another user).
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/stat.h>
#include <unistd.h>

#include <chrono>
#include <filesystem>
#include <fstream>
#include <random>
#include <sstream>
#include <string>

#include "tests/support/DaemonProcess.h"
#include "tests/support/Eventually.h"
#include "tests/support/FileSystemImage.h"
#include "tests/support/PrivateBus.h"
#include "tests/support/TempDir.h"
#include "tests/support/TestUsers.h"

namespace skerrow_test {
namespace {

using namespace std::chrono_literals;

constexpr uid_t kNobody = 65534;
constexpr const char* kEngineName = "com.qsc.skerrow";
constexpr const char* kAccessDenied = "org.freedesktop.DBus.Error.AccessDenied";

#define SKIP_UNLESS_ROOT()                                                        \
  do {                                                                            \
    if (::geteuid() != 0) GTEST_SKIP() << "needs root (to act as other users)"; \
  } while (false)

#define SKIP_UNLESS_BUS_AVAILABLE()                                                \
  do {                                                                             \
    SKIP_UNLESS_ROOT();                                                            \
    if (auto reason = PrivateBus::unavailableReason()) GTEST_SKIP() << *reason;    \
  } while (false)

#define SKIP_UNLESS_USERS_AVAILABLE()                                              \
  do {                                                                             \
    if (auto reason = TestUsers::unavailableReason()) GTEST_SKIP() << *reason;     \
  } while (false)

std::string readFile(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  std::stringstream ss;
  ss << in.rdbuf();
  return ss.str();
}

// Whether `pid` is gone, or left only as a zombie nobody has reaped yet.
bool processGone(pid_t pid) {
  const std::string stat = readFile("/proc/" + std::to_string(pid) + "/stat");
  if (stat.empty()) return true;
  const auto close = stat.rfind(')');
  return close != std::string::npos && close + 2 < stat.size() && stat[close + 2] == 'Z';
}

// The state letter of a running process ('S' when asleep), or '?'.
char processState(pid_t pid) {
  const std::string stat = readFile("/proc/" + std::to_string(pid) + "/stat");
  const auto close = stat.rfind(')');
  return close != std::string::npos && close + 2 < stat.size() ? stat[close + 2] : '?';
}

std::string processName(pid_t pid) {
  std::string name = readFile("/proc/" + std::to_string(pid) + "/comm");
  if (!name.empty() && name.back() == '\n') name.pop_back();
  return name;
}

// Runs a short program to its end under `options`; its exit status and log.
CommandResult runToEnd(const std::vector<std::string>& argv, DaemonProcess::Options options = {}) {
  DaemonProcess process(argv.at(0), std::vector<std::string>(argv.begin() + 1, argv.end()), std::move(options));
  const auto status = process.waitForExit(20s);
  return {status.value_or(-1), process.logText()};
}

// Asks the bus for `name` with the probe, as root or as `runAs`.
CommandResult probeName(const PrivateBus& bus, const std::string& name, std::optional<RunAs> runAs = {}) {
  return runToEnd({SKERROW_BUS_NAME_PROBE, name}, {.environment = bus.environment(), .runAs = runAs});
}

std::string randomBusName() {
  std::random_device random;
  return "org.example.SkerrowHarness.N" + std::to_string(random());
}

// ---- PrivateBus ------------------------------------------------------------

TEST(PrivateBusTest, AnswersTheBusInterface) {
  SKIP_UNLESS_BUS_AVAILABLE();
  const auto busctl = findProgram("busctl");
  if (!busctl) GTEST_SKIP() << "busctl not found (package systemd)";
  PrivateBus bus(SKERROW_POLICY_FILE);

  EXPECT_EQ(bus.address(), "unix:path=" + bus.socketPath());
  EXPECT_EQ(bus.environment().at("DBUS_SYSTEM_BUS_ADDRESS"), bus.address());
  EXPECT_EQ(bus.environment().at("DBUS_SESSION_BUS_ADDRESS"), bus.address());
  const CommandResult names = runCommand({*busctl, "--address=" + bus.address(), "call", "org.freedesktop.DBus",
                                          "/org/freedesktop/DBus", "org.freedesktop.DBus", "ListNames"});
  EXPECT_EQ(names.exitCode, 0) << names.output;
  EXPECT_NE(names.output.find("\"org.freedesktop.DBus\""), std::string::npos) << names.output;
}

TEST(PrivateBusTest, RootMayOwnTheEngineName) {
  SKIP_UNLESS_BUS_AVAILABLE();
  PrivateBus bus(SKERROW_POLICY_FILE);
  const CommandResult r = probeName(bus, kEngineName);
  EXPECT_EQ(r.exitCode, 0) << r.output;
  EXPECT_EQ(r.output, std::string("owned ") + kEngineName + "\n");
}

TEST(PrivateBusTest, NobodyMayNotOwnTheEngineName) {
  SKIP_UNLESS_BUS_AVAILABLE();
  PrivateBus bus(SKERROW_POLICY_FILE);
  const CommandResult r = probeName(bus, kEngineName, RunAs{kNobody, kNobody});
  EXPECT_EQ(r.exitCode, 1) << r.output;
  EXPECT_EQ(r.output.rfind(std::string("refused ") + kEngineName + ": " + kAccessDenied + ": ", 0), 0u) << r.output;
}

TEST(PrivateBusTest, NobodyMayNotOwnAnyOtherName) {
  SKIP_UNLESS_BUS_AVAILABLE();
  PrivateBus bus(SKERROW_POLICY_FILE);
  const std::string name = randomBusName();
  const CommandResult r = probeName(bus, name, RunAs{kNobody, kNobody});
  EXPECT_EQ(r.exitCode, 1) << r.output;
  EXPECT_EQ(r.output.rfind("refused " + name + ": " + kAccessDenied + ": ", 0), 0u) << r.output;
}

// The system policy denies owning names to everyone; root gets only the
// engine's name from the production policy.
TEST(PrivateBusTest, RootMayNotOwnNamesThePolicyDoesNotGrant) {
  SKIP_UNLESS_BUS_AVAILABLE();
  PrivateBus bus(SKERROW_POLICY_FILE);
  const std::string name = randomBusName();
  const CommandResult r = probeName(bus, name);
  EXPECT_EQ(r.exitCode, 1) << r.output;
  EXPECT_NE(r.output.find(kAccessDenied), std::string::npos) << r.output;
}

// A fake user's client is refused the engine's name like any other user's,
// provided the bus itself sees the fake users.
TEST(PrivateBusTest, FakeUserIsRefusedTheEngineName) {
  SKIP_UNLESS_BUS_AVAILABLE();
  SKIP_UNLESS_USERS_AVAILABLE();
  TestUsers users;
  const TestUser& alice = users.addUser("skerrow-alice", 61001, 61001, "Alice Harness");
  PrivateBus bus(SKERROW_POLICY_FILE, users.environment());
  const CommandResult r = runToEnd({SKERROW_BUS_NAME_PROBE, kEngineName},
                                   {.environment = mergeEnvironment(bus.environment(), users.environment()),
                                    .runAs = RunAs{alice.uid, alice.gid}});
  EXPECT_EQ(r.exitCode, 1) << r.output;
  EXPECT_EQ(r.output.rfind(std::string("refused ") + kEngineName + ": " + kAccessDenied + ": ", 0), 0u) << r.output;
}

// dbus-daemon drops a connection whose uid its own name service cannot
// resolve, before any message: a bus whose clients run as fake users must be
// started with the users' environment (as above).
TEST(PrivateBusTest, BusThatDoesNotSeeAFakeUserDropsItsConnection) {
  SKIP_UNLESS_BUS_AVAILABLE();
  SKIP_UNLESS_USERS_AVAILABLE();
  TestUsers users;
  const TestUser& alice = users.addUser("skerrow-alice", 61001, 61001, "Alice Harness");
  if (runCommand({"getent", "passwd", std::to_string(alice.uid)}).exitCode == 0) {
    GTEST_SKIP() << "uid " << alice.uid << " is a real account on this machine";
  }
  PrivateBus bus(SKERROW_POLICY_FILE);
  const CommandResult r = runToEnd({SKERROW_BUS_NAME_PROBE, kEngineName},
                                   {.environment = mergeEnvironment(bus.environment(), users.environment()),
                                    .runAs = RunAs{alice.uid, alice.gid}});
  EXPECT_EQ(r.exitCode, 2) << r.output;
  EXPECT_EQ(r.output.rfind("cannot connect to the system bus: ", 0), 0u) << r.output;
}

// dbus-daemon resolves user names in a policy through its own name service,
// so a policy naming a fake user works when the daemon gets the users'
// environment.
TEST(PrivateBusTest, PolicyMayNameFakeUsersWhenTheDaemonSeesThem) {
  SKIP_UNLESS_BUS_AVAILABLE();
  SKIP_UNLESS_USERS_AVAILABLE();
  TestUsers users;
  const TestUser& alice = users.addUser("skerrow-alice", 61001, 61001, "Alice Harness");
  TempDir dir;
  const std::string policy = dir.write("alice.conf", R"(<busconfig>
  <policy user="skerrow-alice"><allow own="org.example.SkerrowHarness.Alice"/></policy>
</busconfig>
)");
  PrivateBus bus(policy, users.environment());
  const CommandResult aliceAsks =
      runToEnd({SKERROW_BUS_NAME_PROBE, "org.example.SkerrowHarness.Alice"},
               {.environment = bus.environment(), .runAs = RunAs{alice.uid, alice.gid}});
  EXPECT_EQ(aliceAsks.exitCode, 0) << aliceAsks.output << bus.logText();
  const CommandResult nobodyAsks =
      probeName(bus, "org.example.SkerrowHarness.Alice", RunAs{kNobody, kNobody});
  EXPECT_EQ(nobodyAsks.exitCode, 1) << nobodyAsks.output;
}

TEST(PrivateBusTest, ThrowsForAMissingPolicyFile) {
  SKIP_UNLESS_BUS_AVAILABLE();
  EXPECT_THROW(PrivateBus("/nonexistent/skerrow-policy.conf"), std::runtime_error);
}

TEST(PrivateBusTest, LeavesNothingBehind) {
  SKIP_UNLESS_BUS_AVAILABLE();
  pid_t pid = -1;
  std::string socket;
  {
    PrivateBus bus(SKERROW_POLICY_FILE);
    pid = bus.process().pid();
    socket = bus.socketPath();
    EXPECT_EQ(processName(pid), "dbus-daemon");
    EXPECT_TRUE(std::filesystem::exists(socket));
  }
  EXPECT_TRUE(processGone(pid));
  EXPECT_FALSE(std::filesystem::exists(std::filesystem::path(socket).parent_path()));
}

// ---- TestUsers -------------------------------------------------------------

TEST(TestUsersTest, UsersResolveThroughGetent) {
  SKIP_UNLESS_USERS_AVAILABLE();
  TestUsers users;
  const TestUser& alice = users.addUser("skerrow-alice", 61001, 61001, "Alice Harness");
  users.addUser("skerrow-bob", 61002, 61002, "Bob Harness");
  const Environment env = users.environment();

  const CommandResult byName = runToEnd({"getent", "passwd", "skerrow-alice"}, {.environment = env});
  EXPECT_EQ(byName.exitCode, 0) << byName.output;
  EXPECT_EQ(byName.output, "skerrow-alice:x:61001:61001:Alice Harness:" + alice.home + ":/bin/sh\n");

  const CommandResult byUid = runToEnd({"getent", "passwd", "61002"}, {.environment = env});
  EXPECT_EQ(byUid.exitCode, 0) << byUid.output;
  EXPECT_EQ(byUid.output.rfind("skerrow-bob:x:61002:61002:Bob Harness:", 0), 0u) << byUid.output;

  const CommandResult group = runToEnd({"getent", "group", "skerrow-alice"}, {.environment = env});
  EXPECT_EQ(group.output, "skerrow-alice:x:61001:\n");

  const CommandResult root = runToEnd({"getent", "passwd", "0"}, {.environment = env});
  EXPECT_EQ(root.output, "root:x:0:0:root:/root:/bin/sh\n");
  const CommandResult nobody = runToEnd({"getent", "passwd", "nobody"}, {.environment = env});
  EXPECT_EQ(nobody.output.rfind("nobody:x:65534:65534:", 0), 0u) << nobody.output;

  // Without the environment the machine's accounts answer, and they do not
  // have ours.
  const CommandResult machine = runCommand({"getent", "passwd", "skerrow-alice"});
  EXPECT_EQ(machine.exitCode, 2) << machine.output;
}

// Under nss_wrapper only the accounts in our files exist: no fallback to
// /etc/passwd (Debian's base-passwd always has "daemon", uid 1).
TEST(TestUsersTest, MachineAccountsAreHidden) {
  SKIP_UNLESS_USERS_AVAILABLE();
  TestUsers users;
  ASSERT_EQ(runCommand({"getent", "passwd", "daemon"}).exitCode, 0) << "no daemon account on this machine";
  const CommandResult hidden = runToEnd({"getent", "passwd", "daemon"}, {.environment = users.environment()});
  EXPECT_EQ(hidden.exitCode, 2) << hidden.output;
}

TEST(TestUsersTest, HomesBelongToTheirUsers) {
  SKIP_UNLESS_USERS_AVAILABLE();
  TestUsers users;
  users.addUser("skerrow-alice", 61001, 61001, "Alice Harness");
  EXPECT_EQ(users.home("root"), "/root");
  const std::string home = users.home("skerrow-alice");
  EXPECT_EQ(home, users.folder() + "/home/skerrow-alice");
  struct stat st {};
  ASSERT_EQ(::stat(home.c_str(), &st), 0) << home;
  EXPECT_TRUE(S_ISDIR(st.st_mode));
  EXPECT_EQ(st.st_uid, 61001u);
  EXPECT_EQ(st.st_gid, 61001u);
  EXPECT_EQ(st.st_mode & 07777, 0755u);
  EXPECT_THROW(users.home("skerrow-nobody-here"), std::out_of_range);
  EXPECT_THROW(users.addUser("skerrow-alice", 61009, 61009), std::invalid_argument);
  EXPECT_THROW(users.addUser("skerrow-carol", 61001, 61001), std::invalid_argument);
}

// A process running as a fake user, under the environment, sees its own
// name, and can write in its home.
TEST(TestUsersTest, ProcessRunsAsAFakeUser) {
  SKIP_UNLESS_USERS_AVAILABLE();
  TestUsers users;
  const TestUser& alice = users.addUser("skerrow-alice", 61001, 61001, "Alice Harness");
  users.addToGroup("skerrow-alice", 61100, "skerrow-staff");
  const DaemonProcess::Options options{.environment = users.environment(), .runAs = RunAs{alice.uid, alice.gid}};

  const CommandResult id = runToEnd({"id"}, options);
  EXPECT_EQ(id.exitCode, 0) << id.output;
  EXPECT_EQ(id.output, "uid=61001(skerrow-alice) gid=61001(skerrow-alice) groups=61001(skerrow-alice)\n");

  const CommandResult groups = runToEnd({"id", "-Gn", "skerrow-alice"}, options);
  EXPECT_EQ(groups.output, "skerrow-alice skerrow-staff\n");

  const CommandResult touch = runToEnd({"touch", alice.home + "/written"}, options);
  EXPECT_EQ(touch.exitCode, 0) << touch.output;
  struct stat st {};
  ASSERT_EQ(::stat((alice.home + "/written").c_str(), &st), 0);
  EXPECT_EQ(st.st_uid, 61001u);
}

TEST(TestUsersTest, LeavesNothingBehind) {
  SKIP_UNLESS_USERS_AVAILABLE();
  std::string folder;
  {
    TestUsers users;
    users.addUser("skerrow-alice", 61001, 61001, "Alice Harness");
    folder = users.folder();
    std::ofstream(users.home("skerrow-alice") + "/file") << "x";
    EXPECT_TRUE(std::filesystem::exists(users.passwdPath()));
  }
  EXPECT_FALSE(std::filesystem::exists(folder));
}

// ---- DaemonProcess ---------------------------------------------------------

TEST(DaemonProcessTest, CapturesOutputAndExitStatus) {
  DaemonProcess p("sh", {"-c", "echo out; echo err >&2; echo out; printf unterminated; exit 3"});
  EXPECT_EQ(p.waitForExit(10s), 3);
  EXPECT_FALSE(p.isRunning());
  EXPECT_EQ(p.exitStatus(), 3);
  EXPECT_EQ(p.logText(), "out\nerr\nout\nunterminated");
  EXPECT_EQ(p.logLines(), (std::vector<std::string>{"out", "err", "out", "unterminated"}));
  EXPECT_EQ(p.countLogLines("out"), 2u);
  EXPECT_EQ(p.countLogLines("ou"), 0u);
  EXPECT_TRUE(p.waitForLogLine("err", 1s));
  EXPECT_FALSE(p.waitForLogLine("never written", 20ms));
}

TEST(DaemonProcessTest, PassesEnvironmentAndWorkingDirectory) {
  TempDir dir;
  DaemonProcess p("sh", {"-c", "echo \"$SKERROW_HARNESS_VALUE\"; echo \"$HOME\"; pwd"},
                  {.environment = {{"SKERROW_HARNESS_VALUE", "a value"}, {"HOME", "/overridden"}},
                   .workingDirectory = dir.path()});
  EXPECT_EQ(p.waitForExit(10s), 0);
  EXPECT_EQ(p.logLines(), (std::vector<std::string>{"a value", "/overridden", dir.path()}));
  // Inherited variables are still there.
  DaemonProcess path("sh", {"-c", "echo \"$PATH\""});
  EXPECT_EQ(path.waitForExit(10s), 0);
  EXPECT_EQ(path.logLines(), (std::vector<std::string>{std::getenv("PATH") ? std::getenv("PATH") : ""}));
}

TEST(DaemonProcessTest, ReportsDeathBySignal) {
  DaemonProcess p("sh", {"-c", "kill -KILL $$"});
  EXPECT_EQ(p.waitForExit(10s), 128 + SIGKILL);
}

TEST(DaemonProcessTest, ReportsAProgramThatCannotRun) {
  TempDir dir;
  const std::string notExecutable = dir.write("not-executable", "#!/bin/sh\n");
  DaemonProcess p(notExecutable, {});
  EXPECT_EQ(p.waitForExit(10s), 127);
  EXPECT_TRUE(p.waitForLogLine("cannot execute", 1s)) << p.logText();
  EXPECT_THROW(DaemonProcess("skerrow-no-such-program", {}), std::runtime_error);
}

TEST(DaemonProcessTest, StopsASleepWithinTheTimeout) {
  DaemonProcess p("sleep", {"1000"});
  EXPECT_TRUE(p.isRunning());
  EXPECT_FALSE(p.waitForExit(20ms).has_value());
  const auto started = std::chrono::steady_clock::now();
  EXPECT_EQ(p.stop(5s), 128 + SIGTERM);
  EXPECT_LT(std::chrono::steady_clock::now() - started, 5s);
  EXPECT_FALSE(p.isRunning());
  EXPECT_TRUE(processGone(p.pid()));
}

// A program that ignores SIGTERM is killed at the deadline, together with
// what it started.
TEST(DaemonProcessTest, KillsWhatIgnoresSigtermAndItsChildren) {
  DaemonProcess p("sh", {"-c", "trap '' TERM; sleep 1000 & echo \"child $!\"; wait"});
  ASSERT_TRUE(p.waitForLogLine("child ", 10s)) << p.logText();
  const pid_t child = std::stoi(p.logLines().at(0).substr(6));
  EXPECT_FALSE(processGone(child));
  EXPECT_EQ(p.stop(200ms), 128 + SIGKILL);
  EXPECT_TRUE(eventually([&] { return processGone(child); }, 10s)) << "child " << child << " still running";
}

TEST(DaemonProcessTest, DestructorStopsTheProcess) {
  pid_t pid = -1;
  std::string log;
  {
    DaemonProcess p("sleep", {"1000"});
    pid = p.pid();
    log = p.logPath();
    EXPECT_TRUE(std::filesystem::exists(log));
  }
  EXPECT_TRUE(processGone(pid));
  EXPECT_FALSE(std::filesystem::exists(std::filesystem::path(log).parent_path()));
}

TEST(DaemonProcessTest, MeasuresCpuTime) {
  DaemonProcess idle("sleep", {"1000"});
  ASSERT_TRUE(eventually([&] { return processName(idle.pid()) == "sleep" && processState(idle.pid()) == 'S'; }, 10s));
  EXPECT_LT(idle.cpuSeconds(), 0.05);

  DaemonProcess busy("sh", {"-c", "while :; do :; done"});
  EXPECT_TRUE(eventually([&] { return busy.cpuSeconds() >= 0.1; }, 20s)) << busy.cpuSeconds();
  busy.stop(5s);
  EXPECT_GE(busy.cpuSeconds(), 0.1);  // as reported when it was reaped
  EXPECT_LT(idle.cpuSeconds(), 0.05);
}

TEST(DaemonProcessTest, RunsAsAnotherUser) {
  SKIP_UNLESS_ROOT();
  DaemonProcess p("sh", {"-c", "id -u; id -g; id -G"}, {.runAs = RunAs{kNobody, kNobody}});
  EXPECT_EQ(p.waitForExit(10s), 0);
  EXPECT_EQ(p.logLines(), (std::vector<std::string>{"65534", "65534", "65534"}));
}

}  // namespace
}  // namespace skerrow_test
