#pragma once

// Named loggers with per-logger thresholds and one process-wide, replaceable sink. The library
// writes through the logger named "iCloud"; host applications may raise or lower its threshold
// or route its lines elsewhere with setLogSink(). Every function here may be called from any
// thread at any time, including during static destruction: loggers are never destroyed.

#include <fmt/core.h>

#include <atomic>
#include <chrono>
#include <concepts>
#include <functional>
#include <source_location>
#include <string>
#include <string_view>
#include <type_traits>
#include <utility>

namespace qn {

/// Severity of a log line, from least to most severe.
enum class LogLevel { Debug, Info, Warn, Error };

/// "DEBUG", "INFO", "WARN" or "ERROR".
std::string_view toString(LogLevel level);

/// One emitted line, as handed to the sink. Valid only for the duration of the sink call; a sink
/// that keeps records must copy what it needs.
struct LogRecord {
    LogLevel level;
    std::string_view loggerName;
    /// Path of the source file as compiled.
    std::string_view file;
    int line;
    /// Qualified name of the calling function without return type, parameters or qualifiers,
    /// e.g. "qn::Presenter::start" or "qn::Presenter::start::<lambda>".
    std::string function;
    /// Exactly the formatted text; nothing is added.
    std::string message;
    std::chrono::system_clock::time_point time;
};

/// A compile-time checked format string together with the location of the call that wrote it,
/// so that `logger.info("state is {}.", state)` records file, line and function without a macro.
template <class... Args>
struct LogFormat {
    template <class String>
    requires std::convertible_to<const String&, std::string_view>
    consteval LogFormat(const String& text,
                        std::source_location location = std::source_location::current())
        : format(text), location(location) {}

    fmt::format_string<Args...> format;
    std::source_location location;
};

/// A named logger. Obtain one with Logger::named(); the same name always yields the same object.
class Logger {
public:
    /// The logger called `name`, created on first use with the default threshold. The reference
    /// stays valid until the process exits.
    static Logger& named(std::string_view name);

    Logger(const Logger&) = delete;
    Logger& operator=(const Logger&) = delete;

    const std::string& name() const { return name_; }

    /// Least severe level this logger emits.
    LogLevel level() const { return level_.load(std::memory_order_relaxed); }

    /// Sets this logger's threshold. From then on setDefaultLogLevel() no longer affects it.
    void setLevel(LogLevel level);

    bool isEnabledFor(LogLevel level) const {
        return level >= level_.load(std::memory_order_relaxed);
    }

    /// Formats with fmt and hands the line to the sink, if `level` is enabled. When it is not,
    /// no formatter runs (the arguments themselves are still evaluated by the caller).
    template <class... Args>
    void log(LogLevel level, LogFormat<std::type_identity_t<Args>...> format, Args&&... args) {
        if (!isEnabledFor(level)) {
            return;
        }
        emit(level, format.location,
             fmt::vformat(fmt::string_view(format.format), fmt::make_format_args(args...)));
    }

    template <class... Args>
    void debug(LogFormat<std::type_identity_t<Args>...> format, Args&&... args) {
        log<Args...>(LogLevel::Debug, format, std::forward<Args>(args)...);
    }
    template <class... Args>
    void info(LogFormat<std::type_identity_t<Args>...> format, Args&&... args) {
        log<Args...>(LogLevel::Info, format, std::forward<Args>(args)...);
    }
    template <class... Args>
    void warn(LogFormat<std::type_identity_t<Args>...> format, Args&&... args) {
        log<Args...>(LogLevel::Warn, format, std::forward<Args>(args)...);
    }
    template <class... Args>
    void error(LogFormat<std::type_identity_t<Args>...> format, Args&&... args) {
        log<Args...>(LogLevel::Error, format, std::forward<Args>(args)...);
    }

private:
    Logger(std::string name, LogLevel level);

    void emit(LogLevel level, const std::source_location& location, std::string message) const;

    friend void setDefaultLogLevel(LogLevel level);

    const std::string name_;
    std::atomic<LogLevel> level_;
    bool hasExplicitLevel_ = false;  // guarded by the registry's mutex
};

/// Receives every emitted line. Called from the logging thread, possibly from several threads at
/// once, and never under a lock of the logging system, so a sink may itself log.
using LogSink = std::function<void(const LogRecord&)>;

/// Installs `sink` for the whole process and returns the one it replaces (empty if that was the
/// default). An empty `sink` restores the default, which writes each line to standard error with
/// a single write(2), timestamped in UTC:
/// `2026-11-21 10:00:00.123 INFO  [iCloud] Presenter.cpp:123 qn::Presenter::start - message`.
/// A sink may still be running on another thread when this returns.
LogSink setLogSink(LogSink sink);

/// Sets the threshold of loggers created from now on and of every existing logger that has not
/// had setLevel() called. Initially LogLevel::Info.
void setDefaultLogLevel(LogLevel level);
LogLevel defaultLogLevel();

}  // namespace qn
