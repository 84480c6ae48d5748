// How far the resources of the machine are used, and who is told when that becomes too far.
#pragma once

#include <chrono>
#include <cstdint>

namespace tarnd {

// Shares in permille.
uint32_t CpuUsePermille(std::chrono::nanoseconds interval); // of all CPUs together, until the latest sample
uint32_t DescriptorUsePermille();

// Follows the samples and tells subscribers. Before the sampler starts.
void WatchResources();

// An errand of the courier: tells an agent, if its process has subscribed, how the resources are.
void BringResources(uint32_t pid);

} // namespace tarnd
