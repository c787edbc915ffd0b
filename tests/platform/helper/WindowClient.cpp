// A real X11 application window for the desktop tests, owned by this process, until it is killed.
// Prints the window's ID on a line of its own once the window is mapped.
//   platform_window_client <title>

#include <cstdio>
#include <poll.h>

#include "TestWindow.hpp"

int main(int argc, char** argv) {
    if (argc != 2) {
        std::fprintf(stderr, "usage: platform_window_client <title>\n");
        return 64;
    }
    tonavi::test::TestWindow window;
    if (!window.open(argv[1])) {
        std::fprintf(stderr, "platform_window_client: no X display\n");
        return 69;
    }
    std::printf("%u\n", window.id());
    std::fflush(stdout);
    pollfd fd{window.fd(), POLLIN, 0};
    while (window.drain())
        ::poll(&fd, 1, -1);
    return 0;
}
