#include "SPNString.h"

#include <sstream>

SPNString::SPNString(const std::string& value) : SPN(String), value(value) {}

SPNString::SPNString(const SPNString& other) = default;

SPNString::~SPNString() = default;

std::string SPNString::toString() const {
    std::ostringstream text;
    text << name << " (NR: " << number << " string): " << value << '\n';
    return text.str();
}
