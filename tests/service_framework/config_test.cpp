// Stored configuration: fill at attach, atomic saves, corrupt files, and
// the event for changes made by anyone but the service itself. The dispatch
// loop runs on the test's thread here, so the test decides when the service
// sees a change.
#include <gtest/gtest.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <functional>
#include <sstream>

#include "tests/service_framework/service_fixture.h"

namespace halvorda::service::test {
namespace {

using device::gps::Parameters;

std::string ReadFile(const std::string& path) {
  if (!std::filesystem::is_regular_file(path)) return {};  // a FIFO would wait for a writer
  std::ifstream in(path);
  std::stringstream text;
  text << in.rdbuf();
  return text.str();
}

// Replaces the file the way an editor or gps-servicectl would: write in place.
void WriteInPlace(const std::string& path, const std::string& text) { std::ofstream(path, std::ios::trunc) << text; }

// Runs the service's loop until the count of configuration events reaches
// the wanted number or, for wanted == current, for a while to show it does not.
int DispatchAndCountEvents(RunningService& running, int wanted) {
  for (int i = 0; i < 50 && running.probe.configurationEvents < wanted; ++i) running.service.dispatch(20);
  if (running.probe.configurationEvents == wanted)
    for (int i = 0; i < 5; ++i) running.service.dispatch(20);
  return running.probe.configurationEvents;
}

class ConfigTest : public ::testing::Test {
 protected:
  std::string configPath() const { return running.root / "config/local.device.gps.conf"; }
  RunningService running;
};

TEST_F(ConfigTest, AttachFillsFromTheFileAndSaveWritesTextFormat) {
  ASSERT_TRUE(gps::platform::MakeDirectories(running.root / "config"));
  WriteInPlace(configPath(), "poweron: true\n");
  const auto params = Parameters::instantiate();
  params->set_keepon(true);  // a default the file does not override
  ASSERT_EQ(running.service.attachConfig(params.get(), false), 0);
  EXPECT_TRUE(params->poweron());
  EXPECT_TRUE(params->has_keepon() && params->keepon());

  params->set_poweron(false);
  ASSERT_EQ(running.service.save(), 0);
  EXPECT_EQ(ReadFile(configPath()), "poweron: false\nkeepon: true\n");
  // No temporary file is left beside it.
  int files = 0;
  for (const auto& entry : std::filesystem::directory_iterator(running.root / "config")) files += entry.is_regular_file();
  EXPECT_EQ(files, 1);

  const auto loaded = Parameters::instantiate();
  loaded->set_poweron(true);  // load replaces, it does not merge
  ASSERT_EQ(running.service.load(*loaded), 0);
  EXPECT_TRUE(loaded->has_poweron());
  EXPECT_FALSE(loaded->poweron());
  EXPECT_TRUE(loaded->keepon());
  running.service.detachConfig();
}

TEST_F(ConfigTest, MissingFileIsCreatedOnlyWhenAsked) {
  const auto params = Parameters::instantiate();
  params->set_poweron(true);
  ASSERT_EQ(running.service.attachConfig(params.get(), false), 0);
  EXPECT_FALSE(std::filesystem::exists(configPath()));
  running.service.detachConfig();
  ASSERT_EQ(running.service.attachConfig(params.get(), true), 0);
  EXPECT_EQ(ReadFile(configPath()), "poweron: true\n");
  running.service.detachConfig();
}

TEST_F(ConfigTest, CorruptFileIsKeptAsideAndReplacedByTheDefaults) {
  struct Case {
    const char* legend;
    std::string content;
  };
  const Case cases[] = {
      {"not text format", "poweron: maybe\n"},
      {"binary", std::string("\x00\xff\x13", 3)},
      {"larger than 64 KiB", std::string(70000, '#')},
  };
  ASSERT_TRUE(gps::platform::MakeDirectories(running.root / "config"));
  for (const Case& c : cases) {
    gps::test::LogCapture log;
    WriteInPlace(configPath(), c.content);
    const auto params = Parameters::instantiate();
    params->set_keepon(false);
    ASSERT_EQ(running.service.attachConfig(params.get(), false), 0) << c.legend;
    EXPECT_FALSE(params->has_poweron()) << c.legend;
    EXPECT_EQ(ReadFile(configPath()), "keepon: false\n") << c.legend;
    EXPECT_EQ(ReadFile(configPath() + ".corrupt"), c.content) << c.legend;
    EXPECT_EQ(log.linesAt(3).size(), 1u) << c.legend;
    running.service.detachConfig();
  }
}

// A file that cannot be opened or read says nothing about its content: it is
// left exactly as it is, the message keeps what the service built, and the
// caller sees ERROR_IO with the errno; read again after an outside change, it
// leaves the accepted content as it was.
TEST_F(ConfigTest, AFileThatCannotBeReadIsLeftAsItIs) {
  ASSERT_TRUE(gps::platform::MakeDirectories(running.root / "config"));
  const std::string good = "poweron: true\nkeepon: true\n";
  const std::string fifo = running.root / "elsewhere.fifo";
  ASSERT_EQ(::mkfifo(fifo.c_str(), 0644), 0);
  // The lowest free descriptor number as limit: no open() can succeed.
  const auto withoutDescriptors = [](const std::function<void()>& call) {
    rlimit saved{};
    ::getrlimit(RLIMIT_NOFILE, &saved);
    const int lowestFree = ::dup(0);
    ::close(lowestFree);
    rlimit tight = saved;
    tight.rlim_cur = static_cast<rlim_t>(lowestFree);
    ::setrlimit(RLIMIT_NOFILE, &tight);
    call();
    ::setrlimit(RLIMIT_NOFILE, &saved);
  };
  struct Case {
    const char* legend;
    std::function<void(const std::string&)> make;
    bool descriptorsExhausted;
    int error;
  };
  const Case cases[] = {
      {"descriptor limit reached", [&](const std::string& path) { WriteInPlace(path, good); }, true, EMFILE},
      {"a link to a FIFO", [&](const std::string& path) { ASSERT_EQ(::symlink(fifo.c_str(), path.c_str()), 0); }, false,
       EINVAL},
      {"a dangling link", [](const std::string& path) { ASSERT_EQ(::symlink("/nonexistent", path.c_str()), 0); }, false,
       ENOENT},
      {"a directory", [](const std::string& path) { ASSERT_EQ(::mkdir(path.c_str(), 0755), 0); }, false, EISDIR},
  };
  for (const Case& c : cases) {
    std::filesystem::remove_all(configPath());
    c.make(configPath());
    const auto before = std::filesystem::symlink_status(configPath()).type();
    const std::string content = ReadFile(configPath());
    const auto params = Parameters::instantiate();
    params->set_keepon(false);
    gps::test::LogCapture log;
    os::Error attached = 0;
    if (c.descriptorsExhausted) {
      withoutDescriptors([&] { attached = running.service.attachConfig(params.get(), true); });
    } else {
      attached = running.service.attachConfig(params.get(), true);
    }
    EXPECT_EQ(attached, ERROR_IO) << c.legend;
    EXPECT_EQ(running.service.configReadErrno(), c.error) << c.legend;
    EXPECT_FALSE(params->has_poweron()) << c.legend;
    EXPECT_EQ(std::filesystem::symlink_status(configPath()).type(), before) << c.legend;
    EXPECT_EQ(ReadFile(configPath()), content) << c.legend;
    EXPECT_FALSE(std::filesystem::exists(configPath() + ".corrupt")) << c.legend;
    ASSERT_EQ(log.linesAt(3).size(), 1u) << c.legend;
    EXPECT_NE(log.linesAt(3)[0].find(configPath()), std::string::npos) << log.linesAt(3)[0];
    running.service.detachConfig();
  }

  // Taken over a readable file, then made unreadable from outside: no
  // event, and what was accepted stays.
  std::filesystem::remove_all(configPath());
  WriteInPlace(configPath(), good);
  const auto params = Parameters::instantiate();
  ASSERT_EQ(running.service.attachConfig(params.get(), false), 0);
  ASSERT_TRUE(params->poweron());
  ASSERT_EQ(::unlink(configPath().c_str()), 0);
  ASSERT_EQ(::symlink("/nonexistent", configPath().c_str()), 0);
  EXPECT_EQ(DispatchAndCountEvents(running, 0), 0);
  EXPECT_EQ(running.service.acceptConfig(), ERROR_IO);
  const auto stored = Parameters::instantiate();
  ASSERT_EQ(running.service.load(*stored), 0);
  EXPECT_TRUE(stored->poweron() && stored->keepon());
  EXPECT_TRUE(std::filesystem::is_symlink(configPath()));
  running.service.detachConfig();
}

// A key this version does not know (a file from a newer one) is skipped with
// one warning naming it; the known keys keep their values and the file stays.
TEST_F(ConfigTest, AnUnknownKeyIsSkippedAndTheOthersKeepTheirValues) {
  ASSERT_TRUE(gps::platform::MakeDirectories(running.root / "config"));
  const std::string content = "poweron: true\nbrightness: 3\nkeepon: true\n";
  WriteInPlace(configPath(), content);
  gps::test::LogCapture log;
  const auto params = Parameters::instantiate();
  ASSERT_EQ(running.service.attachConfig(params.get(), false), 0);
  EXPECT_TRUE(params->poweron() && params->keepon());
  ASSERT_EQ(running.service.acceptConfig(), 0);  // the same content again: no second warning
  const auto stored = Parameters::instantiate();
  ASSERT_EQ(running.service.load(*stored), 0);
  EXPECT_TRUE(stored->poweron() && stored->keepon());
  EXPECT_EQ(ReadFile(configPath()), content);
  EXPECT_FALSE(std::filesystem::exists(configPath() + ".corrupt"));
  EXPECT_TRUE(log.linesAt(3).empty());
  ASSERT_EQ(log.linesAt(4).size(), 1u);
  EXPECT_NE(log.linesAt(4)[0].find("\"brightness\""), std::string::npos) << log.linesAt(4)[0];
  running.service.detachConfig();
}

TEST_F(ConfigTest, OutsideChangesRaiseTheEventAndOwnSavesDoNot) {
  const auto params = Parameters::instantiate();
  ASSERT_EQ(running.service.attachConfig(params.get(), true), 0);

  // The service's own saves, repeated: no event.
  params->set_poweron(true);
  ASSERT_EQ(running.service.save(), 0);
  params->set_keepon(true);
  ASSERT_EQ(running.service.save(), 0);
  EXPECT_EQ(DispatchAndCountEvents(running, 0), 0);

  // Written in place by someone else: one event; the new content is read
  // once accepted, and the attached message is left to the service.
  WriteInPlace(configPath(), "poweron: false\nkeepon: true\n");
  EXPECT_EQ(DispatchAndCountEvents(running, 1), 1);
  const auto stored = Parameters::instantiate();
  ASSERT_EQ(running.service.load(*stored), 0);
  EXPECT_TRUE(stored->poweron()) << "load follows acceptConfig, not the file";
  ASSERT_EQ(running.service.acceptConfig(), 0);
  ASSERT_EQ(running.service.load(*stored), 0);
  EXPECT_FALSE(stored->poweron());
  EXPECT_TRUE(params->poweron());

  // Replaced by rename (gps-servicectl, editors that save atomically): one event.
  const std::string temp = running.root / "config/edit.tmp";
  WriteInPlace(temp, "poweron: true\n");
  ASSERT_EQ(::rename(temp.c_str(), configPath().c_str()), 0);
  EXPECT_EQ(DispatchAndCountEvents(running, 2), 2);

  // The same content written again is no change.
  WriteInPlace(configPath(), "poweron: true\n");
  EXPECT_EQ(DispatchAndCountEvents(running, 2), 2);

  // Garbage from outside: replaced by the defaults (the message as attached,
  // empty), which is a change of the stored configuration.
  WriteInPlace(configPath(), "poweron: {\n");
  EXPECT_EQ(DispatchAndCountEvents(running, 3), 3);
  EXPECT_EQ(ReadFile(configPath()), "");
  ASSERT_EQ(running.service.acceptConfig(), 0);
  ASSERT_EQ(running.service.load(*stored), 0);
  EXPECT_FALSE(stored->has_poweron());

  // Removed: a change to the defaults as well, once.
  params->set_poweron(true);
  ASSERT_EQ(running.service.save(), 0);
  ASSERT_EQ(::unlink(configPath().c_str()), 0);
  EXPECT_EQ(DispatchAndCountEvents(running, 4), 4);
  running.service.detachConfig();
}

}  // namespace
}  // namespace halvorda::service::test
