#pragma once

// A metadata feed observer that records what it is told: each call as one line ("gather a b",
// "finish", "change a | -b", items by their last path component), the latest report of every
// item not removed since (by path), and each percentage downloaded reported. Feeds may call it
// from any thread; `onChange` is set before the feed can call.

#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <utility>
#include <vector>

#include "qn/MetadataAttributes.h"
#include "qn/MetadataFeed.h"
#include "qn/PathString.h"

namespace qn::test {

class FeedRecorder : public MetadataFeedObserver {
public:
    void feedDidGather(std::vector<std::shared_ptr<const MetadataItem>> items) override {
        record("gather", items, {});
    }
    void feedDidFinishGathering() override { record("finish", {}, {}); }
    void feedDidChange(std::vector<std::shared_ptr<const MetadataItem>> items,
                       std::vector<std::string> removed) override {
        record("change", items, removed);
        if (auto change = std::exchange(onChange, nullptr)) {
            change();
        }
    }

    std::vector<std::string> calls() {
        std::lock_guard lock(mutex_);
        return calls_;
    }
    std::shared_ptr<const MetadataItem> latest(const std::string& path) {
        std::lock_guard lock(mutex_);
        const auto found = latest_.find(path);
        return found == latest_.end() ? nullptr : found->second;
    }
    // Whether the latest report of `path` holds true for `attribute`.
    bool flag(const std::string& path, const char* attribute) {
        const auto item = latest(path);
        const Value* value = item ? item->valueForAttribute(attribute) : nullptr;
        return value != nullptr && value->boolValue().value_or(false);
    }
    std::vector<double> percentages(const std::string& path) {
        std::lock_guard lock(mutex_);
        return percentages_[path];
    }

    /// Runs once, inside the next change call.
    std::function<void()> onChange;

private:
    void record(std::string line, const std::vector<std::shared_ptr<const MetadataItem>>& items,
                const std::vector<std::string>& removed) {
        std::lock_guard lock(mutex_);
        for (const auto& item : items) {
            line += " " + lastPathComponent(item->path());
            latest_[item->path()] = item;
            if (const Value* percent =
                    item->valueForAttribute(NSMetadataUbiquitousItemPercentDownloadedKey)) {
                percentages_[item->path()].push_back(percent->doubleValue().value_or(-1));
            }
        }
        line += removed.empty() ? "" : " |";
        for (const auto& path : removed) {
            line += " -" + lastPathComponent(path);
            latest_.erase(path);
        }
        calls_.push_back(line);
    }

    std::mutex mutex_;
    std::vector<std::string> calls_;
    std::map<std::string, std::shared_ptr<const MetadataItem>> latest_;
    std::map<std::string, std::vector<double>> percentages_;
};

}  // namespace qn::test
