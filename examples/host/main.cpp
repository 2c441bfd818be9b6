// A minimal host program: it drives the main queue the way a desktop application's event loop
// does, hands work to a serial operation queue, and receives the results as notifications on the
// main thread.

#include <fmt/core.h>

#include <chrono>

#include "qn/Dictionary.h"
#include "qn/Logger.h"
#include "qn/MainQueue.h"
#include "qn/NotificationCenter.h"
#include "qn/OperationQueue.h"

namespace {

constexpr const char* kWorkDidFinishNotification = "ExampleWorkDidFinishNotification";

}  // namespace

int main() {
    auto& log = qn::Logger::named("example");
    auto& center = qn::NotificationCenter::defaultCenter();

    int finished = 0;
    auto observation = center.addObserver(
        kWorkDidFinishNotification, nullptr, [&](const qn::Notification& notification) {
            const auto item = notification.userInfo.int64ForKey("item").value_or(-1);
            fmt::print("main thread: item {} finished (on main thread: {})\n", item,
                       qn::MainQueue::isMainThread());
            ++finished;
        });

    auto queue = qn::OperationQueue::create("example.serial", 1);
    constexpr int kItems = 5;
    for (int i = 0; i < kItems; ++i) {
        queue->addOperationWithBlock([i, &center] {
            qn::Dictionary userInfo{{"item", qn::Value(i)}};
            qn::MainQueue::async([userInfo, &center] {
                center.post(kWorkDidFinishNotification, nullptr, userInfo);
            });
        });
    }

    const bool allDone =
        qn::MainQueue::runUntil([&] { return finished == kItems; }, std::chrono::seconds(10));
    log.info("Example host finished {} of {} items.", finished, kItems);
    return allDone ? 0 : 1;
}
