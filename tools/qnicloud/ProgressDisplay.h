#pragma once

// How `qnicloud download` shows a batch of downloads. On a terminal: a bar for each file under
// way and one for the whole batch, redrawn in place and sized to the terminal; a line stays for
// each file that finished or failed. Anywhere else (a pipe, a file): plain lines, one when a file
// passes each quarter and one when it ends. Main thread only.

#include <chrono>
#include <cstdint>
#include <map>
#include <string>
#include <vector>

namespace qnicloud {

class ProgressDisplay {
public:
    ProgressDisplay(std::size_t files, std::uint64_t totalSize);

    void progress(const std::string& name, std::uint64_t size, std::uint64_t done);
    void finished(const std::string& name, std::uint64_t size);
    void failed(const std::string& name, const std::string& reason);
    /// The last word: the batch's line stays; what comes after is ignored.
    void close(const std::string& summary);

private:
    struct Live {
        std::uint64_t size = 0;
        std::uint64_t done = 0;
        int quarter = 0;  // the last quarter reported on plain output
    };

    void settle(const std::string& prefix, const std::string& name);
    void redraw(bool now);
    std::string bar(const std::string& label, std::uint64_t size, std::uint64_t done) const;

    const bool terminal_;
    const std::size_t width_;
    const std::size_t files_;
    const std::uint64_t totalSize_;
    std::uint64_t finishedSize_ = 0;
    std::size_t finishedCount_ = 0;
    std::map<std::string, Live> live_;
    std::vector<std::string> settled_;  // lines to print above the bars at the next redraw
    bool closed_ = false;
    std::size_t drawn_ = 0;  // bar lines on the screen below the settled ones
    std::chrono::steady_clock::time_point lastDrawn_;
};

}  // namespace qnicloud
