/// Stands in for another library that provides the same platform layer.

#include <cstdint>

extern "C++" __attribute__((visibility("default"))) std::uint32_t platformLibPresenceFlag;
std::uint32_t platformLibPresenceFlag = 1;
