#include "platform/message_align.h"

#include <algorithm>
#include <cstring>
#include <string_view>

#include "platform/os.h"

namespace gps::platform {
namespace {

constexpr uint8_t kNmeaStart = '$';
constexpr uint8_t kUbxSync1 = 0xB5;
constexpr uint8_t kUbxSync2 = 0x62;
constexpr size_t kUbxOverhead = 8;  // sync, class, id, length, checksum

enum class Unit { Complete, Incomplete };

// Length of the unit starting at bytes[0] within `window` (bytes the chunk may
// still take); Incomplete when it needs bytes that have not arrived yet.
Unit MeasureUnit(std::span<const uint8_t> bytes, size_t window, size_t& length) {
  const uint8_t first = bytes[0];
  if (first == kNmeaStart) {
    const size_t span = std::min(bytes.size(), window);
    const void* lf = std::memchr(bytes.data(), '\n', span);
    if (lf) {
      length = static_cast<size_t>(static_cast<const uint8_t*>(lf) - bytes.data()) + 1;
      return Unit::Complete;
    }
    if (bytes.size() >= window) {
      length = window;  // a sentence longer than any chunk: pass it on in pieces
      return Unit::Complete;
    }
    return Unit::Incomplete;
  }
  if (first == kUbxSync1) {
    if (bytes.size() < 2) return Unit::Incomplete;
    if (bytes[1] != kUbxSync2) {
      length = 1;
      return Unit::Complete;
    }
    if (bytes.size() < 6) return Unit::Incomplete;
    const size_t frame = kUbxOverhead + (bytes[4] | (static_cast<size_t>(bytes[5]) << 8));
    if (frame > window) {
      if (bytes.size() < window) return Unit::Incomplete;
      length = window;  // can never be delivered whole
      return Unit::Complete;
    }
    if (bytes.size() < frame) return Unit::Incomplete;
    length = frame;
    return Unit::Complete;
  }
  // A run of bytes that starts no message.
  size_t n = 1;
  const size_t span = std::min(bytes.size(), window);
  while (n < span && bytes[n] != kNmeaStart && bytes[n] != kUbxSync1) ++n;
  length = n;
  return Unit::Complete;
}

int HexValue(uint8_t c) {
  if (c >= '0' && c <= '9') return c - '0';
  if (c >= 'A' && c <= 'F') return c - 'A' + 10;
  if (c >= 'a' && c <= 'f') return c - 'a' + 10;
  return -1;
}

bool IsUpper(uint8_t c) { return c >= 'A' && c <= 'Z'; }

// `unit` runs from a "$" to the next line feed. It is taken for a sentence
// when it has an address of capitals and digits ended by "," or "*", or when
// its bytes 3 to 5, where the parser reads the sentence type, are capitals
// (a flipped talker byte). Binary data of other protocols that happens to hold
// a "$" and a line feed is neither: it is passed on like any byte that belongs
// to no message, and the parser finds no sentence type in it.
bool LooksLikeSentence(std::span<const uint8_t> unit) {
  size_t i = 1;
  while (i < unit.size() && (IsUpper(unit[i]) || (unit[i] >= '0' && unit[i] <= '9'))) ++i;
  if (i > 1 && i < unit.size() && (unit[i] == ',' || unit[i] == '*')) return true;
  return unit.size() > 6 && IsUpper(unit[3]) && IsUpper(unit[4]) && IsUpper(unit[5]);
}

// `sentence` runs from its "$" to its line feed and holds no other "$".
bool NmeaChecksumHolds(std::span<const uint8_t> sentence) {
  const auto* star = static_cast<const uint8_t*>(std::memchr(sentence.data(), '*', sentence.size()));
  if (!star) return true;
  const size_t at = static_cast<size_t>(star - sentence.data());
  uint8_t sum = 0;
  for (size_t i = 1; i < at; ++i) sum ^= sentence[i];
  const auto tail = sentence.subspan(at + 1);
  if (tail.size() < 3) return false;
  const int high = HexValue(tail[0]);
  const int low = HexValue(tail[1]);
  if (high < 0 || low < 0 || (high << 4 | low) != sum) return false;
  // Only the line end may follow the checksum.
  return (tail.size() == 3 && tail[2] == '\n') || (tail.size() == 4 && tail[2] == '\r' && tail[3] == '\n');
}

bool AllDigits(std::string_view text) {
  return std::all_of(text.begin(), text.end(), [](char c) { return c >= '0' && c <= '9'; });
}

int TwoDigits(std::string_view text, size_t at) { return (text[at] - '0') * 10 + (text[at + 1] - '0'); }

// hhmmss with or without a fraction of a second; 60 seconds is a leap second.
bool TimePossible(std::string_view time) {
  if (time.empty()) return true;
  if (time.size() < 6 || !AllDigits(time.substr(0, 6))) return false;
  if (time.size() > 6 && (time[6] != '.' || !AllDigits(time.substr(7)))) return false;
  return TwoDigits(time, 0) < 24 && TwoDigits(time, 2) < 60 && TwoDigits(time, 4) <= 60;
}

// ddmmyy; the years of two digits run from 1980 to 2079, so every year that
// divides by four is a leap year. "000000" is how some receivers say they
// have no date yet, like an empty field.
bool DatePossible(std::string_view date) {
  if (date.empty() || date == "000000") return true;
  if (date.size() != 6 || !AllDigits(date)) return false;
  const int day = TwoDigits(date, 0);
  const int month = TwoDigits(date, 2);
  const int year = TwoDigits(date, 4);
  constexpr int kDays[] = {31, 29, 31, 30, 31, 30, 31, 31, 30, 31, 30, 31};
  if (month < 1 || month > 12 || day < 1 || day > kDays[month - 1]) return false;
  return month != 2 || day < 29 || year % 4 == 0;
}

// Degrees and minutes with any number of digits in either part ("4717.11437",
// "00833.9152", "4807.038"): the last two digits before the point are the
// minutes. No sign, and no more than `maxDegrees` in all.
bool CoordinatePossible(std::string_view text, int maxDegrees) {
  if (text.empty()) return true;
  const size_t point = std::min(text.find('.'), text.size());
  const std::string_view whole = text.substr(0, point);
  const std::string_view fraction = point < text.size() ? text.substr(point + 1) : std::string_view{};
  if (whole.empty() || !AllDigits(whole) || !AllDigits(fraction)) return false;
  // Saturates instead of overflowing: any value beyond the limit is refused.
  int64_t value = 0;
  for (const char c : whole) value = std::min<int64_t>(value * 10 + (c - '0'), 1'000'000'000);
  const int64_t degrees = value / 100;
  const int64_t minutes = value % 100;
  const bool fractionZero = fraction.find_first_not_of('0') == std::string_view::npos;
  return minutes < 60 && (degrees < maxDegrees || (degrees == maxDegrees && minutes == 0 && fractionZero));
}

bool HemispherePossible(std::string_view text, char positive, char negative) {
  return text.empty() || (text.size() == 1 && (text[0] == positive || text[0] == negative));
}

// A GGA or RMC whose time, date, coordinates or hemispheres no receiver can
// measure is as corrupt as one with a wrong checksum: a flipped byte that the
// checksum missed, or a sender that is no receiver. Empty fields (a receiver
// without a fix) pass; every other sentence type passes unchecked.
bool NmeaValuesPossible(std::span<const uint8_t> sentence) {
  std::string_view text(reinterpret_cast<const char*>(sentence.data()), sentence.size());
  text = text.substr(0, text.find_first_of("*\r\n"));
  if (text.size() < 7 || text[6] != ',') return true;
  const std::string_view type = text.substr(3, 3);
  const bool gga = type == "GGA";
  if (!gga && type != "RMC") return true;
  constexpr size_t kChecked = 9;  // fields up to the RMC date
  std::string_view fields[kChecked];
  for (size_t at = 7, n = 0; n < kChecked; ++n) {
    const size_t comma = std::min(text.find(',', at), text.size());
    fields[n] = text.substr(at, comma - at);
    if (comma == text.size()) break;
    at = comma + 1;
  }
  // Positions of time, latitude and the RMC date; absent fields are empty.
  const size_t lat = gga ? 1 : 2;
  return TimePossible(fields[0]) && CoordinatePossible(fields[lat], 90) &&
         HemispherePossible(fields[lat + 1], 'N', 'S') && CoordinatePossible(fields[lat + 2], 180) &&
         HemispherePossible(fields[lat + 3], 'E', 'W') && (gga || DatePossible(fields[8]));
}

// `frame` is a whole UBX frame, sync bytes to checksum.
bool UbxFrameIsSound(std::span<const uint8_t> frame) {
  uint8_t a = 0, b = 0;
  for (size_t i = 2; i + 2 < frame.size(); ++i) {
    a = static_cast<uint8_t>(a + frame[i]);
    b = static_cast<uint8_t>(b + a);
  }
  return frame[frame.size() - 2] == a && frame[frame.size() - 1] == b;
}

}  // namespace

size_t DropCorruptMessages(std::span<uint8_t> chunk, DroppedMessages& dropped, size_t limit) {
  size_t kept = 0;
  size_t at = 0;
  while (at < chunk.size()) {
    const std::span<const uint8_t> rest = chunk.subspan(at);
    size_t length = rest.size();
    // What does not measure whole (a tail the driver passed on because it
    // stopped arriving) goes on unchecked, like a message cut in pieces.
    if (MeasureUnit(rest, limit, length) == Unit::Incomplete) length = rest.size();
    const auto unit = rest.first(length);
    bool sound = true;
    if (unit[0] == kNmeaStart && unit.back() == '\n' && LooksLikeSentence(unit)) {
      const auto* next = static_cast<const uint8_t*>(std::memchr(unit.data() + 1, kNmeaStart, unit.size() - 1));
      if (next) {
        // A sentence that lost its line end ran into the next one: what comes
        // before the next "$" goes, and the next sentence is checked on its own.
        length = static_cast<size_t>(next - unit.data());
        sound = false;
      } else {
        sound = NmeaChecksumHolds(unit) && NmeaValuesPossible(unit);
      }
      if (!sound) ++dropped.nmea;
    } else if (unit.size() >= kUbxOverhead && unit[0] == kUbxSync1 && unit[1] == kUbxSync2 &&
               unit.size() == kUbxOverhead + (unit[4] | (static_cast<size_t>(unit[5]) << 8))) {
      sound = UbxFrameIsSound(unit);
      if (!sound) ++dropped.ubx;
    }
    if (sound) {
      if (kept != at) std::memmove(chunk.data() + kept, chunk.data() + at, length);
      kept += length;
    }
    at += length;
  }
  return kept;
}

void DropReport::Add(const DroppedMessages& dropped, Clock::time_point now) {
  unreported_.nmea += dropped.nmea;
  unreported_.ubx += dropped.ubx;
  if (unreported_.total() == 0 || (reported_ && now - lastReport_ < kInterval)) return;
  const uint32_t total = unreported_.total();
  Sys_log(4, "GPS resource: dropped %u corrupt %s in the last minute (%u NMEA, %u UBX)", total,
          total == 1 ? "message" : "messages", unreported_.nmea, unreported_.ubx);
  unreported_ = {};
  reported_ = true;
  lastReport_ = now;
}

size_t WholeMessagesPrefix(std::span<const uint8_t> bytes, size_t limit) {
  if (limit == 0) return 0;
  size_t taken = 0;
  while (taken < bytes.size() && taken < limit) {
    size_t length = 0;
    // A message that could fit a chunk of its own is measured against the
    // whole limit, so it is never cut just because this chunk is almost full.
    if (MeasureUnit(bytes.subspan(taken), limit, length) == Unit::Incomplete) break;
    if (taken + length > limit) break;
    taken += length;
  }
  return taken;
}

}  // namespace gps::platform
