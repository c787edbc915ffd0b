#pragma once
// The project's own LV2 bundle (tests/plugins, built into <build>/tests/lv2) and Debian's plug-ins on
// LV2_PATH, for this process and the processes it starts. Found from TONAVI_BIN_DIR, which CTest sets;
// without it, LV2_PATH is left as the caller set it.

#include <cstdlib>
#include <string>

namespace tonavi::test {

inline void useTestPlugins() {
    if (const char* bin = std::getenv("TONAVI_BIN_DIR"))
        ::setenv("LV2_PATH", (std::string(bin) + "/../tests/lv2:/usr/lib/lv2").c_str(), 1);
}

} // namespace tonavi::test
