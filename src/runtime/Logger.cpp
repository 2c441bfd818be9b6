#include "qn/Logger.h"

#include <unistd.h>

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <map>
#include <memory>
#include <mutex>

#include "qn/CapturingLogSink.h"

namespace qn {
namespace {

struct LoggingState {
    std::mutex registryMutex;
    std::map<std::string, std::unique_ptr<Logger>, std::less<>> loggers;
    LogLevel defaultLevel = LogLevel::Info;

    std::mutex sinkMutex;
    std::shared_ptr<const LogSink> sink;  // null means the standard error sink
};

// Deliberately leaked: threads may still log while static destructors run.
LoggingState& state() {
    static auto* const instance = new LoggingState;
    return *instance;
}

void writeFully(int fd, std::string_view text) {
    while (!text.empty()) {
        const ssize_t written = ::write(fd, text.data(), text.size());
        if (written < 0) {
            if (errno == EINTR) {
                continue;
            }
            return;  // nowhere left to report the failure
        }
        text.remove_prefix(static_cast<std::size_t>(written));
    }
}

void writeToStandardError(const LogRecord& record) {
    using namespace std::chrono;
    const auto day = floor<days>(record.time);
    const year_month_day date{day};
    const hh_mm_ss clock{floor<milliseconds>(record.time - day)};
    std::string_view file = record.file;
    if (const auto slash = file.rfind('/'); slash != std::string_view::npos) {
        file.remove_prefix(slash + 1);
    }
    // Formatted as a whole and written at once so that lines from several threads never mix.
    const std::string line = fmt::format(
        "{:04}-{:02}-{:02} {:02}:{:02}:{:02}.{:03} {:<5} [{}] {}:{} {} - {}\n",
        static_cast<int>(date.year()), static_cast<unsigned>(date.month()),
        static_cast<unsigned>(date.day()), clock.hours().count(), clock.minutes().count(),
        clock.seconds().count(), clock.subseconds().count(), toString(record.level),
        record.loggerName, file, record.line, record.function, record.message);
    writeFully(STDERR_FILENO, line);
}

// Index just past the parenthesised or angle-bracketed group that opens at `pos`. Angle brackets
// inside parentheses are not counted: in "<lambda(std::vector<int>)>" they are balanced anyway,
// and in template arguments they may be comparisons.
std::size_t skipGroup(std::string_view text, std::size_t pos) {
    const bool angle = text[pos] == '<';
    int parens = 0;
    int angles = 0;
    for (; pos < text.size(); ++pos) {
        const char c = text[pos];
        if (c == '(') {
            ++parens;
        } else if (c == ')') {
            --parens;
        } else if (angle && parens == 0 && c == '<') {
            ++angles;
        } else if (angle && parens == 0 && c == '>') {
            --angles;
        }
        if ((angle ? angles : parens) == 0) {
            return pos + 1;
        }
    }
    return text.size();
}

bool endsWithOperatorKeyword(std::string_view name) {
    constexpr std::string_view keyword = "operator";
    if (!name.ends_with(keyword)) {
        return false;
    }
    if (name.size() == keyword.size()) {
        return true;
    }
    const auto before = static_cast<unsigned char>(name[name.size() - keyword.size() - 1]);
    return !std::isalnum(before) && before != '_';
}

// Reduces GCC's pretty signature ("std::vector<int> ns::Foo::bar(int) const [with T = int]") to
// the qualified name ("ns::Foo::bar"). Lambdas become "<lambda>" components of their enclosing
// function: "ns::Foo::bar::<lambda>".
std::string shortFunctionName(std::string_view pretty) {
    if (const auto with = pretty.find(" [with "); with != std::string_view::npos) {
        pretty = pretty.substr(0, with);
    }
    std::string name;
    std::size_t i = 0;
    while (i < pretty.size()) {
        const char c = pretty[i];
        if (endsWithOperatorKeyword(name)) {
            // The operator's symbol belongs to the name; a space continues a conversion operator
            // ("operator std::string") or "operator new".
            const auto rest = pretty.substr(i);
            std::size_t length =
                rest.starts_with("()") || rest.starts_with("[]")
                    ? 2
                    : std::min(rest.find_first_not_of("<>=!+-*/%^&|~,"), rest.size());
            if (length == 0 && c == ' ') {
                length = 1;
            }
            if (length > 0) {
                name += rest.substr(0, length);
                i += length;
                continue;
            }
        }
        if (c == ' ') {
            // What came before was the return type or a keyword such as "static".
            name.clear();
            ++i;
        } else if (c == '(' && name.empty()) {
            // The declarator of a function returning a function pointer: "void (* f(int))(int)".
            i = std::min(pretty.find_first_not_of("(*& ", i), pretty.size());
        } else if (c == '(') {
            // Parameters, then cv/ref qualifiers, then either the end or a nested lambda.
            i = skipGroup(pretty, i);
            while (i < pretty.size() && (std::isalpha(static_cast<unsigned char>(pretty[i])) ||
                                         pretty[i] == ' ' || pretty[i] == '&')) {
                ++i;
            }
            if (!pretty.substr(i).starts_with("::")) {
                break;
            }
            name += "::";
            i += 2;
        } else if (c == '<') {
            const auto end = skipGroup(pretty, i);
            const auto group = pretty.substr(i, end - i);
            name += group.starts_with("<lambda") ? std::string_view("<lambda>") : group;
            i = end;
        } else {
            name += c;
            ++i;
        }
    }
    return name.empty() ? std::string(pretty) : name;
}

}  // namespace

std::string_view toString(LogLevel level) {
    switch (level) {
        case LogLevel::Debug:
            return "DEBUG";
        case LogLevel::Info:
            return "INFO";
        case LogLevel::Warn:
            return "WARN";
        case LogLevel::Error:
            return "ERROR";
    }
    return "?";
}

Logger::Logger(std::string name, LogLevel level) : name_(std::move(name)), level_(level) {}

Logger& Logger::named(std::string_view name) {
    auto& s = state();
    const std::lock_guard lock(s.registryMutex);
    auto it = s.loggers.find(name);
    if (it == s.loggers.end()) {
        it = s.loggers
                 .emplace(std::string(name),
                          std::unique_ptr<Logger>(new Logger(std::string(name), s.defaultLevel)))
                 .first;
    }
    return *it->second;
}

void Logger::setLevel(LogLevel level) {
    const std::lock_guard lock(state().registryMutex);
    hasExplicitLevel_ = true;
    level_.store(level, std::memory_order_relaxed);
}

void Logger::emit(LogLevel level, const std::source_location& location, std::string message) const {
    const LogRecord record{level,
                           name_,
                           location.file_name(),
                           static_cast<int>(location.line()),
                           shortFunctionName(location.function_name()),
                           std::move(message),
                           std::chrono::system_clock::now()};
    std::shared_ptr<const LogSink> sink;
    {
        auto& s = state();
        const std::lock_guard lock(s.sinkMutex);
        sink = s.sink;
    }
    // Called outside the lock so that a sink may log or replace the sink itself.
    if (sink) {
        (*sink)(record);
    } else {
        writeToStandardError(record);
    }
}

LogSink setLogSink(LogSink sink) {
    auto replacement = sink ? std::make_shared<const LogSink>(std::move(sink)) : nullptr;
    auto& s = state();
    {
        const std::lock_guard lock(s.sinkMutex);
        std::swap(s.sink, replacement);
    }
    return replacement ? *replacement : LogSink();
}

void setDefaultLogLevel(LogLevel level) {
    auto& s = state();
    const std::lock_guard lock(s.registryMutex);
    s.defaultLevel = level;
    for (auto& [name, logger] : s.loggers) {
        if (!logger->hasExplicitLevel_) {
            logger->level_.store(level, std::memory_order_relaxed);
        }
    }
}

LogLevel defaultLogLevel() {
    auto& s = state();
    const std::lock_guard lock(s.registryMutex);
    return s.defaultLevel;
}

struct CapturingLogSink::Storage {
    mutable std::mutex mutex;
    std::vector<CapturedLogLine> lines;
};

CapturingLogSink::CapturingLogSink() : storage_(std::make_shared<Storage>()) {
    previous_ = setLogSink([storage = storage_](const LogRecord& record) {
        CapturedLogLine line{record.level,
                             std::string(record.loggerName),
                             std::string(record.file),
                             record.line,
                             record.function,
                             record.message};
        const std::lock_guard lock(storage->mutex);
        storage->lines.push_back(std::move(line));
    });
}

CapturingLogSink::~CapturingLogSink() {
    setLogSink(std::move(previous_));
}

std::vector<CapturedLogLine> CapturingLogSink::lines() const {
    const std::lock_guard lock(storage_->mutex);
    return storage_->lines;
}

bool CapturingLogSink::contains(LogLevel level, std::string_view message) const {
    return count(level, message) > 0;
}

std::size_t CapturingLogSink::count(LogLevel level, std::string_view message) const {
    const std::lock_guard lock(storage_->mutex);
    return static_cast<std::size_t>(std::count_if(
        storage_->lines.begin(), storage_->lines.end(),
        [&](const auto& line) { return line.level == level && line.message == message; }));
}

void CapturingLogSink::clear() {
    const std::lock_guard lock(storage_->mutex);
    storage_->lines.clear();
}

}  // namespace qn
