#include <fmt/format.h>
#include <gtest/gtest.h>

#include <map>
#include <regex>
#include <set>
#include <thread>
#include <vector>

#include "qn/CapturingLogSink.h"
#include "qn/Logger.h"

namespace loggertest {

int formatCount = 0;
struct Counted {};

qn::Logger& namesLogger() {
    return qn::Logger::named("LoggerTest.names");
}

struct Widget {
    void member(int) const {
        namesLogger().info("member");
        [](int) { namesLogger().info("lambda"); }(1);
    }
    void operator()(int) const { namesLogger().info("call operator"); }
    void operator<(const Widget&) const { namesLogger().info("less operator"); }
    template <class T>
    std::vector<T> templated(T) && {
        namesLogger().info("member template");
        return {};
    }
};

}  // namespace loggertest

template <>
struct fmt::formatter<loggertest::Counted> : fmt::formatter<int> {
    auto format(const loggertest::Counted&, fmt::format_context& context) const {
        return fmt::formatter<int>::format(++loggertest::formatCount, context);
    }
};

TEST(LoggerTest, DisabledLevelNeitherFormatsNorEmitsAndTheDefaultAppliesUntilALevelIsSet) {
    qn::CapturingLogSink capture;
    auto& logger = qn::Logger::named("LoggerTest.disabled");
    logger.setLevel(qn::LogLevel::Warn);
    loggertest::formatCount = 0;
    logger.debug("debug {}", loggertest::Counted{});
    logger.log(qn::LogLevel::Info, "info {}", loggertest::Counted{});
    EXPECT_EQ(loggertest::formatCount, 0);
    logger.warn("warn {}", loggertest::Counted{});
    EXPECT_EQ(loggertest::formatCount, 1);
    EXPECT_TRUE(capture.contains(qn::LogLevel::Warn, "warn 1"));
    EXPECT_EQ(capture.lines().size(), 1u);

    const auto originalDefault = qn::defaultLogLevel();
    auto& following = qn::Logger::named("LoggerTest.following");
    EXPECT_EQ(&following, &qn::Logger::named("LoggerTest.following"));
    EXPECT_EQ(following.level(), originalDefault);
    qn::setDefaultLogLevel(qn::LogLevel::Error);
    EXPECT_EQ(logger.level(), qn::LogLevel::Warn);
    EXPECT_EQ(following.level(), qn::LogLevel::Error);
    EXPECT_EQ(qn::Logger::named("LoggerTest.createdLater").level(), qn::LogLevel::Error);
    qn::setDefaultLogLevel(originalDefault);
}

TEST(LoggerTest, RecordCarriesCallSiteWithTrimmedFunctionName) {
    qn::CapturingLogSink capture;
    qn::Logger::named("LoggerTest.site").error("Trying {} while {}. Skipping.", "x", 42);
    const int line = __LINE__ - 1;
    loggertest::Widget widget;
    widget.member(1);
    widget(1);
    widget < widget;
    loggertest::Widget{}.templated(1.5);

    const auto lines = capture.lines();
    ASSERT_FALSE(lines.empty());
    EXPECT_EQ(lines[0].logger, "LoggerTest.site");
    EXPECT_EQ(lines[0].file, __FILE__);
    EXPECT_EQ(lines[0].line, line);
    std::map<std::string, std::string> functionByMessage;
    for (const auto& record : lines) {
        functionByMessage[record.message] = record.function;
    }
    EXPECT_EQ(functionByMessage,
              (std::map<std::string, std::string>{
                  {"Trying x while 42. Skipping.",
                   "LoggerTest_RecordCarriesCallSiteWithTrimmedFunctionName_Test::TestBody"},
                  {"member", "loggertest::Widget::member"},
                  {"lambda", "loggertest::Widget::member::<lambda>"},
                  {"call operator", "loggertest::Widget::operator()"},
                  {"less operator", "loggertest::Widget::operator<"},
                  {"member template", "loggertest::Widget::templated"},
              }));
}

TEST(LoggerTest, ConcurrentLoggingWhileSinkIsReplacedLosesNothing) {
    qn::CapturingLogSink capture;
    const auto captureSink = qn::setLogSink(nullptr);
    qn::setLogSink(captureSink);
    constexpr int threadCount = 8;
    constexpr int linesPerThread = 300;
    std::vector<std::jthread> threads;
    for (int t = 0; t < threadCount; ++t) {
        threads.emplace_back([t] {
            for (int i = 0; i < linesPerThread; ++i) {
                qn::Logger::named("LoggerTest.threads").info("{}-{}", t, i);
            }
        });
    }
    for (int i = 0; i < 200; ++i) {
        qn::setLogSink(captureSink);  // drops the sink object other threads may be running
    }
    threads.clear();  // joins them

    std::set<std::string> messages;
    for (const auto& line : capture.lines()) {
        messages.insert(line.message);
    }
    EXPECT_EQ(messages.size(), std::size_t{threadCount * linesPerThread});
}

TEST(LoggerTest, CapturingSinksNestAndRestoreThePreviousSink) {
    auto& logger = qn::Logger::named("LoggerTest.nesting");
    std::vector<std::string> received;
    const auto original = qn::setLogSink([&](const qn::LogRecord& record) {
        received.push_back(record.message);
        if (record.message == "after") {
            logger.info("from sink");  // must not deadlock
        }
    });
    {
        qn::CapturingLogSink outer;
        {
            qn::CapturingLogSink inner;
            logger.info("inner");
            logger.info("inner");
            EXPECT_EQ(inner.count(qn::LogLevel::Info, "inner"), 2u);
            EXPECT_FALSE(inner.contains(qn::LogLevel::Warn, "inner"));
        }
        logger.info("outer");
        EXPECT_EQ(outer.lines().size(), 1u);
    }
    logger.info("after");
    qn::setLogSink(original);
    EXPECT_EQ(received, (std::vector<std::string>{"after", "from sink"}));
}

TEST(LoggerTest, DefaultSinkWritesOneCompleteLine) {
    const auto previous = qn::setLogSink(nullptr);
    testing::internal::CaptureStderr();
    qn::Logger::named("LoggerTest.stderr").warn("disk is {}", "full");
    const int line = __LINE__ - 1;
    const std::string output = testing::internal::GetCapturedStderr();
    qn::setLogSink(previous);

    const std::regex timestamp(R"(\d{4}-\d\d-\d\d \d\d:\d\d:\d\d\.\d{3} [^\n]*\n)");
    EXPECT_TRUE(std::regex_match(output, timestamp)) << output;
    EXPECT_TRUE(output.ends_with(
        fmt::format(" WARN  [LoggerTest.stderr] LoggerTest.cpp:{} "
                    "LoggerTest_DefaultSinkWritesOneCompleteLine_Test::TestBody - disk is full\n",
                    line)))
        << output;
}
