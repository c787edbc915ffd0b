// The installed-app list over 300 desktop entries (50 in the home folder, 250 in a system folder):
// a scan that reads and judges every file, and an answer from the cache.

#include "service/AppDirectory.hpp"
#include "tests/support/TempFolder.hpp"

#include <benchmark/benchmark.h>
#include <filesystem>
#include <fstream>

namespace {

std::vector<std::filesystem::path> folders(const tonavi::test::TempFolder& root) {
    const auto home = root.path() / "home/applications", system = root.path() / "usr/applications";
    std::filesystem::create_directories(home);
    std::filesystem::create_directories(system);
    for (int i = 0; i < 300; ++i)
        std::ofstream((i < 50 ? home : system) / ("org.example.App" + std::to_string(i) + ".desktop"))
            << "[Desktop Entry]\nType=Application\nName=App " << i << "\nName[de]=Programm " << i
            << "\nExec=/usr/bin/app" << i << " %U\nCategories=" << (i % 3 ? "Utility;" : "AudioVideo;Player;")
            << "\n\n[Desktop Action new]\nName=New\nExec=/usr/bin/app" << i << " --new\n";
    return {home, system};
}

void BM_InstalledAppsFirstScan(benchmark::State& state) {
    const tonavi::test::TempFolder root;
    const auto paths = folders(root);
    for (auto _ : state) {
        tonavi::AppDirectory directory([&] { return tonavi::DesktopEntries::read(paths, "de_DE.UTF-8"); },
                                       [] { return 0.0; });
        benchmark::DoNotOptimize(directory.installedApps());
    }
}
BENCHMARK(BM_InstalledAppsFirstScan)->Unit(benchmark::kMillisecond);

void BM_InstalledAppsCached(benchmark::State& state) {
    const tonavi::test::TempFolder root;
    const auto paths = folders(root);
    tonavi::AppDirectory directory([&] { return tonavi::DesktopEntries::read(paths, "de_DE.UTF-8"); },
                                   [] { return 0.0; });
    directory.installedApps();
    for (auto _ : state)
        benchmark::DoNotOptimize(directory.installedApps());
}
BENCHMARK(BM_InstalledAppsCached)->Unit(benchmark::kMicrosecond);

} // namespace
