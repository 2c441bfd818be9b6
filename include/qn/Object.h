#pragma once

#include <memory>

namespace qn {

/// Root of the reference-counted objects that can be the sender of a notification (presenters,
/// metadata queries, reachability monitors). Observers compare a notification's sender by
/// identity and may cast it back with `std::dynamic_pointer_cast`. Objects are owned through
/// `std::shared_ptr`; `shared_from_this()` gives a strong reference to post as sender.
class Object : public std::enable_shared_from_this<Object> {
public:
    virtual ~Object() = default;

protected:
    Object() = default;
    Object(const Object&) = default;
    Object& operator=(const Object&) = default;
};

}  // namespace qn
