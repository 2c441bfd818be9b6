#pragma once

// Ctrl-C (SIGINT) and SIGTERM while a command runs: instead of dying wherever it is, the process
// is told, and the command that waits ends cleanly. Install once, on the main thread.

namespace qnicloud {

class Interruption {
public:
    /// Catches SIGINT and SIGTERM from now on.
    static void install();
    /// Whether either came. Any thread.
    static bool requested();
};

}  // namespace qnicloud
