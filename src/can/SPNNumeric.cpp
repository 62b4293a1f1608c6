#include "SPNNumeric.h"

#include <sstream>

SPNNumeric::SPNNumeric(double value, const std::string& unit)
    : SPN(Numeric), value(value), unit(unit) {}

SPNNumeric::SPNNumeric(const SPNNumeric& other) = default;

SPNNumeric::~SPNNumeric() = default;

std::string SPNNumeric::toString() const {
    std::ostringstream text;
    text << name << " (NR: " << number << " numeric): " << value << unit << '\n';
    return text.str();
}
