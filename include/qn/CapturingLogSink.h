#pragma once

// Test helper that records every log line of the process while it is alive, so tests (the
// library's and host applications') can assert on what was logged. Create and destroy it on the
// test's thread; the query functions and the capture itself are safe from any thread.

#include <cstddef>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "qn/Logger.h"

namespace qn {

/// Owning copy of a LogRecord.
struct CapturedLogLine {
    LogLevel level;
    std::string logger;
    std::string file;
    int line;
    std::string function;
    std::string message;
};

/// Installs itself as the process's log sink on construction and puts the previous sink back on
/// destruction, so instances nest when destroyed in reverse order of construction. Lines are not
/// forwarded to the previous sink. Only lines that pass their logger's threshold reach it.
class CapturingLogSink {
public:
    CapturingLogSink();
    ~CapturingLogSink();

    CapturingLogSink(const CapturingLogSink&) = delete;
    CapturingLogSink& operator=(const CapturingLogSink&) = delete;

    /// Everything captured so far, in the order the sink received it.
    std::vector<CapturedLogLine> lines() const;

    /// Whether some captured line has `level` and exactly the text `message`.
    bool contains(LogLevel level, std::string_view message) const;

    /// How many captured lines have `level` and exactly the text `message`.
    std::size_t count(LogLevel level, std::string_view message) const;

    void clear();

private:
    struct Storage;

    // Shared with the installed sink, which another thread may still be running after this
    // object is gone.
    std::shared_ptr<Storage> storage_;
    LogSink previous_;
};

}  // namespace qn
