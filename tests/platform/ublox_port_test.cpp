// The u-blox side of the driver's line: the CFG-MSG rewrite as frames in and
// frames out, and where a receiver is found on a host (a fake sysfs and /dev).
#include "platform/ublox_port.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <optional>
#include <sstream>

#include "tests/support/test_env.h"

namespace {

namespace fs = std::filesystem;
namespace ublox = gps::platform::ublox;
using ublox::Port;

ublox::Bytes FromHex(const std::string& hex) {
  ublox::Bytes out;
  std::istringstream in(hex);
  for (unsigned byte; in >> std::hex >> byte;) out.push_back(static_cast<uint8_t>(byte));
  return out;
}

// Checksums worked out by hand from the frame bytes.
TEST(UbloxPort, CfgMsgEnablingOnDdcAloneIsCarriedToTheAttachedPortAndNothingElseChanges) {
  const struct {
    const char* legend;
    Port port;
    std::string in;
    std::string out;  // empty: passed on unchanged
  } cases[] = {
      {"NAV-PVT on USB", Port::Usb, "B5 62 06 01 08 00 01 07 01 00 00 00 00 00 18 E2",
       "B5 62 06 01 08 00 01 07 01 00 00 01 00 00 19 E5"},
      {"NAV-PVT on UART1", Port::Uart1, "B5 62 06 01 08 00 01 07 01 00 00 00 00 00 18 E2",
       "B5 62 06 01 08 00 01 07 01 01 00 00 00 00 19 E7"},
      {"MON-HW on USB", Port::Usb, "B5 62 06 01 08 00 0A 09 01 00 00 00 00 00 23 38",
       "B5 62 06 01 08 00 0A 09 01 00 00 01 00 00 24 3B"},
      {"AID-ALPSRV on UART2", Port::Uart2, "B5 62 06 01 08 00 0B 32 01 00 00 00 00 00 4D 5F",
       "B5 62 06 01 08 00 0B 32 01 00 01 00 00 00 4E 63"},
      {"a tool's frame naming USB", Port::Usb, "B5 62 06 01 08 00 01 07 00 00 00 01 00 00 18 DF", ""},
      {"a tool's frame naming several ports", Port::Usb, "B5 62 06 01 08 00 01 07 01 01 00 01 00 00 1A EA", ""},
      {"switching off (every rate 0)", Port::Usb, "B5 62 06 01 08 00 F0 03 00 00 00 00 00 00 02 38", ""},
      {"the 3-rate form (the port it arrives on)", Port::Usb, "B5 62 06 01 03 00 0A 09 01 1E 70", ""},
      {"a bad checksum", Port::Usb, "B5 62 06 01 08 00 01 07 01 00 00 00 00 00 18 E3", ""},
      {"a CFG-MSG poll", Port::Usb, "B5 62 06 01 02 00 01 07 11 3A", ""},
      {"a CFG-PM2 frame", Port::Usb, "B5 62 06 3B 08 00 01 07 01 00 00 00 00 00 52 60", ""},
      {"two frames in one block", Port::Usb,
       "B5 62 06 01 08 00 01 07 01 00 00 00 00 00 18 E2 B5 62 06 01 08 00 01 07 01 00 00 00 00 00 18 E2", ""},
  };
  for (const auto& c : cases) {
    const auto carried = ublox::CarryDdcRate(FromHex(c.in), c.port);
    if (c.out.empty()) {
      EXPECT_FALSE(carried) << c.legend;
    } else {
      EXPECT_EQ(carried, FromHex(c.out)) << c.legend;
    }
  }
}

// What proves a line speed and answers a set-up: whole sentences and frames
// with good checksums, and the acknowledgements among them.
TEST(UbloxPort, ScannerCountsOnlyWholeMessagesWithGoodChecksums) {
  const std::string gga = "$GPGGA,092750.000,5321.6802,N,00630.3372,W,1,8,1.03,61.7,M,55.2,M,,*76";
  std::string garbled = gga + "\r\n";
  for (char& c : garbled) c = static_cast<char>(c | 0x80);  // what a wrong line speed gives
  const auto bytes = [](const std::string& hex) {
    const auto b = FromHex(hex);
    return std::string(b.begin(), b.end());
  };
  const struct {
    const char* legend;
    std::string stream;
    int good;
    std::optional<bool> portAck;
  } cases[] = {
      {"a sentence", gga + "\r\n", 1, {}},
      {"a sentence ended by LF alone", gga + "\n", 1, {}},
      {"a wrong NMEA checksum", gga.substr(0, gga.size() - 1) + "7\r\n", 0, {}},
      {"no checksum", gga.substr(0, gga.size() - 3) + "\r\n", 0, {}},
      {"a sentence cut short", gga.substr(0, 30), 0, {}},
      {"the wrong speed", garbled + garbled, 0, {}},
      {"MON-VER poll frame", bytes("B5 62 0A 04 00 00 0E 34"), 1, {}},
      {"a wrong UBX checksum", bytes("B5 62 0A 04 00 00 0E 35"), 0, {}},
      {"ACK-ACK of CFG-PRT", bytes("B5 62 05 01 02 00 06 00 0E 37"), 1, true},
      {"ACK-NAK of CFG-PRT", bytes("B5 62 05 00 02 00 06 00 0D 32"), 1, false},
      {"ACK-ACK of CFG-MSG", bytes("B5 62 05 01 02 00 06 01 0F 38"), 1, {}},
      {"noise, then a frame and a sentence", "\xB5$\xB5\x62\xFF" + bytes("B5 62 05 01 02 00 06 00 0E 37") + gga + "\r\n", 2, true},
  };
  for (const auto& c : cases) {
    for (size_t split = 0; split <= c.stream.size(); split += 7) {
      ublox::Scanner scanner;
      const auto* data = reinterpret_cast<const uint8_t*>(c.stream.data());
      scanner.Push({data, split});
      scanner.Push({data + split, c.stream.size() - split});
      EXPECT_EQ(scanner.goodMessages(), c.good) << c.legend << ", split at " << split;
      EXPECT_EQ(scanner.Ack(0x06, 0x00), c.portAck) << c.legend;
    }
  }
}

// A host tree: an FTDI bridge (not u-blox) on ttyUSB0, optionally a u-blox
// CDC-ACM receiver on ttyACM1 (sysfs vendor 1546), a by-id link, and plain
// ttyACM nodes without sysfs entries.
class ReceiverSearch : public testing::Test {
 protected:
  void Tty(const std::string& name, const std::string& usbDevice, const std::string& vendor) {
    const fs::path device = root.path() + "/sys/devices/pci0000:00/usb1/" + usbDevice;
    fs::create_directories(device / (usbDevice + ":1.0") / "tty" / name);
    std::ofstream(device / "idVendor") << vendor << "\n";
    fs::create_directories(root / ("sys/class/tty/" + name));
    fs::create_directory_symlink(device / (usbDevice + ":1.0"), root / ("sys/class/tty/" + name + "/device"));
    Node(name);
  }
  void Node(const std::string& name) {
    fs::create_directories(root / "dev");
    std::ofstream(root / ("dev/" + name)) << "";
  }
  gps::test::TempRoot root;
};

TEST_F(ReceiverSearch, SysfsVendorFirstThenByIdThenTheOnlyAcmDevice) {
  Tty("ttyUSB0", "1-1", "0403");
  EXPECT_FALSE(ublox::FindReceiver(root.path())) << "an FTDI bridge is no u-blox receiver";
  EXPECT_EQ(ublox::PortOfDevice(root / "dev/ttyUSB0", root.path()), Port::Uart1);

  Node("ttyACM0");
  EXPECT_EQ(ublox::FindReceiver(root.path()), root / "dev/ttyACM0") << "the only ttyACM";
  Node("ttyACM2");
  EXPECT_FALSE(ublox::FindReceiver(root.path())) << "two ttyACM and nothing else: no guess";

  fs::create_directories(root / "dev/serial/by-id");
  fs::create_symlink(root / "dev/ttyACM2", root / "dev/serial/by-id/usb-u-blox_AG_-_www.u-blox.com_u-blox_GNSS_receiver-if00");
  EXPECT_EQ(ublox::FindReceiver(root.path()),
            root / "dev/serial/by-id/usb-u-blox_AG_-_www.u-blox.com_u-blox_GNSS_receiver-if00");
  EXPECT_EQ(ublox::PortOfDevice(*ublox::FindReceiver(root.path()), root.path()), Port::Usb);

  Tty("ttyACM1", "1-2", "1546");
  EXPECT_EQ(ublox::FindReceiver(root.path()), root / "dev/ttyACM1") << "the vendor id comes first";
}

}  // namespace
