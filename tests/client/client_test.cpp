// The client library against a scripted service over real sockets: what
// goes into the requests, what comes back, and how failures read.
#include <gtest/gtest.h>

#include <set>

#include "client/gps_client.h"
#include "tests/client/scripted_service.h"

namespace gps::client::test {
namespace {

TEST(GpsClientTest, RequestsCarryOnlyTheParametersAskedAndCodesComeBack) {
  ScriptedService running;
  running.gps.script(ResponseWithFix());
  auto client = GpsClient::Connect(std::chrono::milliseconds(kWaitMs));
  ASSERT_TRUE(client) << client.error().message();

  const auto reply = client->GetState();
  ASSERT_TRUE(reply) << reply.error().message();
  ASSERT_NE(reply->state(), nullptr);
  EXPECT_EQ(reply->state()->latitude(), 288703800);
  EXPECT_TRUE(reply->poweron());
  ASSERT_TRUE(client->SetParameters(true, std::nullopt));
  ASSERT_TRUE(client->SetParameters(std::nullopt, false));

  const auto requests = running.gps.requests();
  ASSERT_EQ(requests.size(), 3u);
  EXPECT_FALSE(requests[0].has_parameters()) << "a plain read must not look like a change";
  EXPECT_TRUE(requests[1].parameters().has_poweron() && requests[1].parameters().poweron());
  EXPECT_FALSE(requests[1].parameters().has_keepon());
  EXPECT_FALSE(requests[2].parameters().has_poweron());
  EXPECT_TRUE(requests[2].parameters().has_keepon() && !requests[2].parameters().keepon());

  // Error answers carry the handler's code; the connection stays usable.
  running.gps.stateResult = kServicePermission;
  const auto refused = client->SetParameters(true, std::nullopt);
  ASSERT_FALSE(refused);
  EXPECT_EQ(refused.error().message(), "permission refused (-1000101)");
  running.gps.stateResult = kServiceNotPowered;
  EXPECT_EQ(client->GetState().error().code(), kServiceNotPowered);
}

TEST(GpsClientTest, AbsentServiceIsNotRunning) {
  gps::test::TempRoot root;
  const auto unregistered = GpsClient::Connect(std::chrono::milliseconds(50));
  ASSERT_FALSE(unregistered);
  EXPECT_EQ(unregistered.error().code(), kServiceNotRunning);

  // Registered by a live process, but nothing at the socket's address.
  service::Directory directory;
  directory.connect("", 0);
  directory.add(kServiceClass, "run/local.device.gps.sock");
  const auto noSocket = GpsClient::Connect(std::chrono::milliseconds(50));
  ASSERT_FALSE(noSocket);
  EXPECT_EQ(noSocket.error().code(), kServiceNotRunning) << noSocket.error().message();
}

TEST(ErrorTest, EveryKnownCodeHasItsOwnWords) {
  const std::vector<Code> known = {
      kServiceFailed, kServicePermission, kServiceNotPowered, kServiceNotRunning, kInvalidInput, kConfigUnreadable,
      service::ERROR_PERMISSION_DENIED, service::ERROR_NO_BINDING, service::ERROR_DECODE, service::ERROR_TIMEOUT,
      service::ERROR_DISCONNECTED, service::ERROR_SEND, service::ERROR_RESERVED, service::ERROR_NOT_FOUND,
      service::ERROR_INVALID, service::ERROR_IO, service::ERROR_PROTOCOL, service::ERROR_NO_ANSWER};
  std::set<std::string> words;
  for (const Code code : known) {
    EXPECT_EQ(Describe(code).find("unknown"), std::string::npos) << code;
    words.insert(Describe(code));
  }
  EXPECT_EQ(words.size(), known.size()) << "two codes read the same";
  EXPECT_EQ(Describe(-1000102), "unknown error");
}

}  // namespace
}  // namespace gps::client::test
