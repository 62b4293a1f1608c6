#ifndef TAVRO_NETHELPERS_H
#define TAVRO_NETHELPERS_H

#include <netinet/in.h>

#include <cstdint>
#include <string>

// IPv4 address of a network interface as dotted text; "0.0.0.0" (any interface) when the
// interface does not exist or has no IPv4 address. Names are cut to 15 characters.
std::string interfaceAddress(const std::string& name);

// A UDP socket whose multicast leaves by the given interface, and its destination.
// Returns the descriptor, or -1.
int32_t openMulticastSocket(const std::string& group, uint16_t port, const std::string& interface,
                            struct sockaddr_in& destination);

// Bits bitOffset .. bitOffset+bitSize-1 of raw as an unsigned number, times gain, plus offset.
// bitOffset + bitSize must not exceed 64.
double bitFieldValue(uint64_t raw, uint32_t bitOffset, uint32_t bitSize, double gain,
                     double offset);

// The 8 bytes read with byte 0 as the least significant.
uint64_t loadU64(const uint8_t* bytes);
// Byte 0 receives bits 0-7, byte 7 bits 56-63.
void storeU64(uint64_t value, uint8_t* bytes);

// Two upper-case hex digits per byte, no separator.
std::string toHex(const uint8_t* bytes, int32_t count);

#endif
