// The process that the library is a guest in: its descriptors, signals, environment, scheduling.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sched.h>
#include <signal.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <future>
#include <iostream>
#include <latch>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "orbiq/services/platform/files/Descriptor.h"
#include "orbiq/services/platform/host/LibraryDirectory.h"
#include "tests/support/Application.h"
#include "tests/support/HttpExpectations.h"
#include "tests/support/NothingAllowed.h"
#include "tests/support/Role.h"
#include "tests/support/TemporaryDirectory.h"

namespace orbiq::test {
namespace {

/// Standard error is the writing end of a pipe of one page, or another file, meanwhile.
struct ErrorPipe {
  explicit ErrorPipe(int flags, int another = -1) {
    if (pipe2(ends, O_CLOEXEC) != 0) std::abort();
    fcntl(ends[1], F_SETPIPE_SZ, 4096);
    fcntl(ends[1], F_SETFL, O_WRONLY | flags);
    dup2(another < 0 ? ends[1] : another, STDERR_FILENO);
    close(ends[1]);
  }
  ~ErrorPipe() {
    dup2(before, STDERR_FILENO);
    close(before);
    close(ends[0]);
  }
  std::string read() const {
    std::string text(65'536, '\0');
    const ssize_t count = ::read(ends[0], text.data(), text.size());
    text.resize(count > 0 ? static_cast<std::size_t>(count) : 0);
    return text;
  }
  const int before = dup(STDERR_FILENO);
  int ends[2];
};

TEST(HostProcess, ALineThatCannotBeWrittenRaisesNoSignal) {
  const ErrorPipe pipe(0);
  close(pipe.ends[0]);
  sigset_t signals;
  SystemLog::write(LoggingModeError, "ends the process, if the signal is raised");
  pthread_sigmask(SIG_BLOCK, nullptr, &signals);
  EXPECT_EQ(sigismember(&signals, SIGPIPE), 0);
  // One that the host has pending stays, and none is added where there is none.
  sigaddset(&signals, SIGPIPE);
  pthread_sigmask(SIG_SETMASK, &signals, nullptr);
  for (const int pending : {0, 1}) {
    if (pending == 1) raise(SIGPIPE);
    SystemLog::write(LoggingModeError, "line");
    sigpending(&signals);
    EXPECT_EQ(sigismember(&signals, SIGPIPE), pending);
  }
  const TemporaryDirectory directory;
  dup2(creat((directory.path() / "log").c_str(), 0600), STDERR_FILENO);
  const NothingAllowed inFiles(RLIMIT_FSIZE);
  SystemLog::write(LoggingModeError, "ends the process, too");
}

/// Uses the agent while no thread can be started, and then flushes. Exits 0 if it says both.
const RoleRegistration kStarved("agent without threads", [](const auto&) {
  // The limit on threads does not bind root.
  if (geteuid() == 0 && setresuid(65534, 65534, 65534) != 0) return 2;
  std::optional<NothingAllowed> threads(RLIMIT_NPROC);
  const Application application(kNoServer);
  Application::tagger("ABC")->sendHit();
  const std::string failure = "no thread can be started: Resource temporarily unavailable";
  if (orbiqAgent::sharedAgent().statistics().lastFailure != failure) return 3;
  if (application.log().count("(WARNING) : The requests wait, as " + failure) != 1) return 4;
  threads.reset();
  orbiqAgent::sharedAgent().flush({});
  return application.log().waitFor("There is a thread again") ? 0 : 5;
});

TEST(HostProcess, IsToldThatThereAreNoThreads) {
  EXPECT_EQ(RoleProcess("agent without threads", {}).wait(), 0);
}

TEST(HostProcess, AFullPipeHoldsUpNoLineForEverAndCutsNoneInSilence) {
  const std::string longLine(10'000, 'x');
  for (const int flags : {0, O_NONBLOCK}) {
    ErrorPipe pipe(flags);
    std::promise<std::string> arrived;
    std::jthread reader([&] {
      std::string text;
      while (!text.ends_with('\n')) text += pipe.read();
      arrived.set_value(text);
    });
    SystemLog::write(LoggingModeError, longLine);
    EXPECT_NE(arrived.get_future().get().find(" " + longLine + "\n"), std::string::npos);
    reader.join();
    for (int i = 0; i < 3; ++i) SystemLog::write(LoggingModeError, longLine);  // to nobody
    const std::string cut = pipe.read();
    SystemLog::write(LoggingModeError, "next");
    EXPECT_TRUE(cut.ends_with("xxx"));
    const std::string next = pipe.read();
    EXPECT_TRUE(next.starts_with(" [cut short]\n2")) << next;
    EXPECT_TRUE(next.ends_with("] next\n")) << next;
  }
}

/// Its reader stays away. It says that there is room where there is too little for a line.
TEST(HostProcess, AFullTerminalHoldsUpNoLineForEver) {
  const Descriptor terminal(posix_openpt(O_RDWR | O_NOCTTY | O_CLOEXEC));
  ASSERT_EQ(grantpt(terminal.number()) + unlockpt(terminal.number()), 0);
  const Descriptor own(open(ptsname(terminal.number()), O_WRONLY | O_NOCTTY));
  const ErrorPipe away(0, own.number());
  for (int i = 0; i < 400; ++i) SystemLog::write(LoggingModeError, std::string(100, 'x'));
  // Full is full: nothing more fits, and the test has come this far.
  fcntl(own.number(), F_SETFL, O_WRONLY | O_NONBLOCK);
  EXPECT_LE(write(own.number(), "x", 1), 0);
}

/// Without descriptors 0 to 2, as a daemon may be started; none of the library's may take them.
const RoleRegistration kClosed("without-standard-descriptors", [](const auto& arguments) {
  for (const int number : {0, 1, 2}) close(number);
  auto held = std::make_unique<StandardNumbersHeld>();
  {
    const StandardNumbersHeld another;
    held.reset();
    if (fcntl(0, F_GETFD) < 0 || fcntl(2, F_GETFD) < 0) return 3;  // still held by the other
    if (dup2(0, 1) != 1) return 4;                                 // as a host may do meanwhile
  }
  if (close(1) != 0) return 5;
  Application application(arguments.at(0));
  Application::tagger("ABC")->sendHit();
  if (!application.log().waitFor("We have now 0 request(s) to handle")) return 1;
  const bool isKept = !orbiqKWDXUUIDHandler::UUID().isNull();
  int taken = 0;
  for (const int number : {0, 1, 2}) {
    if (fcntl(number, F_GETFD) >= 0) taken |= 1 << number;
  }
  return isKept ? 64 + taken : 2;
});

TEST(HostProcess, TheStandardDescriptorsStayTheHosts) {
  AccountServer server;
  EXPECT_EQ(RoleProcess("without-standard-descriptors", {server.authorizationServer()}).wait(), 64);
}

const RoleRegistration kPrivileged("with-foreign-rights", [](const auto& arguments) -> int {
  setenv("http_proxy", kNoServer, 1);
  const HttpResult result = makeHttpClient("")->send(requestFor(arguments.at(0)));
  std::cout << orbiq::libraryDirectory() << " "
            << HostApplication::current().authorizationServer.description() << " "
            << (result.response ? result.response->status : 0) << std::endl;
  _exit(0);  // nobody may look into such a program for leaks
});

TEST(HostProcess, ASetUserIdProgramDoesNotObeyItsCallersEnvironment) {
  if (geteuid() != 0) GTEST_SKIP() << "only root can make such a program";
  const ScriptedServer server([](const std::string&) { return answer(200); });
  const TemporaryDirectory place;
  const std::string program = place.path() / "program";
  std::filesystem::copy_file(std::filesystem::read_symlink("/proc/self/exe"), program);
  for (const char* name : {"ORBIQ_LIBRARY_DIRECTORY", "XDG_STATE_HOME", "HOME"}) {
    setenv(name, "/callers", 1);
  }
  setenv("ORBIQ_AUTHORIZATION_SERVER", "https://callers.example/", 1);
  ASSERT_EQ(chown(program.c_str(), 65534, 65534), 0);
  ASSERT_EQ(chmod(program.c_str(), 04755), 0);
  RoleProcess process("with-foreign-rights", {server.url()}, program);
  const std::string printed = process.readLine();
  EXPECT_EQ(process.wait(), 0);
  EXPECT_EQ(printed.find("callers"), std::string::npos) << printed;
  EXPECT_TRUE(printed.ends_with("/program/Library (null) 200")) << printed;
}

TEST(HostProcess, OnlySenderAndHandlerWorkInTheBackground) {
  const sched_param none{};
  ASSERT_EQ(sched_setscheduler(0, SCHED_BATCH, &none), 0);  // is not handed on to the loop
  std::latch gate(1);
  AccountServer server;
  server.answerHits([&](const std::string&) { return gate.wait(), answer(200); });
  const Application application(server.authorizationServer());
  Application::tagger("ABC")->sendHit();
  ASSERT_TRUE(server.server().waitForRequests(2));
  std::map<std::string, int> policies;
  for (const auto& thread : std::filesystem::directory_iterator("/proc/self/task")) {
    std::string name;
    std::getline(std::ifstream(thread.path() / "comm"), name);
    policies[name] = sched_getscheduler(std::stoi(thread.path().filename()));
  }
  gate.count_down();
  EXPECT_EQ(policies.at("orbiqRequestSen"), SCHED_BATCH);
  EXPECT_EQ(policies.at("orbiqRequestHan"), SCHED_BATCH);
  EXPECT_EQ(policies.at("orbiqMainLoop"), SCHED_OTHER);
}

}  // namespace
}  // namespace orbiq::test
