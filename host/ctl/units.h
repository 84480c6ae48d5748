// Quantities as people read them.
#pragma once

#include <chrono>
#include <cstdint>
#include <string>

namespace ctl {

std::string
DurationText(std::chrono::nanoseconds duration); // "850 ns", "12.3 us", "4.5 ms", "2.1 s", "5m 07s", "3h 20m"
std::string SizeText(uint64_t bytes);            // "512 B", "3.4 MiB"
std::string PermilleText(uint64_t permille);     // "12.3 %"
std::string PidText(uint64_t pid);               // "4711 (tarnd)", of a thread too; the number when it is gone

} // namespace ctl
