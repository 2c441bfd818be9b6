#pragma once

namespace qn {

/// How urgent a piece of background work is. The values are the platform's quality-of-service
/// classes; higher values are taken first by the shared worker pool.
enum class QualityOfService : int {
    UserInteractive = 33,
    UserInitiated = 25,
    Default = 21,
    Utility = 17,
    Background = 9,
};

}  // namespace qn
