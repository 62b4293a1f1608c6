#ifndef TAVRO_DATETIME_H
#define TAVRO_DATETIME_H

#include <cstdint>
#include <string>

// Broken-down UTC calendar time, whole seconds.
struct DateTime {
    int32_t day = 0;
    int32_t month = 0; // January is 1
    int32_t year = 0;  // full year
    int32_t second = 0;
    int32_t minute = 0;
    int32_t hour = 0;
};

DateTime now();
// "%4d-%02d-%02dT%02d:%02d:%02d": the year is padded with blanks, not zeros.
std::string formatDateTime(const DateTime& dt);
// "%04d-%02d-%02d"
std::string formatDate(const DateTime& dt);
// "%02d:%02d:%02d"
std::string formatTime(const DateTime& dt);

#endif
