#include "dictionary/stamp.h"

#include <atomic>
#include <cstdio>
#include <cstring>
#include <ctime>

namespace msm {

namespace {

ClockReading localClock() {
    std::time_t now = std::time(nullptr);
    std::tm t{};
    localtime_r(&now, &t);
    return ClockReading{t.tm_mon + 1, t.tm_mday, t.tm_year % 100, t.tm_hour, t.tm_min, t.tm_sec};
}

std::atomic<ClockSource> g_clock{nullptr};

constexpr unsigned char kScrambleOffset = 40;

}  // namespace

DateStamp stampFromReading(const ClockReading& r) {
    int year = r.year2 < 98 ? 2000 + r.year2 : 1900 + r.year2;
    return DateStamp{(year * 100 + r.month) * 100 + r.day,
                     (r.hour * 100 + r.minute) * 100 + r.second};
}

DateStamp currentStamp() {
    ClockSource source = g_clock.load();
    return stampFromReading(source != nullptr ? source() : localClock());
}

void setClockSource(ClockSource source) {
    g_clock.store(source);
}

void scrambleText(const char* text, std::size_t n, unsigned char* out) {
    for (std::size_t i = 0; i < n; ++i)
        out[i] = static_cast<unsigned char>(static_cast<unsigned char>(text[n - 1 - i]) +
                                            kScrambleOffset);
}

void unscrambleText(const unsigned char* in, std::size_t n, char* text) {
    for (std::size_t i = 0; i < n; ++i)
        text[i] = static_cast<char>(static_cast<unsigned char>(in[n - 1 - i] - kScrambleOffset));
}

bool formatMatrixHeader(int32_t number, int32_t order, int32_t date, int32_t time,
                        char (&text)[kMatrixHeaderChars]) {
    char buffer[64];
    int n = std::snprintf(buffer, sizeof buffer, "%05d%05d%8d%6d", number, order, date, time);
    // Every field must keep its width, or the reader's fixed widths would split the digits
    // elsewhere.
    char check[16];
    if (std::snprintf(check, sizeof check, "%05d", number) != 5 ||
        std::snprintf(check, sizeof check, "%05d", order) != 5 ||
        std::snprintf(check, sizeof check, "%8d", date) != 8 ||
        std::snprintf(check, sizeof check, "%6d", time) != 6 || n != 24)
        return false;
    std::memcpy(text, buffer, kMatrixHeaderChars);
    return true;
}

bool parseMatrixHeader(const char (&text)[kMatrixHeaderChars], int32_t& number, int32_t& order,
                       int32_t& date, int32_t& time) {
    char buffer[kMatrixHeaderChars + 1];
    std::memcpy(buffer, text, kMatrixHeaderChars);
    buffer[kMatrixHeaderChars] = '\0';
    int n = 0, o = 0, d = 0, t = 0;
    // The widths bound every field to at most eight digits, so no value can overflow an int.
    if (std::sscanf(buffer, "%05d%05d%08d%06d", &n, &o, &d, &t) != 4) return false;
    number = n;
    order = o;
    date = d;
    time = t;
    return true;
}

}  // namespace msm
