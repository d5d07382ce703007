// Date and time stamps of matrix files, and the lightly scrambled text headers they travel in.
#ifndef MSMFACE_DICTIONARY_STAMP_H
#define MSMFACE_DICTIONARY_STAMP_H

#include <cstddef>
#include <cstdint>

namespace msm {

// The clock as the stamp sees it: a calendar date with a two-digit year, and a time of day.
struct ClockReading {
    int month;   // 1..12
    int day;     // 1..31
    int year2;   // 0..99
    int hour;    // 0..23
    int minute;  // 0..59
    int second;  // 0..59 (60 in a leap second)
};

struct DateStamp {
    int32_t date;  // yyyymmdd
    int32_t time;  // hhmmss
};

using ClockSource = ClockReading (*)();

// A two-digit year below 98 is 20yy, otherwise 19yy: kept, files written since 1998 carry
// dates made this way.
DateStamp stampFromReading(const ClockReading& r);
// The stamp of the current moment from the clock source (local time unless replaced).
DateStamp currentStamp();
// Replaces the clock (null restores local time). Meant for tests; not synchronised with writes.
void setClockSource(ClockSource source);

// Reverses n characters and raises each by 40 (modulo 256).
void scrambleText(const char* text, std::size_t n, unsigned char* out);
// The inverse: reverses n bytes and lowers each by 40.
void unscrambleText(const unsigned char* in, std::size_t n, char* text);

constexpr std::size_t kMatrixHeaderChars = 24;

// "%05d%05d%8d%6d" of the four values, exactly 24 characters, unscrambled. False when a value
// would not fit its field (the header would then shift and no longer parse).
bool formatMatrixHeader(int32_t number, int32_t order, int32_t date, int32_t time,
                        char (&text)[kMatrixHeaderChars]);
// Parses 24 unscrambled characters with "%05d%05d%08d%06d". False unless all four parse.
bool parseMatrixHeader(const char (&text)[kMatrixHeaderChars], int32_t& number, int32_t& order,
                       int32_t& date, int32_t& time);

}  // namespace msm

#endif  // MSMFACE_DICTIONARY_STAMP_H
