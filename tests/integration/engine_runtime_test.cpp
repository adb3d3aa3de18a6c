// The running engine, driven only through its public API as the service
// drives it, with a simulated receiver on a real serial line.
#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <iterator>
#include <poll.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include "engine/gps_events.h"
#include "engine/gps_geolocating.h"
#include "engine/gps_thread.h"
#include "param/gps_parameters.h"
#include "platform/root.h"
#include "sim/modem_channel.h"
#include "sim/nmea_generator.h"
#include "tests/integration/engine_process.h"
#include "tests/sim/sim_test_support.h"
#include "tests/support/pty_receiver.h"

namespace {

using namespace std::chrono_literals;
using gps::test::InEngineProcess;
using gps::test::SimulatedReceiver;
using gps::test::WaitFor;
using Kind = std::pair<int, int>;

gps::sim::EmbeddedOptions QuickFix(bool antOffPolarity = false) {
  gps::sim::EmbeddedOptions options;
  options.ttffMs = 300;
  options.antOffPolarity = antOffPolarity;
  return options;
}

struct Position {
  char longitude[16] = {};
  char latitude[16] = {};
  uint32_t age = 0;
  int32_t result = 0;
};
Position GetPosition(uint32_t flags) {
  Position p;
  p.result = lib_GPS_Geolocating_GPS_GetPosition(p.longitude, p.latitude, &p.age, flags);
  return p;
}

bool Configured() {
  char sw[32] = {}, hw[16] = {}, e1[32] = {}, e2[32] = {}, e3[32] = {}, e4[32] = {};
  return lib_GPS_Geolocating_GPS_GetVersion(sw, hw, e1, e2, e3, e4) == GEOLOCATING_GPS_ERROR_SUCCESS;
}

bool Signalled(int eventFd) {
  uint64_t value = 0;
  return read(eventFd, &value, sizeof value) == sizeof value;
}

class EngineRuntime : public testing::TestWithParam<bool> {
 protected:
  gps::test::TempRoot root_;
};

// Power on: the version poll, then the configuration sequence of the mode the
// optional parameters choose, then a fix that turns old once the receiver is
// off, and survives as the stored fix into the next engine life.
TEST_P(EngineRuntime, PowerOnConfiguresTheReceiverAndTheFixOutlivesTheEngine) {
  const bool expert = GetParam();
  InEngineProcess([&] {
    SimulatedReceiver sim(root_, QuickFix(), expert ? "[Expertise]\nexpertModeIsEnabled = 1\n" : "");
    gps_dll_init();
    EXPECT_EQ(GetPosition(GEOLOCATING_GPS_ACCEPT_ONLY_CURRENT_FIX).result, GEOLOCATING_GPS_ERROR_NO_FIX_YET);
    EXPECT_TRUE(sim.Frames().empty()) << "nothing is sent before power-on";

    lib_GPS_Geolocating_GPS_SetPower(1);
    // The driver's port set-up and GNSS start, then the engine's version poll and sequence.
    std::vector<Kind> expected = {{0x06, 0x00}, {0x06, 0x04}, {0x0A, 0x04}, {0x0A, 0x0D}, {0x06, 0x41},
                                  {0x06, 0x01}, {0x06, 0x01}, {0x06, 0x01}, {0x06, 0x01}};
    if (expert) expected.insert(expected.end(), {{0x06, 0x23}, {0x06, 0x01}, {0x06, 0x01}, {0x06, 0x01}, {0x06, 0x11}});
    expected.insert(expected.end(), {{0x06, 0x3B}, {0x06, 0x11}});
    ASSERT_TRUE(WaitFor([&] { return sim.Frames().size() >= expected.size(); }));
    std::vector<Kind> sent;
    for (const auto& f : sim.Frames()) sent.emplace_back(f[2], f[3]);
    sent.resize(expected.size());
    EXPECT_EQ(sent, expected);

    ASSERT_TRUE(WaitFor([] { return GetPosition(GEOLOCATING_GPS_ACCEPT_ONLY_CURRENT_FIX).result == 0; }));
    const Position fix = GetPosition(GEOLOCATING_GPS_ACCEPT_ONLY_CURRENT_FIX);
    EXPECT_EQ(std::string(fix.latitude).substr(0, 3), "485") << fix.latitude;  // the route through Paris
    EXPECT_EQ(std::string(fix.latitude).back(), 'N');
    EXPECT_EQ(std::string(fix.longitude).back(), 'E');

    lib_GPS_Geolocating_GPS_SetPower(0);
    const auto off = std::chrono::steady_clock::now();
    ASSERT_TRUE(WaitFor([] {
      return GetPosition(GEOLOCATING_GPS_ACCEPT_ONLY_CURRENT_FIX).result == GEOLOCATING_GPS_ERROR_OLD_COORDINATES;
    }));
    EXPECT_GT(std::chrono::steady_clock::now() - off, 1500ms) << "a fix stays current for 2 s";
  });

  InEngineProcess([&] {
    SimulatedReceiver sim(root_, QuickFix());
    gps_dll_init();
    const Position stored = GetPosition(GEOLOCATING_GPS_ACCEPT_OLD_FIX);
    EXPECT_EQ(stored.result, GEOLOCATING_GPS_ERROR_OLD_COORDINATES);
    EXPECT_EQ(std::string(stored.latitude).substr(0, 3), "485") << stored.latitude;
    // The heartbeat the service's watchdog follows moves with the receiver off.
    const uint32_t passes = lib_GPS_thread_passes.load();
    EXPECT_TRUE(WaitFor([&] { return lib_GPS_thread_passes.load() != passes; }, 1500ms));
  });
}

INSTANTIATE_TEST_SUITE_P(StandardAndExpert, EngineRuntime, testing::Bool(),
                         [](const testing::TestParamInfo<bool>& info) { return info.param ? "Expert" : "Standard"; });

// The two reads that wait for the receiver, the commands that program it, the
// listeners and the assistance mode.
TEST(EngineControl, RendezvousCommandsListenersAndAssistance) {
  gps::test::TempRoot root;
  InEngineProcess([&] {
    SimulatedReceiver sim(root, QuickFix(/*antOffPolarity=*/true));
    gps_dll_init();

    uint32_t period = 0;
    int32_t polarity = 7;
    EXPECT_EQ(lib_GPS_Geolocating_GPS_GetFixUpdatePeriodInms(&period), 0) << "off: the configured period";
    EXPECT_EQ(period, 1000u);
    EXPECT_EQ(lib_GPS_Geolocating_GPS_GetAntOffEFusePolarity(&polarity), GEOLOCATING_GPS_ERROR_NOT_POWERED);
    EXPECT_EQ(polarity, -1);
    for (uint32_t wrong : {999u, 86400001u})
      EXPECT_EQ(lib_GPS_Geolocating_GPS_SetFixUpdatePeriodInms(&wrong), GEOLOCATING_GPS_ERROR_INVALID_PARAMETER);

    const int onMessage = eventfd(0, EFD_NONBLOCK), onVersion = eventfd(0, EFD_NONBLOCK),
              onReset = eventfd(0, EFD_NONBLOCK);
    lib_GPS_Geolocating_GPS_AddEventListener(static_cast<uint16_t>(onMessage), GPS_EVENT_MESSAGE);
    lib_GPS_Geolocating_GPS_AddEventListener(static_cast<uint16_t>(onVersion), GPS_EVENT_VERSION);
    lib_GPS_Geolocating_GPS_AddEventListener(static_cast<uint16_t>(onReset), GPS_EVENT_MODULE_RESET);

    lib_GPS_Geolocating_GPS_SetPower(1);
    ASSERT_TRUE(WaitFor(Configured));
    EXPECT_TRUE(Signalled(onMessage));
    EXPECT_TRUE(Signalled(onVersion));
    EXPECT_FALSE(Signalled(onReset));

    uint32_t requested = 2000;
    EXPECT_EQ(lib_GPS_Geolocating_GPS_SetFixUpdatePeriodInms(&requested), 0);
    EXPECT_TRUE(WaitFor([&] {
      for (const auto& f : sim.Frames(0x06, 0x3B))
        if (f.size() == 52 && gps::sim::testing::U32(f, 6 + 8) == 2000) return true;
      return false;
    })) << "CFG-PM2 with the new period";
    EXPECT_EQ(lib_GPS_Geolocating_GPS_GetFixUpdatePeriodInms(&period), 0);
    EXPECT_EQ(period, 2000u) << "as the receiver reports it";
    EXPECT_EQ(gps_parameters.requestedFixUpdatePeriodInms, 2000) << "and kept in the parameters";

    EXPECT_EQ(lib_GPS_Geolocating_GPS_GetAntOffEFusePolarity(&polarity), 0);
    EXPECT_EQ(polarity, 1);
    EXPECT_EQ(lib_GPS_Geolocating_GPS_SetAntOffPioPolarity(), 0);
    EXPECT_TRUE(WaitFor([&] {
      for (const auto& f : sim.Frames(0x06, 0x41))
        if (f.size() > 8) return true;  // the write, not the poll
      return false;
    })) << "CFG-OTP write";

    const size_t before = sim.Frames().size();
    EXPECT_EQ(lib_GPS_Geolocating_GPS_ColdStart(), 0);
    ASSERT_TRUE(WaitFor([&] { return sim.Frames().size() >= before + 2; }));
    const auto frames = sim.Frames();
    EXPECT_EQ(Kind(frames[before][2], frames[before][3]), Kind(0x06, 0x04)) << "CFG-RST first";
    EXPECT_EQ(Kind(frames[before + 1][2], frames[before + 1][3]), Kind(0x0A, 0x04))
        << "the record was reset: the version is asked again";
    EXPECT_TRUE(WaitFor([&] { return Signalled(onReset); })) << "the receiver's reset notice reaches listeners";

    uint32_t mode = 9;
    EXPECT_EQ(lib_GPS_Geolocating_GPS_SetAssistanceMode(4), 0);
    lib_GPS_Geolocating_GPS_GetAssistanceMode(&mode);
    EXPECT_EQ(mode, 0u) << "4 is no mode";
    EXPECT_EQ(lib_GPS_Geolocating_GPS_SetAssistanceMode(1), 0);
    EXPECT_TRUE(WaitFor([&] { return lib_GPS_Geolocating_GPS_GetAssistanceMode(&mode) == 0 && mode == 129; }))
        << "online assistance without its file: " << mode;
    EXPECT_EQ(lib_GPS_param_GetAssistancePolicy(), 1);
  });
}

// A receiver that never answers: the period read gives up after five
// one-second waits, having asked five times.
TEST(EngineControl, FixPeriodReadTimesOutWhenTheReceiverNeverAnswers) {
  gps::test::TempRoot root;
  InEngineProcess([&] {
    gps::test::PtyReceiver silent(root);
    std::ofstream(root / "platform.ini", std::ios::app) << "port = usb\n";  // one set-up attempt of 1 s
    gps_dll_init();
    lib_GPS_Geolocating_GPS_SetPower(1);
    silent.Drain(200);
    uint32_t period = 0;
    const auto start = std::chrono::steady_clock::now();
    EXPECT_EQ(lib_GPS_Geolocating_GPS_GetFixUpdatePeriodInms(&period), GEOLOCATING_GPS_ERROR_TIMEOUT);
    const auto took = std::chrono::steady_clock::now() - start;
    EXPECT_GT(took, 4500ms);
    EXPECT_LT(took, 7000ms);
    EXPECT_EQ(period, 1000u) << "the configured period stays in the output";
    int polls = 0;
    for (const auto& f : silent.DrainFrames(200)) polls += f[2] == 0x06 && f[3] == 0x3B && f.size() == 8;
    EXPECT_EQ(polls, 5);
  });
}

// Module traces hold exactly the messages that travelled while logging was
// on: everything read from the receiver and every frame sent to it.
TEST(EngineControl, ModuleTraceHoldsTheTrafficWhileLoggingIsOn) {
  gps::test::TempRoot root;
  InEngineProcess([&] {
    SimulatedReceiver sim(root, QuickFix());
    gps_dll_init();
    lib_GPS_Geolocating_GPS_LogDataStart();
    lib_GPS_Geolocating_GPS_SetPower(1);
    ASSERT_TRUE(WaitFor([] { return GetPosition(GEOLOCATING_GPS_ACCEPT_ONLY_CURRENT_FIX).result == 0; }));
    lib_GPS_Geolocating_GPS_LogDataStop();
    // The engine's frames as it traced them: without the driver's own port
    // set-up and GNSS start, and with CFG-MSG enabling on DDC only, before
    // the driver carried the rate to USB.
    std::vector<std::vector<uint8_t>> sent;
    for (auto f : sim.Frames()) {
      if (f[2] == 0x06 && (f[3] == 0x00 || (f[3] == 0x04 && f[8] >= 0x08))) continue;
      if (f[2] == 0x06 && f[3] == 0x01 && f.size() == 16 && f[8] == f[11])
        f = gps::sim::testing::Frame(0x06, 0x01, {f[6], f[7], f[8], 0, 0, 0, 0, 0});
      sent.push_back(f);
    }

    char path[128] = {};
    uint32_t enabled = 1;
    lib_GPS_Geolocating_GPS_GetLogDataState(path, sizeof path, &enabled);
    EXPECT_EQ(enabled, 0u);
    const std::string file = root.path() + path;
    ASSERT_NE(std::string(path).find("/home/LEGACY_FS/HOST/GpsLog_"), std::string::npos) << path;
    const auto read = [&] {
      std::ifstream in(file, std::ios::binary);
      return std::string(std::istreambuf_iterator<char>(in), {});
    };
    std::this_thread::sleep_for(1200ms);  // more than one fix period
    const std::string trace = read();

    const auto parsed = gps::sim::testing::Parse(trace);
    EXPECT_TRUE(parsed.wellFormed) << "whole messages only";
    EXPECT_FALSE(parsed.Sentences("GGA").empty());
    std::vector<std::vector<uint8_t>> traced;
    for (const auto& f : parsed.ubx) traced.push_back(gps::sim::testing::Frame(f.cls, f.id, f.payload));
    // Every frame the receiver got is in the trace, in order, among the
    // receiver's own frames.
    size_t at = 0;
    for (const auto& frame : traced) at += at < sent.size() && frame == sent[at];
    EXPECT_EQ(at, sent.size()) << "frames sent and traced";
    EXPECT_EQ(read().size(), trace.size()) << "nothing recorded after the stop";
  });
}

// Reads the tool's side of the transparent device until a GGA sentence came.
bool ToolReceivesSentences(int master) {
  std::string received;
  return WaitFor([&] {
    char buffer[4096];
    const ssize_t n = read(master, buffer, sizeof buffer);
    if (n > 0) received.append(buffer, static_cast<size_t>(n));
    return received.find("GGA,") != std::string::npos;
  });
}

int LinesStartingWith(const gps::test::LogCapture& log, const std::string& start) {
  int n = 0;
  for (const auto& line : log.lines()) n += line.rfind(start, 0) == 0;
  return n;
}

// The transparent device: bytes from the receiver reach the tool, frames from
// the tool reach the receiver, and the tool going away is survived: its
// device is tried again each second until it is back.
TEST(EngineControl, TransparentDeviceForwardsBothWaysAndComesBackAfterTheToolLeft) {
  gps::test::TempRoot root;
  InEngineProcess([&] {
    // The engine thread logs until the process ends, so the capture must not
    // end before it.
    auto& log = *new gps::test::LogCapture;
    // The device name fits its 15 characters as a link relative to the
    // working directory; the link is pointed at the tool's next terminal.
    ASSERT_EQ(chdir(root.path().c_str()), 0);
    const gps::test::RawPty tool = gps::test::OpenRawPty();
    std::filesystem::create_symlink(tool.slave, root / "tool");
    SimulatedReceiver sim(root, QuickFix(), "[Expertise]\ntransparent = tool\n");
    gps_dll_init();
    lib_GPS_Geolocating_GPS_SetPower(1);
    ASSERT_TRUE(ToolReceivesSentences(tool.master)) << "receiver traffic on the tool's side";

    const auto poll = gps::sim::testing::Frame(0x06, 0x01, {0x01, 0x07});  // CFG-MSG poll of NAV-PVT
    ASSERT_EQ(write(tool.master, poll.data(), poll.size()), static_cast<ssize_t>(poll.size()));
    EXPECT_TRUE(WaitFor([&] {
      for (const auto& f : sim.Frames(0x06, 0x01))
        if (f == poll) return true;
      return false;
    })) << "the tool's frame reaches the receiver";

    // The tool leaves and its terminal with it (the link would otherwise name
    // whatever terminal takes the number next).
    close(tool.master);
    std::filesystem::remove(root / "tool");
    EXPECT_TRUE(WaitFor([&] { return log.contains("[GPS] selected() com_transp_handle recv() 0, device closed()."); }));
    const std::string gone = "lib_GPS_thread: TRANSPARENT device [tool] is gone; trying it again once a second";
    ASSERT_TRUE(WaitFor([&] { return log.contains(gone); })) << "its one reopen failed";
    uint32_t period = 0;
    EXPECT_EQ(lib_GPS_Geolocating_GPS_GetFixUpdatePeriodInms(&period), 0) << "the engine thread still serves";
    EXPECT_EQ(lib_GPS_Geolocating_GPS_SetTransparentDevice("/dev/a-name-too-long"),
              GEOLOCATING_GPS_ERROR_INVALID_PARAMETER);

    std::this_thread::sleep_for(2500ms);  // a few failed tries, said nowhere
    const gps::test::RawPty next = gps::test::OpenRawPty();
    std::filesystem::create_symlink(next.slave, root / "tool");
    EXPECT_TRUE(ToolReceivesSentences(next.master)) << "forwarding resumes on the device that came back";
    EXPECT_EQ(log.count(gone), 1);
    EXPECT_EQ(LinesStartingWith(log, "lib_GPS_thread: TRANSPARENT device [tool] is back=>"), 1);
  });
}

// The modem software exits while its receiver is off: the channel that hung
// up leaves the wait, so the engine thread idles instead of spinning, keeps
// serving its requests, and opens the channel again once the modem is back.
TEST(EngineControl, GprsChannelHangUpLeavesTheEngineIdleAndServing) {
  gps::test::TempRoot root;
  InEngineProcess([&] {
    std::ofstream(root / "platform.ini") << "[platform]\nmodule_type = 0\n";
    gps::platform::ReloadRoot();
    std::filesystem::create_directories(root / "tmp");
    const auto startModem = [&] {
      const gps::test::RawPty pty = gps::test::OpenRawPty();
      std::filesystem::remove(root / "tmp/gps_dgprs");
      std::filesystem::create_symlink(pty.slave, root / "tmp/gps_dgprs");
      gps::sim::ModemConfig config;
      config.fixPeriodMs = 200;
      config.ttffMs = 0;
      auto modem = std::make_unique<gps::sim::ModemChannel>(
          pty.master, gps::sim::ModemGps(config, gps::sim::Scenario::FixedPoint({-33.8688, 151.2093, 20})));
      std::string error;
      EXPECT_TRUE(modem->Start(&error)) << error;
      return modem;
    };
    auto modem = startModem();
    gps_dll_init();
    std::this_thread::sleep_for(200ms);
    // The modem software exits: its end of the channel hangs up, and its link
    // goes (a stale link could name another program's terminal).
    modem.reset();
    std::filesystem::remove(root / "tmp/gps_dgprs");
    std::this_thread::sleep_for(200ms);

    const auto cpuBefore = gps::test::EngineThreadCpuTime();
    const auto wallBefore = std::chrono::steady_clock::now();
    std::this_thread::sleep_for(5s);
    const auto cpu = gps::test::EngineThreadCpuTime() - cpuBefore;
    const auto wall = std::chrono::steady_clock::now() - wallBefore;
    std::printf("engine thread CPU with the channel hung up: %.3f ms over %.1f s (%.3f %% of a core)\n",
                std::chrono::duration<double, std::milli>(cpu).count(), std::chrono::duration<double>(wall).count(),
                100.0 * std::chrono::duration<double>(cpu).count() / std::chrono::duration<double>(wall).count());
    EXPECT_LT(cpu * 100, wall) << "under 1 % of a core";

    lib_GPS_Geolocating_GPS_SetPower(1);
    EXPECT_TRUE(WaitFor([] {
      pollfd request{CHANGE_POWER_STATE_eventfd, POLLIN, 0};
      return poll(&request, 1, 0) == 0;
    }, 2s)) << "the power request is taken while the modem is away";

    modem = startModem();
    EXPECT_TRUE(WaitFor([] { return GetPosition(GEOLOCATING_GPS_ACCEPT_ONLY_CURRENT_FIX).result == 0; }))
        << "the channel is opened again and the receiver run as requested";

    // The same with the receiver running: the read that finds the hang-up
    // takes the channel out, and the modem that comes back is run again.
    modem.reset();
    std::filesystem::remove(root / "tmp/gps_dgprs");
    std::this_thread::sleep_for(2500ms);  // the fix turns old
    const auto runningBefore = gps::test::EngineThreadCpuTime();
    std::this_thread::sleep_for(1s);
    EXPECT_LT((gps::test::EngineThreadCpuTime() - runningBefore) * 100, 1s) << "under 1 % of a core";
    modem = startModem();
    EXPECT_TRUE(WaitFor([] { return GetPosition(GEOLOCATING_GPS_ACCEPT_ONLY_CURRENT_FIX).result == 0; }))
        << "run again after the second hang-up";
  });
}

// The GPRS modem's receiver: version and run at power-on over the command
// channel, fixes from the NMEA stream on the same line, stop at power-off.
TEST(EngineControl, GprsModemReceiverIsRunFromItsCommandChannel) {
  gps::test::TempRoot root;
  InEngineProcess([&] {
    std::ofstream(root / "platform.ini") << "[platform]\nmodule_type = 0\n";
    gps::platform::ReloadRoot();
    const gps::test::RawPty pty = gps::test::OpenRawPty();
    std::filesystem::create_directories(root / "tmp");
    std::filesystem::create_symlink(pty.slave, root / "tmp/gps_dgprs");
    gps::sim::ModemConfig config;
    config.versionText = "MODEM GNSS 4.2";
    config.fixPeriodMs = 200;
    config.ttffMs = 0;
    gps::sim::ModemChannel modem(pty.master,
                                 gps::sim::ModemGps(config, gps::sim::Scenario::FixedPoint({-33.8688, 151.2093, 20})));
    std::string error;
    ASSERT_TRUE(modem.Start(&error)) << error;

    gps_dll_init();
    // Power through the stored power-on parameter: the engine takes the
    // requested state from it.
    EXPECT_EQ(lib_GPS_Geolocating_GPS_SetPowerOnParameter(1), 0);
    ASSERT_TRUE(WaitFor([] { return GetPosition(GEOLOCATING_GPS_ACCEPT_ONLY_CURRENT_FIX).result == 0; }));
    uint32_t on = 0;
    lib_GPS_Geolocating_GPS_GetPower(&on);
    EXPECT_EQ(on, 1u);
    const Position fix = GetPosition(GEOLOCATING_GPS_ACCEPT_ONLY_CURRENT_FIX);
    EXPECT_EQ(std::string(fix.latitude).substr(0, 4), "3352") << fix.latitude;
    EXPECT_EQ(std::string(fix.latitude).back(), 'S');
    EXPECT_EQ(std::string(fix.longitude).back(), 'E');

    char sw[32] = {}, hw[16] = {}, e1[32] = {}, e2[32] = {}, e3[32] = {}, e4[32] = {};
    EXPECT_EQ(lib_GPS_Geolocating_GPS_GetVersion(sw, hw, e1, e2, e3, e4), GEOLOCATING_GPS_ERROR_NO_VERSION)
        << "no u-blox version behind a modem";
    EXPECT_STREQ(sw, "MODEM GNSS 4.2");

    lib_GPS_Geolocating_GPS_SetPower(0);
    EXPECT_TRUE(WaitFor([&] { return !modem.running(); })) << "stopped";
    EXPECT_EQ(modem.ReceivedCommands(), (std::vector<uint32_t>{0x812C, 0x812D, 0x812E}));

    // Another channel by name: the engine leaves the first one for it.
    const gps::test::RawPty other = gps::test::OpenRawPty();
    gps::sim::ModemChannel second(other.master,
                                  gps::sim::ModemGps(config, gps::sim::Scenario::FixedPoint({48.8566, 2.3522, 35})));
    ASSERT_TRUE(second.Start(&error)) << error;
    ASSERT_EQ(lib_GPS_Geolocating_GPS_SetModuleDevice(other.slave.c_str()), 0);
    ASSERT_TRUE(WaitFor([] {
      pollfd request{CHANGE_MODULE_DEVICE_eventfd, POLLIN, 0};
      return poll(&request, 1, 0) == 0;
    }));
    std::this_thread::sleep_for(200ms);  // the switch ends with the receiver off: power it after
    lib_GPS_Geolocating_GPS_SetPower(1);
    EXPECT_TRUE(WaitFor([] {
      const Position p = GetPosition(GEOLOCATING_GPS_ACCEPT_ONLY_CURRENT_FIX);
      return p.result == 0 && std::string(p.latitude).substr(0, 4) == "4851";
    })) << "fixes from the second modem";
    EXPECT_EQ(second.ReceivedCommands(), (std::vector<uint32_t>{0x812C, 0x812D}));
    EXPECT_EQ(modem.commandCount(), 3u) << "nothing more on the first channel";
  });
}

// A receiver that sends sentences but never answers the version poll is
// asked again at its next data once more than 200 ticks have passed.
TEST(EngineControl, VersionPollIsRepeatedAfter200TicksOfTraffic) {
  gps::test::TempRoot root;
  InEngineProcess([&] {
    gps::test::PtyReceiver receiver(root, 2, /*answers=*/true, /*answersVersion=*/false);
    std::ofstream(root / "platform.ini", std::ios::app) << "port = usb\n";
    gps::test::ManualTicks ticks;
    gps_dll_init();
    const int onMessage = eventfd(0, EFD_NONBLOCK);
    lib_GPS_Geolocating_GPS_AddEventListener(static_cast<uint16_t>(onMessage), GPS_EVENT_MESSAGE);
    lib_GPS_Geolocating_GPS_SetPower(1);
    const std::string sentence = gps::sim::NmeaGenerator::Txt("GP", 2, "ANTSTATUS=OK");
    const auto exchange = [&] {
      EXPECT_TRUE(WaitFor([&] {
        receiver.Send(sentence);
        return WaitFor([&] { return Signalled(onMessage); }, 100ms);
      })) << "the engine analyses the sentence";
      int polls = 0;
      for (const auto& f : receiver.DrainFrames(200)) polls += f[2] == 0x0A && f[3] == 0x04 && f.size() == 8;
      return polls;
    };
    EXPECT_EQ(exchange(), 1) << "the first data brings the poll";
    ticks.advance(200);
    EXPECT_EQ(exchange(), 0) << "200 ticks are not more than 200";
    ticks.advance(1);
    EXPECT_EQ(exchange(), 1) << "201 ticks are";
  });
}

}  // namespace
