#include "DateTime.h"

#include <cstdio>
#include <ctime>

namespace {
// Results longer than 20 characters (only out-of-range fields) are cut, as the fixed
// 21-byte buffer of the document formats demands.
constexpr size_t formatBufferSize = 21;
} // namespace

DateTime now() {
    time_t t = time(nullptr);
    struct tm tm {};
    gmtime_r(&t, &tm);
    DateTime dt;
    dt.day = tm.tm_mday;
    dt.month = tm.tm_mon + 1;
    dt.year = tm.tm_year + 1900;
    dt.second = tm.tm_sec;
    dt.minute = tm.tm_min;
    dt.hour = tm.tm_hour;
    return dt;
}

std::string formatDateTime(const DateTime& dt) {
    char buffer[formatBufferSize];
    snprintf(buffer, sizeof buffer, "%4d-%02d-%02dT%02d:%02d:%02d", dt.year, dt.month, dt.day,
             dt.hour, dt.minute, dt.second);
    return buffer;
}

std::string formatDate(const DateTime& dt) {
    char buffer[formatBufferSize];
    snprintf(buffer, sizeof buffer, "%04d-%02d-%02d", dt.year, dt.month, dt.day);
    return buffer;
}

std::string formatTime(const DateTime& dt) {
    char buffer[formatBufferSize];
    snprintf(buffer, sizeof buffer, "%02d:%02d:%02d", dt.hour, dt.minute, dt.second);
    return buffer;
}
