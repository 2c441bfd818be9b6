#include "qn/DispatchQueue.h"

#include "ThreadPool.h"

namespace qn {

DispatchQueue& DispatchQueue::global(QualityOfService qos) {
    static DispatchQueue userInteractive(QualityOfService::UserInteractive);
    static DispatchQueue userInitiated(QualityOfService::UserInitiated);
    static DispatchQueue defaultQueue(QualityOfService::Default);
    static DispatchQueue utility(QualityOfService::Utility);
    static DispatchQueue background(QualityOfService::Background);
    switch (qos) {
        case QualityOfService::UserInteractive:
            return userInteractive;
        case QualityOfService::UserInitiated:
            return userInitiated;
        case QualityOfService::Default:
            return defaultQueue;
        case QualityOfService::Utility:
            return utility;
        case QualityOfService::Background:
            return background;
    }
    return defaultQueue;
}

void DispatchQueue::async(std::function<void()> work) const {
    ThreadPool::shared().submit(qos_, std::move(work));
}

}  // namespace qn
