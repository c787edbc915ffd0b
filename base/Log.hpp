#pragma once
// The service's one log. Any thread may call it, but never a real-time audio callback:
// it takes a mutex and writes a file.

#include <cstdint>
#include <string>
#include <string_view>

namespace tonavi {

namespace Log {
void info(std::string_view message);

// The log's location and rotation threshold. The path follows the per-user paths unless a test
// points it elsewhere.
std::string filePath();
void setFilePathForTesting(const std::string& path);
constexpr std::uint64_t rotationBytes = 5'242'880;
constexpr int linesPerSizeCheck = 500;
}  // namespace Log

}  // namespace tonavi
