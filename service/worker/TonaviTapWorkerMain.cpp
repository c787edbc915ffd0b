#include "service/worker/TonaviTapWorkerMain.hpp"

#include <cstdio>
#include <cstring>
#include <unistd.h>

namespace tonavi::TonaviTapWorkerMain {

void runIfRequested(int argc, char** argv) {
    int at = -1;
    for (int i = 1; i < argc; ++i) {
        if (std::strcmp(argv[i], flag) == 0) {
            at = i;
            break;
        }
    }
    if (at < 0) return;
    if (at + 1 >= argc) {
        std::fprintf(stderr, "tonavi tap worker: missing bundle identifier after %s\n", flag);
        _exit(exitUsage);
    }
    // The worker's render loop is not part of this build yet; refusing plainly keeps a caller from
    // mistaking a silent exit for a working tap.
    std::fprintf(stderr, "tonavi tap worker: not available in this build (bundle %s)\n", argv[at + 1]);
    _exit(exitUnavailable);
}

}  // namespace tonavi::TonaviTapWorkerMain
