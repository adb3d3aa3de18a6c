// The stored configuration written from outside the service: the file the
// framework's store reads, written whole, and noticed by a running service.
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <filesystem>

#include "client/gps_client.h"
#include "client/stored_parameters.h"
#include "tests/client/scripted_service.h"

namespace gps::client::test {
namespace {

// The parameters as the framework's store reads the file.
Parameters AsTheServiceReadsIt() {
  service::ConfigStore store(kServiceClass);
  Parameters parameters;
  EXPECT_EQ(store.attach(&parameters, false), os::ERROR_NONE);
  return parameters;
}

TEST(StoredParametersTest, UpdatesMergeIntoAFileTheServiceStoreReads) {
  gps::test::TempRoot root;
  ASSERT_TRUE(UpdateStoredParameters({.poweron = true, .keepon = std::nullopt}));
  Parameters read = AsTheServiceReadsIt();
  EXPECT_TRUE(read.has_poweron() && read.poweron());
  EXPECT_FALSE(read.has_keepon());
  const auto names = std::distance(std::filesystem::directory_iterator(root / "config"), {});
  EXPECT_EQ(names, 1) << "temporary file left beside the configuration";

  // A later change keeps what it does not name, and the file's mode.
  ::chmod(StoredParametersPath().c_str(), 0600);
  ASSERT_TRUE(UpdateStoredParameters({.poweron = std::nullopt, .keepon = false}));
  read = AsTheServiceReadsIt();
  EXPECT_TRUE(read.poweron());
  EXPECT_TRUE(read.has_keepon() && !read.keepon());
  struct stat st{};
  ASSERT_EQ(::stat(StoredParametersPath().c_str(), &st), 0);
  EXPECT_EQ(st.st_mode & 0777, 0600u);
}

TEST(StoredParametersTest, ACorruptFileIsReportedAndLeftAlone) {
  gps::test::TempRoot root;
  std::filesystem::create_directories(root / "config");
  const std::string corrupt = "poweron: true\nbrightness: 3\n";
  std::ofstream(StoredParametersPath()) << corrupt;
  const auto read = ReadStoredParameters();
  ASSERT_FALSE(read);
  EXPECT_EQ(read.error().code(), kConfigUnreadable);
  EXPECT_NE(read.error().detail().find("line 2"), std::string::npos) << read.error().detail();
  EXPECT_FALSE(UpdateStoredParameters({.poweron = false, .keepon = std::nullopt}));
  EXPECT_EQ(ReadFile(StoredParametersPath()), corrupt);
}

TEST(StoredParametersTest, ARunningServiceIsToldOfTheChange) {
  ScriptedService running;
  ASSERT_TRUE(UpdateStoredParameters({.poweron = true, .keepon = true}));
  EXPECT_TRUE(WaitFor([&] { return running.gps.configurationEvents == 1; }));
  ASSERT_TRUE(UpdateStoredParameters({.poweron = false, .keepon = std::nullopt}));
  EXPECT_TRUE(WaitFor([&] { return running.gps.configurationEvents == 2; }));
}

TEST(StoredParametersTest, Assignments) {
  struct Case {
    const char* legend;
    std::vector<std::string> input;
    std::optional<bool> poweron, keepon;
    const char* error;  // what the error names; null when accepted
  };
  const Case cases[] = {
      {"both keys", {"poweron=on", "keepon=0"}, true, false, nullptr},
      {"value in capitals", {"keepon=TRUE"}, std::nullopt, true, nullptr},
      {"later wins", {"poweron=1", "poweron=off"}, false, std::nullopt, nullptr},
      {"unknown key", {"poweron=on", "brightness=1"}, {}, {}, "'brightness'"},
      {"bad value", {"poweron=maybe"}, {}, {}, "'maybe' for poweron"},
      {"empty value", {"keepon="}, {}, {}, "'' for keepon"},
      {"no equals sign", {"poweron"}, {}, {}, "'poweron' is not key=value"},
      {"key in capitals", {"PowerOn=1"}, {}, {}, "'PowerOn'"},
      {"nothing", {}, {}, {}, "no key=value"},
  };
  for (const Case& c : cases) {
    const auto change = ParseParameterAssignments(c.input);
    if (!c.error) {
      ASSERT_TRUE(change) << c.legend << ": " << change.error().message();
      EXPECT_EQ(change->poweron, c.poweron) << c.legend;
      EXPECT_EQ(change->keepon, c.keepon) << c.legend;
    } else {
      ASSERT_FALSE(change) << c.legend;
      EXPECT_EQ(change.error().code(), kInvalidInput) << c.legend;
      EXPECT_NE(change.error().detail().find(c.error), std::string::npos) << c.legend << ": " << change.error().detail();
    }
  }
}

}  // namespace
}  // namespace gps::client::test
