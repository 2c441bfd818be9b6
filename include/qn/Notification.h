#pragma once

#include <memory>
#include <string>

#include "qn/Dictionary.h"
#include "qn/Object.h"

namespace qn {

/// What a notification centre delivers: a name, an optional sender and a user-info dictionary.
/// A value that holds its sender strongly: a host that keeps a notification (or a copy) keeps
/// the sender, a presenter for instance, alive until it lets the notification go.
struct Notification {
    std::string name;
    std::shared_ptr<Object> object;
    Dictionary userInfo;

    /// The sender as a `T`, or null when there is none or it is of another type.
    template <class T>
    std::shared_ptr<T> objectAs() const {
        return std::dynamic_pointer_cast<T>(object);
    }
};

}  // namespace qn
