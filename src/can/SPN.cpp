#include "SPN.h"

SPN::SPN(uint32_t type) : type(type) {}

SPN::~SPN() = default;
