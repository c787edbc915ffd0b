#pragma once
// `tonavictl mixer`: the live mixer in a terminal, on ncurses. It polls `status` a few times a second,
// draws MixerFrame's lines, and sends every change through a MixerCommandDispatcher keyed by application
// (or device) and control, so that a held key sends a handful of requests and the last position always
// arrives. `c` loads a saved scene.

namespace tonavi {

class MixerScreen {
  public:
    // Until q, Ctrl-C, SIGTERM or SIGHUP; the terminal is restored in every case. Exit status 0 on q,
    // 128 + the signal otherwise, 64 when standard input or output is not a terminal.
    static int run();
    // `tonavictl mixer --once`: one frame as plain text on standard output, at the terminal's size, or
    // at COLUMNS x LINES, or 80x24. Exit status 0, or 2 when the service cannot be reached.
    static int printOnce();
};

} // namespace tonavi
