#ifndef TAVRO_SPNSTATUS_H
#define TAVRO_SPNSTATUS_H

#include "SPN.h"

// An enumerated raw value and the text the mapping gives for it.
class SPNStatus : public SPN {
public:
    SPNStatus(uint32_t value, const std::string& description);
    SPNStatus(const SPNStatus& other);
    ~SPNStatus() override;

    uint32_t getValue() const { return value; }
    const std::string& getDescription() const { return description; }

    std::string toString() const override;

private:
    std::string description;
    uint32_t value;
};

#endif
