// Stored configuration: fill at attach, atomic saves, corrupt files, and
// the event for changes made by anyone but the service itself. The dispatch
// loop runs on the test's thread here, so the test decides when the service
// sees a change.
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <filesystem>
#include <fstream>
#include <sstream>

#include "tests/service_framework/service_fixture.h"

namespace halvorda::service::test {
namespace {

using device::gps::Parameters;

std::string ReadFile(const std::string& path) {
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
      {"unknown field", "brightness: 3\n"},
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
