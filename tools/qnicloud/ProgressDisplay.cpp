#include "ProgressDisplay.h"

#include <fmt/core.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>

#include "Format.h"

namespace qnicloud {
namespace {

constexpr auto kRedrawInterval = std::chrono::milliseconds(80);

std::size_t terminalWidth() {
    winsize size{};
    if (::ioctl(STDOUT_FILENO, TIOCGWINSZ, &size) == 0 && size.ws_col >= 40) {
        return std::min<std::size_t>(size.ws_col, 120);
    }
    return 80;
}

double percent(std::uint64_t size, std::uint64_t done) {
    return size == 0 ? 100.0 : 100.0 * static_cast<double>(std::min(done, size)) / size;
}

}  // namespace

ProgressDisplay::ProgressDisplay(std::size_t files, std::uint64_t totalSize)
    : terminal_(::isatty(STDOUT_FILENO) == 1),
      width_(terminal_ ? terminalWidth() : 80),
      files_(files),
      totalSize_(totalSize) {}

// "  name            [########--------]  45 %  10.8 MiB of 24.0 MiB", one column short of
// the terminal's width so that no line ever wraps.
std::string ProgressDisplay::bar(const std::string& label, std::uint64_t size,
                                 std::uint64_t done) const {
    const std::string amount = fmt::format("{} of {}", bytes(std::min(done, size)), bytes(size));
    constexpr std::size_t kAmount = 24;                          // "1023.9 MiB of 1023.9 MiB"
    constexpr std::size_t kFixed = 2 + 1 + 2 + 5 + 2 + kAmount;  // margins, brackets, "100 %
    const std::size_t rest = width_ - 1 - kFixed;
    const std::size_t labelWidth = rest * 2 / 5;
    const std::size_t barWidth = rest - labelWidth;
    const double share = percent(size, done);
    const auto filled = static_cast<std::size_t>(share / 100.0 * barWidth);
    // A path too long for its column gives way to its file's name, cut in the middle if need
    // be: files of one folder differ at the start of their names more than at the end.
    const auto slash = label.rfind('/');
    const std::string shown = columns(label) <= labelWidth || slash == std::string::npos
                                  ? fit(label, labelWidth)
                                  : fitMiddle(label.substr(slash + 1), labelWidth);
    return fit(fmt::format("  {} [{}{}] {:>3.0f} %  {}", shown, std::string(filled, '#'),
                           std::string(barWidth - filled, '-'), share, amount),
               width_ - 1);
}

void ProgressDisplay::progress(const std::string& name, std::uint64_t size, std::uint64_t done) {
    if (closed_) {
        return;  // a late word after the summary
    }
    Live& live = live_[name];
    live.size = size;
    live.done = done;
    if (!terminal_) {
        const int quarter = static_cast<int>(percent(size, done) / 25);
        if (quarter > live.quarter && quarter < 4) {
            live.quarter = quarter;
            fmt::print("{:>10} %  {}\n", quarter * 25, name);
            std::fflush(stdout);
        }
        return;
    }
    redraw(false);
}

void ProgressDisplay::finished(const std::string& name, std::uint64_t size) {
    if (closed_) {
        return;
    }
    live_.erase(name);
    finishedSize_ += size;
    ++finishedCount_;
    settle(fmt::format("downloaded {:>10}  ", bytes(size)), name);
}

void ProgressDisplay::failed(const std::string& name, const std::string& reason) {
    if (closed_) {
        return;
    }
    live_.erase(name);
    ++finishedCount_;
    settle("failed     ", fmt::format("{}: {}", name, reason));
}

void ProgressDisplay::close(const std::string& summary) {
    live_.clear();
    closed_ = true;
    settle(summary, "");
}

// On a terminal the line is cut to its width, at the start of `name`: a path's end says most.
void ProgressDisplay::settle(const std::string& prefix, const std::string& name) {
    if (!terminal_) {
        fmt::print("{}{}\n", prefix, name);
        std::fflush(stdout);
        return;
    }
    const std::size_t room = width_ - 1 > prefix.size() ? width_ - 1 - prefix.size() : 1;
    settled_.push_back(prefix + fitEnd(name, room));
    redraw(true);
}

void ProgressDisplay::redraw(bool now) {
    const auto time = std::chrono::steady_clock::now();
    if (!now && time - lastDrawn_ < kRedrawInterval) {
        return;
    }
    lastDrawn_ = time;
    std::string screen;
    if (drawn_ > 0) {
        screen += fmt::format("\x1b[{}F\x1b[J", drawn_);  // back over the bars, cleared
    }
    for (const auto& line : settled_) {
        screen += fit(line, width_ - 1) + "\n";
    }
    settled_.clear();
    drawn_ = 0;
    if (!closed_) {
        std::uint64_t batchDone = finishedSize_;
        for (const auto& [name, live] : live_) {
            screen += bar(name, live.size, live.done) + "\n";
            batchDone += live.done;
            ++drawn_;
        }
        screen +=
            bar(fmt::format("{} of {} files", finishedCount_, files_), totalSize_, batchDone) +
            "\n";
        ++drawn_;
    }
    std::fwrite(screen.data(), 1, screen.size(), stdout);
    std::fflush(stdout);
}

}  // namespace qnicloud
