#include "SPNStatus.h"

#include <sstream>

SPNStatus::SPNStatus(uint32_t value, const std::string& description)
    : SPN(Status), description(description), value(value) {}

SPNStatus::SPNStatus(const SPNStatus& other) = default;

SPNStatus::~SPNStatus() = default;

std::string SPNStatus::toString() const {
    std::ostringstream text;
    text << name << " (NR: " << number << " status): " << value << ": " << description << '\n';
    return text.str();
}
